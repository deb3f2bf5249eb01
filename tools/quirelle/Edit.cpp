// Subcommands that write documents: export, merge, rotate, delete, move,
// blank and images-to-pdf. Each checks that its output can be written before
// it starts, and every file is written through the library's atomic save.

#include <algorithm>
#include <cctype>
#include <cmath>
#include <iostream>

#include "Cli.h"
#include "Reading.h"

namespace QuirelleCli {

using namespace Orvane::PDF;

namespace {

// Opens the document a page edit works on and checks where it will go.
int64 OpenForEdit(Session& session, const PageEditOptions& options, const std::string& password) {
    options.destination.Check();
    if (options.destination.inPlace && IsImageFileExtension(fs::path(options.file).extension().string())) {
        throw UsageError(options.file + ": an image file cannot be replaced by a PDF: write to --out NEW.pdf");
    }
    if (!options.destination.inPlace)
        RefuseToOverwrite(options.destination.out, options.file, "to change the file itself, use --in-place");
    CheckWritable(options.destination.inPlace ? fs::path(options.file) : fs::path(options.destination.out));
    const int64 id = session.Open(options.file, password);
    session.RequireEditPages(id, options.file);
    return id;
}

void Report(const std::string& file, const std::string& what) {
    std::cout << file << ": " << what << "\n";
}

std::string Where(const PageEditOptions& options) {
    return options.destination.inPlace ? options.file : options.destination.out;
}

// A new file keeps the document's encryption unless --decrypt said otherwise.
std::string EncryptionNote(Session& session, int64 id, const PageEditOptions& options) {
    if (!options.destination.decrypt || !session.Service().IsProtected(id)) return "";
    return " (written without encryption)";
}

std::string Pages(size_t count) {
    return std::to_string(count) + (count == 1 ? " page" : " pages");
}

// A paper's name ("A4", "letter": portrait) or WIDTHxHEIGHT in points.
Size ParsePageSize(const std::string& text) {
    if (const Paper* paper = FindPaper(text)) return {paper->shortSide, paper->longSide};
    double width = 0, height = 0;
    char end = 0;
    if (std::sscanf(text.c_str(), "%lf%*[xX]%lf%c", &width, &height, &end) == 2 && width >= 1 && height >= 1 &&
        width <= 14400 && height <= 14400) {
        return {std::round(width), std::round(height)};
    }
    throw UsageError("--size " + text + ": write a paper (" + PaperNames() +
                     ") or WIDTHxHEIGHT in points (1 to 14400)");
}

// The files a command reads, as typed, for the message that shows the form
// with --out.
std::string Typed(const std::vector<std::string>& inputs) {
    std::string text;
    for (const std::string& input : inputs) text += " " + input;
    return text;
}

}  // namespace

int RunExport(Session& session, const ExportOptions& options, const std::string& password) {
    RefuseToOverwrite(options.out, options.file, "write the pages to a new file");
    CheckWritable(options.out);
    const int64 id = session.Open(options.file, password);
    const std::vector<unsigned> pages = ParsePages(PagesByLabel(session, id, options.pages), session.PageCount(id));
    session.RequireExtractPages(id, options.file);
    if (!session.Service().ExportPagesTo(id, pages, Orvane::ioPath(options.out)).get()) {
        throw Failure(options.out + ": cannot write the file");
    }
    Report(options.out, Pages(pages.size()) + " exported from " + options.file);
    return 0;
}

int RunMerge(Session& session, const MergeOptions& options, const std::string& password) {
    if (options.out.empty())
        throw UsageError("say where the result goes: quirelle merge" + Typed(options.inputs) + " --out NEW.pdf");
    // FILE or FILE:PAGES; a file whose name holds a colon is taken whole.
    std::vector<std::pair<std::string, std::string>> inputs;
    for (const std::string& input : options.inputs) {
        const size_t colon = input.rfind(':');
        std::error_code error;
        if (colon != std::string::npos && colon > 0 && !fs::exists(input, error)) {
            inputs.emplace_back(input.substr(0, colon), input.substr(colon + 1));
        } else {
            inputs.emplace_back(input, "");
        }
        RefuseToOverwrite(options.out, inputs.back().first, "write the result to a new file");
    }
    CheckWritable(options.out);
    Quirelle& service = session.Service();
    const int64 target = service.CreateDocument().get().id;
    Progress progress("merging", static_cast<unsigned>(options.inputs.size()));
    size_t total = 0;
    for (const auto& [file, range] : inputs) {
        const int64 source = session.Open(file, password);
        session.RequireExtractPages(source, file);
        std::vector<unsigned> pages;
        try {
            pages = ParsePages(range.empty() ? "1-z" : PagesByLabel(session, source, range), session.PageCount(source));
        } catch (const UsageError& e) {
            throw UsageError(file + ": " + e.what());
        }
        service.ImportPages(source, target, pages, -1).get();
        service.CloseDoument(source).get();
        total += pages.size();
        progress.Step();
    }
    progress.Clear();
    session.SaveAs(target, options.out);
    Report(options.out, Pages(total) + " from " + std::to_string(options.inputs.size()) + " file(s)");
    return 0;
}

int RunRotate(Session& session, const PageEditOptions& options, const std::string& password) {
    const int64 id = OpenForEdit(session, options, password);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), session.PageCount(id));
    const auto turn = options.by == 90    ? IPDFProvider::RotateClockwise
                      : options.by == 180 ? IPDFProvider::RotateHalfTurn
                                          : IPDFProvider::RotateCounterClockwise;
    std::vector<std::future<void>> done;
    for (unsigned page : pages) done.push_back(session.Service().RotatePage(id, page, turn));
    for (auto& future : done) future.get();
    session.Save(id, options.destination);
    Report(Where(options), Pages(pages.size()) + " rotated by " + std::to_string(options.by) + " degrees" +
                               EncryptionNote(session, id, options));
    return 0;
}

