// quirelle: read, render, search and edit PDF files from the command line.
// Exit status: 0 done, 1 a file or document let the command down, 2 the
// command line was wrong. Errors are one line on stderr.

#include <glog/logging.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "Annotate.h"
#include "Cli.h"
#include "Reading.h"

using namespace QuirelleCli;

namespace {

constexpr const char* kPagesHelp =
    "pages such as 1-3,7,10-z (counted from 1, z is the last page), label:iv or label:iv..A-3 (by page label; "
    "with --pages-by-label every item: iv,iv..A-3)";

// A number from low to high, said plainly when it is not ("--dpi: 0 is not
// between 1 and 2400").
CLI::Validator Between(double low, double high, bool whole) {
    auto format = [](double value) {
        char text[32];
        std::snprintf(text, sizeof text, "%.15g", value);
        return std::string(text);
    };
    return CLI::Validator(
        [=](std::string& input) -> std::string {
            size_t used = 0;
            double value = 0;
            try {
                value = std::stod(input, &used);
            } catch (const std::exception&) {
            }
            if (used == 0 || used != input.size() || (whole && value != std::floor(value)))
                return input + " is not " + (whole ? "a whole number" : "a number");
            if (!(value >= low && value <= high))
                return input + " is not between " + format(low) + " and " + format(high);
            return "";
        },
        "", "Between");
}

void AddDestination(CLI::App* command, Destination& destination) {
    auto* out = command->add_option("--out", destination.out, "write the result to this new file");
    command->add_flag("--decrypt", destination.decrypt,
                      "write the new file without encryption (needs the owner password through --password)");
    command->add_flag("--in-place", destination.inPlace, "replace the file (written safely: all or nothing)")
        ->excludes(out);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Reads, renders, searches and edits PDF files.", "quirelle"};
    app.require_subcommand(1);
    app.fallthrough();
    std::string password;
    unsigned timeBudget = 0, memoryLimit = 0;
    bool verbose = false;
    app.add_option("--password", password, "password of an encrypted input file");
    app.add_option("--time-budget", timeBudget, "longest time in ms the engine may spend on one request")
        ->check(Between(1, 86'400'000, true));
    app.add_option("--memory-limit", memoryLimit, "most memory in MB the engine may allocate")
        ->check(Between(16, 1 << 20, true));
    app.add_flag("--verbose", verbose, "show the library's log on stderr");
    bool pagesByLabel = false;
    app.add_flag("--pages-by-label", pagesByLabel,
                 "read every item of PAGES as a page label (iv, iv..A-3); an item no label names stays a page number");

    InfoOptions info;
    auto* infoCommand = app.add_subcommand("info", "pages, page sizes, rotation, permissions, encryption, document information, page labels, links");
    infoCommand->add_option("FILE", info.file, "PDF or image file")->required();
    infoCommand->add_flag("--links", info.links, "list the links of every page");
    infoCommand->add_flag("--json", info.json, "print one JSON object");

    OutlineOptions outline;
    auto* outlineCommand = app.add_subcommand("outline", "print the outline (table of contents), one line per entry");
    outlineCommand->add_option("FILE", outline.file, "PDF file")->required();
    outlineCommand->add_flag("--json", outline.json, "print nested JSON entries");

    RenderOptions render;
    auto* renderCommand = app.add_subcommand("render", "render pages to image files page-001.png, page-002.png...");
    renderCommand->add_option("FILE", render.file, "PDF or image file")->required();
    renderCommand->add_option("PAGES", render.pages, kPagesHelp)->capture_default_str();
    auto* dpi = renderCommand->add_option("--dpi", render.dpi, "resolution (the default is 96)")
                    ->check(Between(1, 2400, false));
    auto* width = renderCommand->add_option("--width", render.width, "picture width in pixels, height to scale")
                      ->check(Between(1, 30000, true));
    auto* height = renderCommand->add_option("--height", render.height, "picture height in pixels, width to scale")
                       ->check(Between(1, 30000, true));
    dpi->excludes(width)->excludes(height);
    width->excludes(height);
    renderCommand->add_option("--out", render.out, "directory for the pictures (made if missing); with --region, the file")
        ->required();
    renderCommand->add_option("--region", render.region,
                              "LEFT,BOTTOM,RIGHT,TOP in points: draw only this part of one PAGE, at --dpi")
        ->excludes(width)
        ->excludes(height);
    renderCommand->add_option("--format", render.format, "png or jpg")
        ->check(CLI::IsMember({"png", "jpg"}))
        ->capture_default_str();
    renderCommand->add_option("--png-level", render.pngLevel, "PNG compression from 1 (fastest) to 9 (smallest)")
        ->check(Between(1, 9, true))
        ->capture_default_str();
    renderCommand->add_flag("--keep-going", render.keepGoing,
                            "go on with the other pages when a page cannot be drawn completely (the exit status is "
                            "still 1)");

    TextOptions text;
    auto* textCommand = app.add_subcommand("text", "print the text of pages, separated by form feeds");
    textCommand->add_option("FILE", text.file, "PDF file")->required();
    textCommand->add_option("PAGES", text.pages, kPagesHelp)->capture_default_str();

    SearchOptions search;
    auto* searchCommand = app.add_subcommand("search", "find text, printing each page's hits as the search advances");
    searchCommand->footer(
        "Each hit comes with one rectangle per text line it covers: [left top right bottom] in points, origin at the "
        "bottom-left of the page.");
    searchCommand->add_option("FILE", search.file, "PDF file")->required();
    searchCommand->add_option("TEXT", search.text, "text to find")->required();
    searchCommand->add_option("--from", search.from, "page to start at; the search wraps around")
        ->capture_default_str();
    searchCommand->add_flag("--case", search.matchCase, "match case");
    searchCommand->add_flag("--words", search.words, "whole words only");
    searchCommand->add_flag("--json", search.json, "one JSON object per page with hits, then a summary object");

    ExportOptions exported;
    auto* exportCommand = app.add_subcommand("export", "write the pages, in the order given, to a new file");
    exportCommand->add_option("FILE", exported.file, "PDF file")->required();
    exportCommand->add_option("PAGES", exported.pages, kPagesHelp)->required();
    exportCommand->add_option("--out", exported.out, "the new file")->required();

    MergeOptions merge;
    auto* mergeCommand = app.add_subcommand("merge", "join files, or some of their pages, into a new file");
    mergeCommand->add_option("INPUT", merge.inputs, "FILE or FILE:PAGES, for example a.pdf b.pdf:1-3,z")->required();
    mergeCommand->add_option("--out", merge.out, "the new file (required)");

    PageEditOptions edit;
    auto* rotateCommand = app.add_subcommand("rotate", "turn pages clockwise");
    rotateCommand->add_option("FILE", edit.file, "PDF file")->required();
    rotateCommand->add_option("PAGES", edit.pages, kPagesHelp)->required();
    rotateCommand->add_option("--by", edit.by, "90, 180 or 270 degrees")
        ->check(CLI::IsMember({90, 180, 270}))
        ->required();
    AddDestination(rotateCommand, edit.destination);

    auto* deleteCommand = app.add_subcommand("delete", "delete pages");
    deleteCommand->add_option("FILE", edit.file, "PDF file")->required();
    deleteCommand->add_option("PAGES", edit.pages, kPagesHelp)->required();
    AddDestination(deleteCommand, edit.destination);

    auto* moveCommand = app.add_subcommand("move", "move pages so that the first of them becomes page N");
    moveCommand->add_option("FILE", edit.file, "PDF file")->required();
    moveCommand->add_option("PAGES", edit.pages, kPagesHelp)->required();
    moveCommand->add_option("--to", edit.to, "N, counted in the result")->required();
    AddDestination(moveCommand, edit.destination);

    auto* blankCommand = app.add_subcommand("blank", "insert a blank page so that it becomes page N");
    blankCommand->add_option("FILE", edit.file, "PDF file")->required();
    blankCommand->add_option("--at", edit.at, "N, from 1 to the page count + 1")->required();
    blankCommand->add_option(
        "--size", edit.size,
        PaperNames() + " or WIDTHxHEIGHT in points; by default the size of the page it goes before");
    AddDestination(blankCommand, edit.destination);

    AnnotationsOptions annotations;
    auto* annotationsCommand =
        app.add_subcommand("annotations", "list annotations, one line each: page, id, type, rectangle, author, contents");
    annotationsCommand->add_option("FILE", annotations.file, "PDF file")->required();
    annotationsCommand->add_option("PAGES", annotations.pages, kPagesHelp);
    annotationsCommand->add_flag("--json", annotations.json, "print JSON");

    HighlightOptions highlight;
    auto* highlightCommand = app.add_subcommand("highlight", "highlight every match of a text, as search finds it");
    highlightCommand->add_option("FILE", highlight.file, "PDF file")->required();
    highlightCommand->add_option("PAGES", highlight.pages, kPagesHelp)->required();
    highlightCommand->add_option("TEXT", highlight.text, "the text to highlight")->required();
    highlightCommand->add_option("--color", highlight.color, "#RRGGBB (yellow by default)");
    highlightCommand->add_option("--author", highlight.author, "the author the highlights name");
    AddDestination(highlightCommand, highlight.destination);

    AnnotateOptions annotate;
    auto* annotateCommand = app.add_subcommand("annotate", "add a note, ink, a shape, a line or free text to a page");
    annotateCommand->add_option("FILE", annotate.file, "PDF file")->required();
    annotateCommand->add_option("PAGE", annotate.page, "the page (a number, or label:L)")->required();
    annotateCommand->add_option("KIND", annotate.kind, "note, ink, square, circle, line, arrow or freetext")
        ->check(CLI::IsMember({"note", "ink", "square", "circle", "line", "arrow", "freetext"}))
        ->required();
    annotateCommand->add_option("--at", annotate.at, "note: X,Y, the icon's top-left corner (points from the bottom-left)");
    annotateCommand->add_option("--rect", annotate.rect, "square, circle, freetext: LEFT,BOTTOM,RIGHT,TOP");
    annotateCommand->add_option("--from", annotate.from, "line, arrow: X,Y");
    annotateCommand->add_option("--to", annotate.to, "line, arrow: X,Y (the arrow's head)");
    annotateCommand->add_option("--stroke", annotate.strokes, "ink: X,Y,X,Y,... (repeat for more strokes)");
    annotateCommand->add_option("--text", annotate.text, "the contents (freetext: the text shown)");
    annotateCommand->add_option("--color", annotate.color, "#RRGGBB (freetext: of the text)");
    annotateCommand->add_option("--fill", annotate.fill, "square, circle: #RRGGBB inside");
    annotateCommand->add_option("--author", annotate.author, "the author it names");
    annotateCommand->add_option("--opacity", annotate.opacity, "0 to 1 (1 by default)");
    annotateCommand->add_option("--width", annotate.width, "line width in points");
    annotateCommand->add_option("--font-size", annotate.fontSize, "freetext: in points (12 by default)");
    AddDestination(annotateCommand, annotate.destination);

    DeleteAnnotationsOptions deleteAnnotations;
    auto* deleteAnnotationsCommand = app.add_subcommand(
        "delete-annotations", "delete annotations (all but form fields, or one type), with their popups and replies");
    deleteAnnotationsCommand->add_option("FILE", deleteAnnotations.file, "PDF file")->required();
    deleteAnnotationsCommand->add_option("PAGES", deleteAnnotations.pages, kPagesHelp)->required();
    deleteAnnotationsCommand->add_option("--type", deleteAnnotations.type, "Highlight, Ink, Link... or a type number");
    AddDestination(deleteAnnotationsCommand, deleteAnnotations.destination);

    ImagesOptions images;
    auto* imagesCommand = app.add_subcommand(
        "images-to-pdf", "make a PDF of images, one page per image (per frame of a TIFF), one point per pixel");
    imagesCommand->add_option("IMAGE", images.images, ImageExtensions())->required();
    imagesCommand->add_option("--out", images.out, "the new file (required)");

    FieldsOptions fields;
    auto* fieldsCommand = app.add_subcommand("fields", "list the form's fields, one line per field: name, type, value, page");
    fieldsCommand->add_option("FILE", fields.file, "PDF file")->required();
    fieldsCommand->add_flag("--json", fields.json, "print one JSON object (what fill --from reads)");

    FillOptions fill;
    auto* fillCommand = app.add_subcommand(
        "fill", "fill in form fields: check boxes take on/off, radio groups and lists one of their states or options");
    fillCommand->add_option("FILE", fill.file, "PDF file")->required();
    fillCommand->add_option("NAME=VALUE", fill.assignments, "field names as quirelle fields prints them");
    fillCommand->add_option("--from", fill.from, "the values in the JSON that fields --json writes, edited");
    AddDestination(fillCommand, fill.destination);

    FlattenOptions flatten;
    auto* flattenCommand =
        app.add_subcommand("flatten", "turn the form's fields into page content that can no longer be changed");
    flattenCommand->add_option("FILE", flatten.file, "PDF file")->required();
    AddDestination(flattenCommand, flatten.destination);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
        if (app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-') {
            std::cerr << "quirelle: unknown command \"" << argv[1] << "\" (see --help)\n";
            return 2;
        }
        std::cerr << "quirelle: " << e.what() << " (see --help)\n";
        return 2;
    }

