#include "Compare.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace QuirelleCompare {
namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Pixels that are neither white nor transparent (one library leaves the
// background transparent, the others paint it white).
long long Ink(const QImage& picture) {
    const QImage argb = picture.convertToFormat(QImage::Format_ARGB32);
    long long ink = 0;
    for (int y = 0; y < argb.height(); ++y) {
        const auto* row = reinterpret_cast<const uint32_t*>(argb.constScanLine(y));
        for (int x = 0; x < argb.width(); ++x) ink += (row[x] >> 24) != 0 && (row[x] & 0xFFFFFFu) != 0xFFFFFFu;
    }
    return ink;
}

int RenderAll(Backend& backend, double dpi, int maxPages, int first, int argc, char** argv) {
    long long pages = 0, pixels = 0, ink = 0, failed = 0;
    double render = 0, open = 0;
    for (int i = first; i < argc; ++i) {
        const Clock::time_point opening = Clock::now();
        const int count = backend.Open(argv[i]);
        open += Since(opening);
        if (count < 0) {
            std::fprintf(stderr, "cannot open %s\n", argv[i]);
            ++failed;
            continue;
        }
        for (int page = 0; page < std::min(count, maxPages); ++page) {
            const QSizeF points = backend.PageSize(page);
            const QSize size(std::max(1, static_cast<int>(std::lround(points.width() * dpi / 72.0))),
                             std::max(1, static_cast<int>(std::lround(points.height() * dpi / 72.0))));
            const Clock::time_point start = Clock::now();
            const QImage picture = backend.Render(page, size);
            render += Since(start);
            if (picture.isNull()) {
                ++failed;
                continue;
            }
            ++pages;
            pixels += static_cast<long long>(picture.width()) * picture.height();
            // Only the first page's ink, as a check that something was drawn.
            if (page == 0) ink += Ink(picture);
        }
        backend.Close();
    }
    std::printf("pages=%lld render_s=%.6f open_s=%.6f pixels=%lld ink=%lld failed=%lld\n", pages, render, open, pixels,
                ink, failed);
    return failed == 0 ? 0 : 1;
}

int ExportAll(Backend& backend, const std::filesystem::path& outDir, int first, int argc, char** argv) {
    long long files = 0, pages = 0, bytes = 0, failed = 0;
    double seconds = 0;
    for (int i = first; i < argc; ++i) {
        const std::filesystem::path in = argv[i];
        const std::filesystem::path out = outDir / in.filename();
        const Clock::time_point start = Clock::now();
        const int count = backend.Open(in.string());
        std::vector<int> odd;
        for (int page = 0; page < count; page += 2) odd.push_back(page);
        const bool ok = count > 0 && backend.Export(odd, out.string());
        if (count >= 0) backend.Close();
        seconds += Since(start);
        if (!ok) {
            std::fprintf(stderr, "cannot export %s\n", argv[i]);
            ++failed;
            continue;
        }
        ++files;
        pages += static_cast<long long>(odd.size());
        bytes += static_cast<long long>(std::filesystem::file_size(out));
    }
    std::printf("files=%lld pages=%lld export_s=%.6f bytes=%lld failed=%lld\n", files, pages, seconds, bytes, failed);
    return failed == 0 ? 0 : 1;
}

int Usage(const char* program) {
    std::fprintf(stderr, "usage: %s render DPI MAX_PAGES FILE...\n       %s export OUT_DIR FILE...\n", program,
                 program);
    return 2;
}

}  // namespace

bool Backend::Export(const std::vector<int>&, const std::string&) {
    return false;
}

int CompareMain(int argc, char** argv, Backend& backend) {
    if (argc < 4) return Usage(argv[0]);
    const std::string mode = argv[1];
    if (mode == "render" && argc >= 5) {
        const double dpi = std::atof(argv[2]);
        const int maxPages = std::atoi(argv[3]);
        if (dpi <= 0 || maxPages <= 0) return Usage(argv[0]);
        return RenderAll(backend, dpi, maxPages, 4, argc, argv);
    }
    if (mode == "export") return ExportAll(backend, argv[2], 3, argc, argv);
    return Usage(argv[0]);
}

}  // namespace QuirelleCompare
