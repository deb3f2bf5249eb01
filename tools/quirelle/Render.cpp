// render: one image file per page, named so that the files sort in page order,
// each written as soon as its page is drawn.

#include <QImage>
#include <cmath>
#include <iostream>

#include "Cli.h"
#include "Pictures.h"
#include "Reading.h"

namespace QuirelleCli {

using namespace Orvane::PDF;

namespace {

// Larger pictures would need more than a gigabyte each.
constexpr double kMaxPixels = 256.0 * 1024 * 1024;

QSize PixelSize(const RenderOptions& options, const Size& points) {
    double width = 0, height = 0;
    if (options.width > 0) {
        width = options.width;
        height = options.width * points.height / points.width;
    } else if (options.height > 0) {
        height = options.height;
        width = options.height * points.width / points.height;
    } else {
        const double dpi = options.dpi > 0 ? options.dpi : 96;
        width = points.width * dpi / 72;
        height = points.height * dpi / 72;
    }
    return {std::max(1, static_cast<int>(std::lround(width))), std::max(1, static_cast<int>(std::lround(height)))};
}

}  // namespace

int RunRender(Session& session, const RenderOptions& options, const std::string& password) {
    if (!options.region.empty()) return RunRenderRegion(session, options, password);
    // Every page is drawn once: no use keeping what it takes to draw it again.
    EngineLimits limits = GetEngineLimits();
    limits.pageCacheBytes = 0;
    SetEngineLimits(limits);
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const unsigned pageCount = session.PageCount(id);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), pageCount);

    const fs::path directory = options.out;
    const int digits = std::max<int>(3, std::to_string(pageCount).size());
    auto name = [&](unsigned page) {
        std::string number = std::to_string(page + 1);
        number.insert(0, digits - number.size(), '0');
        return "page-" + number + "." + options.format;
    };
    for (unsigned page : pages) RefuseToOverwrite(directory / name(page), options.file, "render to another --out");
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) throw Failure(directory.string() + ": cannot make the directory: " + error.message());
    CheckWritable(directory / "page");

    PictureOptions picture;
    picture.jpeg = options.format == "jpg";
    picture.pngLevel = options.pngLevel;
    RemovePartialPictureOnSignal();
    Progress progress("rendering", static_cast<unsigned>(pages.size()));
    std::vector<std::string> written;
    int status = 0;
    // A page that cannot be drawn whole ends the run, or with --keep-going
    // is reported while the run goes on (and the status is still 1).
    auto problem = [&](unsigned page, const std::string& what) {
        const std::string message = options.file + ": page " + std::to_string(page + 1) + ": " + what;
        if (!options.keepGoing) throw Failure(message + " (--keep-going goes on with the other pages)");
        progress.Clear();
        std::cerr << "quirelle: " << message << "\n";
        progress.Step();
        status = 1;
    };
    // One page at a time, read when its turn comes and written as soon as it
    // is drawn. Asking for the next page while this one is compressed would
    // be a quarter faster, at the cost of a second picture's memory (9 MB for
    // A4 at 150 dpi).
    for (unsigned page : pages) {
        QSize size;
        try {
            size = PixelSize(options, service.GetPageInfo(id, page).get().size);
        } catch (const std::exception& e) {
            problem(page, e.what());
            continue;
        }
        if (double(size.width()) * size.height() > kMaxPixels) {
            problem(page, std::to_string(size.width()) + " x " + std::to_string(size.height()) +
                              " pixels is too large a picture");
            continue;
        }
        // Null when the time budget or the memory limit ran out, or the
        // engine failed on part of the page: never a partial picture.
        const QImage image = service.GeneratePageImage(id, page, size.width(), size.height()).get();
        if (image.isNull()) {
            problem(page,
                    "the page could not be drawn completely (time budget, memory limit or damage); no picture "
                    "written");
        } else {
            const std::string file = name(page);
            SavePicture(image, directory / file, picture);
            written.push_back(file);
            progress.Step();
        }
    }
    progress.Clear();
    std::cout << directory.string() << ": " << written.size() << " of " << pages.size() << " page(s) rendered";
    if (!written.empty())
        std::cout << " (" << written.front() << (written.size() > 1 ? " to " + written.back() : "") << ")";
    std::cout << "\n";
    return status;
}

}  // namespace QuirelleCli