    google::InitGoogleLogging(argv[0]);
    FLAGS_logtostderr = true;
    FLAGS_minloglevel = verbose ? google::GLOG_INFO : google::GLOG_FATAL;
    ApplyEngineLimits(timeBudget, memoryLimit);
    ReadEveryPageAsLabel(pagesByLabel);
    Session session;
    try {
        if (*infoCommand) return RunInfo(session, info, password);
        if (*outlineCommand) return RunOutline(session, outline, password);
        if (*renderCommand) return RunRender(session, render, password);
        if (*textCommand) return RunText(session, text, password);
        if (*searchCommand) return RunSearch(session, search, password);
        if (*exportCommand) return RunExport(session, exported, password);
        if (*mergeCommand) return RunMerge(session, merge, password);
        if (*rotateCommand) return RunRotate(session, edit, password);
        if (*deleteCommand) return RunDelete(session, edit, password);
        if (*moveCommand) return RunMove(session, edit, password);
        if (*blankCommand) return RunBlank(session, edit, password);
        if (*imagesCommand) return RunImagesToPdf(session, images);
        if (*annotationsCommand) return RunAnnotations(session, annotations, password);
        if (*highlightCommand) return RunHighlight(session, highlight, password);
        if (*annotateCommand) return RunAnnotate(session, annotate, password);
        if (*deleteAnnotationsCommand) return RunDeleteAnnotations(session, deleteAnnotations, password);
        if (*fieldsCommand) return RunFields(session, fields, password);
        if (*fillCommand) return RunFill(session, fill, password);
        if (*flattenCommand) return RunFlatten(session, flatten, password);
    } catch (const UsageError& e) {
        std::cerr << "quirelle: " << e.what() << "\n";
        return 2;
    } catch (const Failure& e) {
        std::cerr << "quirelle: " << e.what() << "\n";
        return 1;
    } catch (const std::exception& e) {
        // From the library: about the file the command was working on.
        std::cerr << "quirelle: " << session.CurrentFile() << (session.CurrentFile().empty() ? "" : ": ") << e.what()
                  << "\n";
        return 1;
    }
    return 2;
}
