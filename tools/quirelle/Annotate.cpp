// annotations, highlight, annotate, delete-annotations. The editing commands
// refuse a document whose permissions forbid annotating unless it was opened
// with the owner password; written in place, the changes are appended to the
// file's bytes where the library can.

#include "Annotate.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Reading.h"

namespace QuirelleCli {

using namespace Orvane::PDF;
using json = nlohmann::ordered_json;

namespace {

std::string TypeName(const Annotation& a) {
    return a.subtype.empty() ? "?" : a.subtype;
}

std::string Colour(uint32_t rgb) {
    char text[8];
    std::snprintf(text, sizeof text, "#%06X", rgb & 0xFFFFFFu);
    return text;
}

uint32_t ParseColour(const std::string& option, const std::string& text) {
    const std::string hex = !text.empty() && text[0] == '#' ? text.substr(1) : text;
    if (hex.size() == 6 && hex.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos)
        return uint32_t(std::stoul(hex, nullptr, 16));
    throw UsageError(option + " " + text + ": write a colour as #RRGGBB");
}

std::vector<double> Numbers(const std::string& option, const std::string& text, size_t count) {
    std::vector<double> out;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        char* end = nullptr;
        const double value = std::strtod(item.c_str(), &end);
        if (item.empty() || *end != '\0' || !std::isfinite(value))
            throw UsageError(option + " " + text + ": not a list of numbers");
        out.push_back(value);
    }
    if (count != 0 && out.size() != count)
        throw UsageError(option + " " + text + ": give " + std::to_string(count) + " numbers separated by commas");
    if (count == 0 && (out.size() < 2 || out.size() % 2))
        throw UsageError(option + " " + text + ": give X,Y pairs separated by commas");
    return out;
}

Position Point(const std::string& option, const std::string& text) {
    const std::vector<double> n = Numbers(option, text, 2);
    return {n[0], n[1]};
}

// Opens the document an annotation edit works on and checks where it goes
// and that the document allows it.
int64 OpenForAnnotating(Session& session, const std::string& file, const Destination& destination,
                        const std::string& password) {
    destination.Check();
    if (!destination.inPlace) RefuseToOverwrite(destination.out, file, "to change the file itself, use --in-place");
    CheckWritable(destination.inPlace ? fs::path(file) : fs::path(destination.out));
    const int64 id = session.Open(file, password);
    if (session.Service().IsAnnotateProtected(id)) {
        throw Failure(file +
                      ": the document does not allow adding or changing annotations (open it with the owner "
                      "password through --password)");
    }
    return id;
}

std::string Where(const std::string& file, const Destination& destination) {
    return destination.inPlace ? file : destination.out;
}

std::string Count(size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// Contents on one line: line breaks and tabs written as \n and \t.
std::string OneLine(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\t')
            out += "\\t";
        else
            out += c;
    }
    return out;
}

}  // namespace

int RunAnnotations(Session& session, const AnnotationsOptions& options, const std::string& password) {
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), session.PageCount(id));
    json all = json::array();
    for (unsigned page : pages) {
        for (const Annotation& a : service.GetAnnotations(id, page).get()) {
            const Rect& r = a.rect;
            if (!options.json) {
                char box[128];
                std::snprintf(box, sizeof box, "%g %g %g %g", r.left, r.bottom, r.right, r.top);
                std::cout << page + 1 << "\t" << a.id << "\t" << TypeName(a) << "\t" << box << "\t" << OneLine(a.author)
                          << "\t" << OneLine(a.contents) << "\n";
                continue;
            }
            json item = {{"page", page + 1},
                         {"id", a.id},
                         {"type", TypeName(a)},
                         {"rect", {r.left, r.bottom, r.right, r.top}},
                         {"author", a.author},
                         {"contents", a.contents},
                         {"subject", a.subject},
                         {"modified", a.modified.raw},
                         {"color", a.hasColor ? json(Colour(a.color)) : json(nullptr)},
                         {"opacity", a.opacity},
                         {"hidden", a.hidden},
                         {"inReplyTo", a.inReplyTo ? json(a.inReplyTo) : json(nullptr)}};
            all.push_back(item);
        }
    }
    if (options.json) std::cout << all.dump(2) << "\n";
    return 0;
}

int RunHighlight(Session& session, const HighlightOptions& options, const std::string& password) {
    const uint32_t colour = ParseColour("--color", options.color);
    if (options.text.empty()) throw UsageError("give the text to highlight");
    Quirelle& service = session.Service();
    const int64 id = OpenForAnnotating(session, options.file, options.destination, password);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), session.PageCount(id));
    const std::wstring needle = FromUtf8(options.text);
    size_t made = 0, pagesMarked = 0;
    for (unsigned page : pages) {
        const std::shared_ptr<ITextObject> text = service.GetPageTextObject(id, page).get();
        if (!text) continue;
        const std::vector<SearchResultInfo> hits = text->FindText(needle, 0);
        if (!hits.empty()) ++pagesMarked;
        for (const SearchResultInfo& hit : hits) {
            NewAnnotation highlight;
            highlight.type = AnnotHighlight;
            highlight.lines = text->GetTextRects(hit.charIndex, hit.charCount);
            if (highlight.lines.empty()) highlight.lines = {hit.bounds};
            highlight.hasColor = true;
            highlight.color = colour;
            highlight.author = options.author;
            service.CreateAnnotation(id, page, highlight).get();
            ++made;
        }
    }
    if (made == 0) throw Failure(options.file + ": \"" + options.text + "\" not found on the pages given");
    session.Save(id, options.destination);
    std::cout << Where(options.file, options.destination) << ": " << Count(made, "highlight", "highlights") << " on "
              << Count(pagesMarked, "page", "pages") << "\n";
    return 0;
}

