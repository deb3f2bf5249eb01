// quirelle-render: opens a PDF or image file through the service, prints each
// page's size and rotation, and renders every page to a PNG file.
//
//   quirelle-render [--dpi N] [--password P] FILE OUTDIR

#include <Quirelle>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

namespace {

int Usage() {
    std::cerr << "usage: quirelle-render [--dpi N] [--password P] FILE OUTDIR\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    double dpi = 96;
    std::string password;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--dpi" && i + 1 < argc) {
            dpi = std::atof(argv[++i]);
        } else if (arg == "--password" && i + 1 < argc) {
            password = argv[++i];
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage();
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 2 || dpi <= 0 || dpi > 2400) return Usage();
    const std::filesystem::path input = positional[0];
    const std::filesystem::path outdir = positional[1];
    std::filesystem::create_directories(outdir);

    using namespace Orvane::PDF;
    Quirelle service(nullptr);
    const IPDFProvider::OpenDocInfo opened = service.OpenDocument(input, password).get();
    if (opened.id < 0) {
        std::cerr << input.string() << ": "
                  << (opened.passwordError ? "a password is needed (--password)" : "cannot open the file") << "\n";
        return 1;
    }
    const int pages = service.GetPageCount(opened.id);
    std::cout << input.string() << ": " << pages << " page(s)" << (service.IsProtected(opened.id) ? ", encrypted" : "")
              << "\n";
    const auto started = std::chrono::steady_clock::now();
    int failures = 0;
    for (int page = 0; page < pages; ++page) {
        const IPDFProvider::PageInfo info = service.GetPageInfo(opened.id, page).get();
        const int width = static_cast<int>(info.size.width * dpi / 72.0 + 0.5);
        const int height = static_cast<int>(info.size.height * dpi / 72.0 + 0.5);
        const QImage image = service.GeneratePageImage(opened.id, page, width, height).get();
        const std::filesystem::path png = outdir / ("page-" + std::to_string(page + 1) + ".png");
        const bool written = !image.isNull() && image.save(QString::fromStdString(png.string()), "PNG");
        failures += !written;
        std::cout << "  page " << page + 1 << ": " << info.size.width << " x " << info.size.height << " pt, rotated "
                  << 90 * static_cast<int>(info.rotation) << ", " << width << " x " << height << " px -> "
                  << (written ? png.string() : "FAILED") << "\n";
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::cout << "rendered " << pages - failures << " of " << pages << " page(s) at " << dpi << " dpi in " << seconds
              << " s\n";
    service.CloseDoument(opened.id).get();
    return failures == 0 ? 0 : 1;
}
