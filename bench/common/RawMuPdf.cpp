#include "RawMuPdf.h"

#include <mupdf/fitz.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <stdexcept>

#include "engine/Context.h"
#include "engine/Guarded.h"

namespace QuirelleBench {

using Orvane::PDF::Pdfium::guarded;

PixelSize PixelsAt(double widthPoints, double heightPoints, double dpi) {
    return {std::max(1, static_cast<int>(std::lround(widthPoints * dpi / 72.0))),
            std::max(1, static_cast<int>(std::lround(heightPoints * dpi / 72.0)))};
}

struct RawLocks {
    std::mutex mutexes[FZ_LOCK_MAX];
    fz_locks_context callbacks{this, Lock, Unlock};
    static void Lock(void* user, int lock) { static_cast<RawLocks*>(user)->mutexes[lock].lock(); }
    static void Unlock(void* user, int lock) { static_cast<RawLocks*>(user)->mutexes[lock].unlock(); }
};

RawMuPdf::RawMuPdf(bool withLocks) {
    if (withLocks) locks_ = std::make_unique<RawLocks>();
    ctx_ = fz_new_context(nullptr, locks_ ? &locks_->callbacks : nullptr, Orvane::PDF::Pdfium::kStoreSize);
    if (ctx_ == nullptr) throw std::runtime_error("cannot create a MuPDF context");
    try {
        guarded(ctx_, [&] { fz_register_document_handlers(ctx_); });
    } catch (...) {
        fz_drop_context(ctx_);
        throw;
    }
}

RawMuPdf::~RawMuPdf() {
    documents_.clear();
    fz_drop_context(ctx_);
}

size_t RawMuPdf::Open(const std::string& path) {
    fz_context* ctx = ctx_;
    documents_.emplace_back(ctx, guarded(ctx, [&] { return fz_open_document(ctx, path.c_str()); }));
    return documents_.size() - 1;
}

void RawMuPdf::Close(size_t document) {
    documents_.at(document) = DocumentHandle();
}

int RawMuPdf::PageCount(size_t document) {
    fz_context* ctx = ctx_;
    fz_document* doc = documents_.at(document).get();
    return guarded(ctx, [&] { return fz_count_pages(ctx, doc); });
}

PixelSize RawMuPdf::PageSize(size_t document, unsigned pageIndex, double dpi) {
    using namespace Orvane::PDF::Pdfium;
    fz_context* ctx = ctx_;
    fz_document* doc = documents_.at(document).get();
    PageHandle page(ctx, guarded(ctx, [&] { return fz_load_page(ctx, doc, static_cast<int>(pageIndex)); }));
    const fz_rect bounds = guarded(ctx, [&] { return fz_bound_page(ctx, page.get()); });
    return PixelsAt(bounds.x1 - bounds.x0, bounds.y1 - bounds.y0, dpi);
}

void RawMuPdf::Render(size_t document, unsigned pageIndex, unsigned char* bits, int w, int h, int stride) {
    using namespace Orvane::PDF::Pdfium;
    fz_context* ctx = ctx_;
    fz_document* doc = documents_.at(document).get();
    const int index = static_cast<int>(pageIndex);
    PageHandle page(ctx, guarded(ctx, [&] { return fz_load_page(ctx, doc, index); }));
    const fz_rect bounds = guarded(ctx, [&] { return fz_bound_page(ctx, page.get()); });
    const fz_matrix ctm = fz_concat(fz_translate(-bounds.x0, -bounds.y0),
                                    fz_scale(w / (bounds.x1 - bounds.x0), h / (bounds.y1 - bounds.y0)));
    PixmapHandle pixmap(ctx, guarded(ctx, [&] {
                            return fz_new_pixmap_with_data(ctx, fz_device_bgr(ctx), w, h, nullptr, 1, stride, bits);
                        }));
    guarded(ctx, [&] { fz_clear_pixmap_with_value(ctx, pixmap.get(), 0xFF); });
    DeviceHandle device(ctx, guarded(ctx, [&] { return fz_new_draw_device(ctx, fz_identity, pixmap.get()); }));
    guarded(ctx, [&] {
        fz_run_page(ctx, page.get(), device.get(), ctm, nullptr);
        fz_close_device(ctx, device.get());
    });
}

void RawMuPdf::Render(size_t document, unsigned page, QImage& picture) {
    Render(document, page, picture.bits(), picture.width(), picture.height(),
           static_cast<int>(picture.bytesPerLine()));
}

unsigned char* ReusedBuffer::For(int width, int height) {
    const size_t need = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    if (bytes_.size() < need) bytes_.resize(need);
    return bytes_.data();
}

size_t CountInk(const unsigned char* bits, int width, int height, int stride) {
    size_t ink = 0;
    for (int y = 0; y < height; ++y) {
        const auto* row = reinterpret_cast<const uint32_t*>(bits + static_cast<size_t>(y) * stride);
        for (int x = 0; x < width; ++x) ink += (row[x] & 0xFFFFFFu) != 0xFFFFFFu;
    }
    return ink;
}

size_t CountInk(const QImage& picture) {
    return CountInk(picture.constBits(), picture.width(), picture.height(), static_cast<int>(picture.bytesPerLine()));
}

double DifferingShare(const QImage& a, const unsigned char* bits, int stride) {
    size_t differing = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto* ra = reinterpret_cast<const uint32_t*>(a.constScanLine(y));
        const auto* rb = reinterpret_cast<const uint32_t*>(bits + static_cast<size_t>(y) * stride);
        for (int x = 0; x < a.width(); ++x) differing += (ra[x] & 0xFFFFFFu) != (rb[x] & 0xFFFFFFu);
    }
    return static_cast<double>(differing) / (static_cast<double>(a.width()) * a.height());
}

double DifferingShare(const QImage& a, const QImage& b) {
    if (a.size() != b.size()) return 1.0;
    return DifferingShare(a, b.constBits(), static_cast<int>(b.bytesPerLine()));
}

double Fastest(const std::vector<double>& values) {
    return values.empty() ? 0.0 : *std::min_element(values.begin(), values.end());
}

bool RegisterTimed(std::initializer_list<std::pair<const char*, void (*)(benchmark::State&)>> benchmarks) {
    for (const auto& [name, body] : benchmarks) {
        benchmark::RegisterBenchmark(name, body)
            ->UseRealTime()
            ->ComputeStatistics("min", Fastest)
            ->Unit(benchmark::kMillisecond);
    }
    return true;
}

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

}  // namespace QuirelleBench