int RunDelete(Session& session, const PageEditOptions& options, const std::string& password) {
    const int64 id = OpenForEdit(session, options, password);
    const unsigned pageCount = session.PageCount(id);
    std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), pageCount);
    if (pages.size() == pageCount) throw UsageError("cannot delete every page of a document");
    // Highest first: each deletion renumbers the pages behind it.
    std::reverse(pages.begin(), pages.end());
    session.Service().DeletePages(id, pages).get();
    session.Save(id, options.destination);
    Report(Where(options), Pages(pages.size()) + " deleted, " + Pages(pageCount - pages.size()) + " left" +
                               EncryptionNote(session, id, options));
    return 0;
}

// --to N: the first moved page becomes page N of the result. The service puts
// the moved pages before the page that stood at its destination index, and
// counts that index past the moved pages only when it lies behind the last
// of them.
int RunMove(Session& session, const PageEditOptions& options, const std::string& password) {
    const int64 id = OpenForEdit(session, options, password);
    const unsigned pageCount = session.PageCount(id);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), pageCount);
    const unsigned lastPosition = pageCount - static_cast<unsigned>(pages.size()) + 1;
    if (options.to < 1 || options.to > lastPosition) {
        throw UsageError("--to " + std::to_string(options.to) + " is out of range: moving " + Pages(pages.size()) +
                         ", it can be from 1 to " + std::to_string(lastPosition));
    }
    const unsigned insertion = options.to - 1;  // among the pages that stay
    const unsigned moved = static_cast<unsigned>(pages.size());
    const unsigned destination = insertion + moved > pages.back() ? insertion + moved : insertion;
    session.Service().MovePages(id, pages, destination).get();
    session.Save(id, options.destination);
    Report(Where(options),
           Pages(pages.size()) + " moved to page " + std::to_string(options.to) + EncryptionNote(session, id, options));
    return 0;
}

int RunBlank(Session& session, const PageEditOptions& options, const std::string& password) {
    const int64 id = OpenForEdit(session, options, password);
    const unsigned pageCount = session.PageCount(id);
    if (options.at < 1 || options.at > pageCount + 1) {
        throw UsageError("--at " + std::to_string(options.at) + " is out of range: it can be from 1 to " +
                         std::to_string(pageCount + 1));
    }
    // Without --size the new page takes the size of the page it goes before (or the last page).
    Size size;
    if (!options.size.empty()) {
        size = ParsePageSize(options.size);
    } else if (pageCount > 0) {
        size = session.Service().GetPageInfo(id, std::min(options.at, pageCount) - 1).get().size;
    } else {
        size = ParsePageSize("A4");
    }
    const int width = static_cast<int>(std::lround(size.width)), height = static_cast<int>(std::lround(size.height));
    session.Service().AddBlankPage(id, options.at - 1, width, height).get();
    session.Save(id, options.destination);
    Report(Where(options), "blank page of " + std::to_string(width) + " x " + std::to_string(height) +
                               " pt added as page " + std::to_string(options.at) +
                               EncryptionNote(session, id, options));
    return 0;
}

int RunImagesToPdf(Session& session, const ImagesOptions& options) {
    if (options.out.empty()) {
        throw UsageError("say where the result goes: quirelle images-to-pdf" + Typed(options.images) +
                         " --out NEW.pdf");
    }
    for (const std::string& image : options.images) {
        if (!IsImageFileExtension(fs::path(image).extension().string()))
            throw UsageError(image + ": not an image file name (" + ImageExtensions() + ")");
        RefuseToOverwrite(options.out, image, "write the result to a new file");
    }
    CheckWritable(options.out);
    Quirelle& service = session.Service();
    const int64 target = service.CreateDocument().get().id;
    Progress progress("converting", static_cast<unsigned>(options.images.size()));
    for (const std::string& image : options.images) {
        const int64 source = session.Open(image, "");
        service.ImportAllPages(source, target, -1).get();
        service.CloseDoument(source).get();
        progress.Step();
    }
    progress.Clear();
    const unsigned pages = session.PageCount(target);
    session.SaveAs(target, options.out);
    Report(options.out, Pages(pages) + " from " + std::to_string(options.images.size()) + " image(s)");
    return 0;
}

}  // namespace QuirelleCli
