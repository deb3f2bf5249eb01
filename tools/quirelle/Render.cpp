// render: one image file per page, named so that the files sort in page order.

#include <QImage>
#include <QString>
#include <cmath>
#include <iostream>

#include "Cli.h"
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
    Quirelle& service = session.Service();
    const int64 id = session.Open(options.file, password);
    const unsigned pageCount = session.PageCount(id);
    const std::vector<unsigned> pages = ParsePageSet(PagesByLabel(session, id, options.pages), pageCount);

    const fs::path directory = options.out;
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) throw Failure(directory.string() + ": cannot make the directory: " + error.message());
    CheckWritable(directory / "page");

    std::vector<QSize> sizes(pageCount);
    Pipelined(
        pages, 64, [&](unsigned page) { return service.GetPageInfo(id, page); },
        [&](unsigned page, std::future<IPDFProvider::PageInfo>& info) {
            sizes[page] = PixelSize(options, info.get().size);
            if (double(sizes[page].width()) * sizes[page].height() > kMaxPixels) {
                throw Failure("page " + std::to_string(page + 1) + ": " + std::to_string(sizes[page].width()) + " x " +
                              std::to_string(sizes[page].height()) + " pixels is too large a picture");
            }
        });

    const int digits = std::max<int>(3, std::to_string(pageCount).size());
    const char* format = options.format == "jpg" ? "JPG" : "PNG";
    Progress progress("rendering", static_cast<unsigned>(pages.size()));
    std::vector<std::string> written;
    int status = 0;
    Pipelined(
        pages, 3,
        [&](unsigned page) { return service.GeneratePageImage(id, page, sizes[page].width(), sizes[page].height()); },
        [&](unsigned page, std::future<QImage>& future) {
            const QImage image = future.get();
            std::string number = std::to_string(page + 1);
            number.insert(0, digits - number.size(), '0');
            const std::string name = "page-" + number + "." + options.format;
            const fs::path file = directory / name;
            if (image.isNull() || !image.save(QString::fromStdString(file.string()), format, 90)) {
                progress.Clear();
                std::cerr << "quirelle: page " << page + 1 << ": "
                          << (image.isNull() ? "cannot render the page" : "cannot write " + file.string()) << "\n";
                status = 1;
            } else {
                written.push_back(name);
            }
            progress.Step();
        });
    progress.Clear();
    std::cout << directory.string() << ": " << written.size() << " of " << pages.size() << " page(s) rendered";
    if (!written.empty())
        std::cout << " (" << written.front() << (written.size() > 1 ? " to " + written.back() : "") << ")";
    std::cout << "\n";
    return status;
}

}  // namespace QuirelleCli
