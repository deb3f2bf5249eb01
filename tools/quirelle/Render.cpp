// render: one image file per page, named so that the files sort in page order,
// each written as soon as its page is drawn.

#include <malloc.h>

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

// The page-space region whose tile is rows [top, bottom) of the page's
// picture of height rows, as displayed (its rotation applied). Its edges lie
// a quarter pixel inside the rows, so rounding cannot add or lose one;
// across, it reaches past the page, and the tile is the picture's whole width.
Rect StripRegion(const IPDFProvider::PageInfo& info, int height, int top, int bottom) {
    const double rows = height / info.size.height;  // the picture's rows a point
    const double from = (top + 0.25) / rows;        // points below the displayed top edge
    const double to = (bottom - 0.25) / rows;
    const Rect& box = info.rect;
    const double margin = 1;
    switch (info.rotation) {
        case IPage::Rotate90:  // the page's left edge shows at the top
            return {box.left + from, box.top + margin, box.left + to, box.bottom - margin};
        case IPage::Rotate180:
            return {box.left - margin, box.bottom + to, box.right + margin, box.bottom + from};
        case IPage::Rotate270:
            return {box.right - to, box.top + margin, box.right - from, box.bottom - margin};
        default:
            return {box.left - margin, box.top - from, box.right + margin, box.top - to};
    }
}

// A strip that did not come out as the whole picture's rows would, and one
// that the limits cut short.
struct StripMismatch {};
struct StripCutShort {};

}  // namespace

int RunRender(Session& session, const RenderOptions& options, const std::string& password) {
    if (!options.region.empty()) return RunRenderRegion(session, options, password);
    // Every page is drawn once: no use keeping what it takes to draw it
    // again. (Its strips record it each: keeping the recording of the page
    // at hand would save a sixth of the time and cost a megabyte.)
    EngineLimits limits = GetEngineLimits();
    limits.pageCacheBytes = 0;
    SetEngineLimits(limits);
    // A fixed threshold: the strips, fonts and other large blocks are mapped
    // and given back as soon as they are freed, where glibc's own threshold
    // would soon rise and keep them in the heap, which then grows by their
    // sizes' mix page after page.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
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
    // One page at a time, read when its turn comes and written as it is
    // drawn. Asking for the next page while this one is compressed would be a
    // quarter faster, at the cost of a second picture's memory.
    for (unsigned page : pages) {
        QSize size;
        IPDFProvider::PageInfo info;
        try {
            info = service.GetPageInfo(id, page).get();
            size = PixelSize(options, info.size);
        } catch (const std::exception& e) {
            problem(page, e.what());
            continue;
        }
        if (double(size.width()) * size.height() > kMaxPixels) {
            problem(page, std::to_string(size.width()) + " x " + std::to_string(size.height()) +
                              " pixels is too large a picture");
            continue;
        }
        const std::string file = name(page);
        const std::string cutShort =
            "the page could not be drawn completely (time budget, memory limit or damage); no picture written";
        // A PNG picture is drawn in strips, each written as it comes, so that
        // the whole picture is never in memory. The tiles keep to the page's
        // limits as the whole picture does: a strip cut short is no strip.
        const double scale = size.width() / info.size.width;
        bool saved = false;
        if (!picture.jpeg && std::lround(info.size.height * scale) == size.height()) {
            const Strips strips = [&](int top, int rows) {
                QImage strip;
                try {
                    strip = service
                                .GenerateTile(id, page, StripRegion(info, size.height(), top, top + rows), scale,
                                              IPageInfoObserver::DefaultView)
                                .get();
                } catch (const std::invalid_argument&) {
                    throw StripMismatch();
                } catch (const std::exception&) {
                    strip = QImage();
                }
                if (strip.isNull()) throw StripCutShort();
                if (strip.width() != size.width() || strip.height() != rows) throw StripMismatch();
                return strip;
            };
            try {
                SavePngInStrips(size.width(), size.height(), strips, directory / file, picture.pngLevel);
                saved = true;
            } catch (const StripMismatch&) {
                // Drawn whole below.
            } catch (const StripCutShort&) {
                problem(page, cutShort);
                continue;
            }
        }
        if (!saved) {
            // Null when the time budget or the memory limit ran out, or the
            // engine failed on part of the page: never a partial picture.
            const QImage image = service.GeneratePageImage(id, page, size.width(), size.height()).get();
            if (image.isNull()) {
                problem(page, cutShort);
                continue;
            }
            SavePicture(image, directory / file, picture);
        }
        written.push_back(file);
        progress.Step();
    }
    progress.Clear();
    std::cout << directory.string() << ": " << written.size() << " of " << pages.size() << " page(s) rendered";
    if (!written.empty())
        std::cout << " (" << written.front() << (written.size() > 1 ? " to " + written.back() : "") << ")";
    std::cout << "\n";
    return status;
}

}  // namespace QuirelleCli