int RunAnnotate(Session& session, const AnnotateOptions& options, const std::string& password) {
    NewAnnotation a;
    const std::string& kind = options.kind;
    auto need = [&](const std::string& value, const char* option) {
        if (value.empty()) throw UsageError(kind + " needs " + option);
    };
    if (kind == "note") {
        need(options.at, "--at X,Y");
        a.type = AnnotText;
        a.at = Point("--at", options.at);
    } else if (kind == "ink") {
        if (options.strokes.empty()) throw UsageError("ink needs --stroke X,Y,X,Y,... (once a stroke)");
        a.type = AnnotInk;
        for (const std::string& stroke : options.strokes) {
            const std::vector<double> n = Numbers("--stroke", stroke, 0);
            std::vector<Position> points;
            for (size_t i = 0; i < n.size(); i += 2) points.push_back({n[i], n[i + 1]});
            a.strokes.push_back(points);
        }
    } else if (kind == "square" || kind == "circle" || kind == "freetext") {
        need(options.rect, "--rect LEFT,BOTTOM,RIGHT,TOP");
        const std::vector<double> n = Numbers("--rect", options.rect, 4);
        a.type = kind == "square" ? AnnotSquare : kind == "circle" ? AnnotCircle : AnnotFreeText;
        a.rect = {std::min(n[0], n[2]), std::max(n[1], n[3]), std::max(n[0], n[2]), std::min(n[1], n[3])};
        if (kind == "freetext") need(options.text, "--text");
    } else if (kind == "line" || kind == "arrow") {
        need(options.from, "--from X,Y");
        need(options.to, "--to X,Y");
        a.type = AnnotLine;
        a.from = Point("--from", options.from);
        a.to = Point("--to", options.to);
        a.arrow = kind == "arrow";
    } else {
        throw UsageError("annotate: KIND is one of note, ink, square, circle, line, arrow, freetext");
    }
    if (!options.color.empty()) {
        a.hasColor = true;
        a.color = ParseColour("--color", options.color);
        a.textColor = a.color;
    }
    if (!options.fill.empty()) {
        a.hasInteriorColor = true;
        a.interiorColor = ParseColour("--fill", options.fill);
    }
    if (!(options.opacity >= 0 && options.opacity <= 1)) throw UsageError("--opacity: from 0 to 1");
    a.opacity = options.opacity;
    a.borderWidth = options.width;
    a.fontSize = options.fontSize;
    a.author = options.author;
    a.contents = options.text;

    Quirelle& service = session.Service();
    const int64 id = OpenForAnnotating(session, options.file, options.destination, password);
    const std::vector<unsigned> page = ParsePages(PagesByLabel(session, id, options.page), session.PageCount(id));
    if (page.size() != 1) throw UsageError("annotate: give one PAGE");
    int64_t made = 0;
    try {
        made = service.CreateAnnotation(id, page[0], a).get();
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
    session.Save(id, options.destination);
    std::cout << Where(options.file, options.destination) << ": " << kind << " added to page " << page[0] + 1 << " (id "
              << made << ")\n";
    return 0;
}

int RunDeleteAnnotations(Session& session, const DeleteAnnotationsOptions& options, const std::string& password) {
    int type = -1;
    if (!options.type.empty()) {
        char* end = nullptr;
        const long number = std::strtol(options.type.c_str(), &end, 10);
        if (*end == '\0' && number >= 0 && number <= 28) {
            type = int(number);
        } else {
            for (int t = 1; t <= 28 && type < 0; ++t) {
                static const char* const names[] = {
                    "Text",        "Link",      "FreeText",       "Line",     "Square",    "Circle",    "Polygon",
                    "PolyLine",    "Highlight", "Underline",      "Squiggly", "StrikeOut", "Stamp",     "Caret",
                    "Ink",         "Popup",     "FileAttachment", "Sound",    "Movie",     "Widget",    "Screen",
                    "PrinterMark", "TrapNet",   "Watermark",      "3D",       "RichMedia", "XFAWidget", "Redact"};
                if (strcasecmp(names[t - 1], options.type.c_str()) == 0) type = t;
            }
            if (type < 0)
                throw UsageError("--type " + options.type + ": not an annotation type (Highlight, Ink, 15...)");
        }
    }
    Quirelle& service = session.Service();
    const int64 id = OpenForAnnotating(session, options.file, options.destination, password);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), session.PageCount(id));
    size_t deleted = 0;
    for (unsigned page : pages) {
        for (;;) {
            // Deleting one may take its popup and replies along: list again.
            const std::vector<Annotation> list = service.GetAnnotations(id, page).get();
            const Annotation* next = nullptr;
            for (const Annotation& a : list) {
                const bool wanted = type >= 0 ? a.type == type : a.type != AnnotWidget && a.type != AnnotPopup;
                if (wanted) {
                    next = &a;
                    break;
                }
            }
            if (!next) break;
            service.DeleteAnnotation(id, page, next->id).get();
            ++deleted;
        }
    }
    if (deleted > 0) session.Save(id, options.destination);
    std::cout << (deleted > 0 ? Where(options.file, options.destination) : options.file) << ": "
              << Count(deleted, "annotation", "annotations") << " deleted\n";
    return 0;
}

}  // namespace QuirelleCli
