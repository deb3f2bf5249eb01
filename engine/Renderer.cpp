#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "engine/Bands.h"
#include "engine/Bitmap.h"
#include "engine/Context.h"
#include "engine/ContentRun.h"
#include "engine/DisplayListCache.h"
#include "engine/Engine.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/ImageLimit.h"
#include "engine/PdfPage.h"
#include "engine/TextLines.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Pictures from this many pixels on are cut into bands; a thumbnail is drawn
// faster than helper threads could be woken.
constexpr long kBandPixels = 300'000;
// Above this many glyphs a million pixels, a picture is drawn in one piece:
// every glyph drawn takes MuPDF's glyph-cache and allocation locks, and bands
// drawing dense text at the same time spend more time passing those locks
// between cores than they save.
constexpr double kBandGlyphsPerMegapixel = 3000;
// A page's first picture is drawn right after its recording, with every glyph
// new to the glyph cache: made one by one in FreeType under MuPDF's FreeType
// lock, where bands wait for each other. Below this size (a page at 200 dpi)
// bands then lose more than they gain, and the first picture is drawn in one
// piece.
constexpr long kFirstPictureBandPixels = 4'000'000;
// About the size of a band of a large picture, well within a core's cache.
constexpr size_t kBandBytes = 4 << 20;
constexpr int kMostBandsPerThread = 16;
// The least a recording counts for, whatever the allocator saw.
constexpr size_t kLeastRecordingBytes = 4096;

// The caller's memory: B G R and an alpha byte that the caller's opaque
// background keeps at 0xFF.
struct Target {
    int width;
    int height;
    int stride;
    unsigned char* pixels;

    void Clear(int top, int bottom, unsigned char value) const {
        ClearRows(pixels, width, stride, top, bottom, value);
    }
};

// The clear of the whole target that the bitmap left to the renderer. Whoever
// draws takes it (Take) and clears the rows it draws just before drawing them,
// while they are about to be in the processor's cache anyway, on the thread
// that draws them; a clear nobody took is done when the render ends, however
// it ends.
class PendingClear {
public:
    PendingClear(const Target& target, std::optional<unsigned char> value) : target_(target), value_(value) {}
    ~PendingClear() {
        if (value_) target_.Clear(0, target_.height, *value_);
    }
    PendingClear(const PendingClear&) = delete;
    PendingClear& operator=(const PendingClear&) = delete;

    bool Pending() const { return value_.has_value(); }
    std::optional<unsigned char> Take() { return std::exchange(value_, std::nullopt); }

private:
    const Target target_;
    std::optional<unsigned char> value_;
};

// How many bands a picture is cut into: two a thread at least, more for a
// large picture, so that a band's rows, just cleared, are still in the
// core's cache when they are drawn.
int BandCount(const Target& target) {
    const int threads = BandPool::Instance().Helpers() + 1;
    const size_t bands = size_t(target.stride) * size_t(target.height) / kBandBytes;
    return static_cast<int>(std::clamp<size_t>(bands, size_t(2 * threads), size_t(kMostBandsPerThread * threads)));
}

// Whether the recording draws too much text for the picture to gain from bands.
bool GlyphBound(const Recording& recording, const Target& target) {
    return double(recording.glyphs) * 1e6 > kBandGlyphsPerMegapixel * double(target.width) * double(target.height);
}

// Draws rows [top, bottom) of the recording into the target, with a pixmap
// that starts at row top, so that every pixel comes out as in a drawing of the
// whole picture.
ContentRun drawRows(fz_context* ctx, fz_display_list* list, fz_matrix ctm, const Target& target, int top, int bottom,
                   std::optional<unsigned char> clear, milliseconds budget) noexcept {
    if (clear) target.Clear(top, bottom, *clear);
    return RunContent(budget, [&](fz_cookie& cookie) {
        PixmapHandle pixmap(ctx, guarded(ctx, [&] {
                                return fz_new_pixmap_with_data(ctx, fz_device_bgr(ctx), target.width, bottom - top,
                                                               nullptr, 1, target.stride,
                                                               target.pixels + size_t(top) * size_t(target.stride));
                            }));
        pixmap.get()->y = top;
        DeviceHandle device(ctx,
                            guarded(ctx, [&] { return fz_new_draw_device(ctx, fz_identity, pixmap.get()); }));
        LimitImageDecoding(device.get());
        const fz_rect rows = fz_make_rect(0, float(top), float(target.width), float(bottom));
        LimitTiling(device.get(), rows);
        LimitPaths(device.get(), rows);
        guarded(ctx, [&] {
            fz_run_display_list(ctx, list, device.get(), ctm, rows, &cookie);
            fz_close_device(ctx, device.get());
        });
    });
}

class PageRenderer : public IPageRenderer {
public:
    void Render(const std::shared_ptr<IPage>& page, const std::shared_ptr<IBitmap>& bitmap, bool flag) override {
        if (!page || !bitmap) throw std::invalid_argument("Render: no page or no bitmap");
        auto* pdfPage = dynamic_cast<PdfPage*>(page.get());
        if (pdfPage == nullptr) throw std::invalid_argument("Render: the page is not one of this engine's");
        const IBitmap::DibFormat format = bitmap->GetFormat();
        if (format != IBitmap::Bgrx && format != IBitmap::Bgra) {
            throw std::invalid_argument("Render: the bitmap is not 32-bit BGR");
        }
        const Size size = bitmap->GetSize();
        const int width = static_cast<int>(size.width), height = static_cast<int>(size.height);
        if (width <= 0 || height <= 0 || width > bitmap->GetStride() / 4) {
            throw std::invalid_argument("Render: unusable bitmap");
        }
        auto* own = dynamic_cast<BufferBitmap*>(bitmap.get());
        // Taken before the buffer, which would do the clear at once.
        const std::optional<unsigned char> clear = own != nullptr ? own->TakeClear() : std::nullopt;
        const Target target{width, height, bitmap->GetStride(), bitmap->GetBuffer()};
        if (target.pixels == nullptr) throw std::invalid_argument("Render: unusable bitmap");
        PendingClear pending(target, clear);
        start_ = Clock::now();
        source_ = pdfPage;
        pdfPage->ThrowIfPastBudget();
        ctx_ = pdfPage->Context();
        page_ = pdfPage->Native();
        usage_ = flag ? "Print" : "View";
        ScopedFontProvider fonts(pdfPage->Core()->fonts.get());
        const RequestBudget budget;
        // A decoded image may be as large as a few times the bitmap (drawn
        // from a finer picture); one beyond that cannot show more detail.
        RequestBudget::AllowBlocksOf(size_t(target.stride) * size_t(target.height) * 4);

        // The page as displayed (rotation applied), its crop box stretched
        // over the whole bitmap.
        const fz_rect bounds = guarded(ctx_, [&] { return pdf_bound_page(ctx_, page_); });
        const float pageWidth = bounds.x1 - bounds.x0;
        const float pageHeight = bounds.y1 - bounds.y0;
        if (!(pageWidth > 0) || !(pageHeight > 0)) return;
        const float scaleX = target.width / pageWidth;
        const float scaleY = target.height / pageHeight;
        const fz_matrix ctm = fz_concat(fz_translate(-bounds.x0, -bounds.y0), fz_scale(scaleX, scaleY));

        const bool cached = PageCacheLimit() > 0;
        const bool banded = long(target.width) * target.height >= kBandPixels && BandDrawing() &&
                            BandPool::Instance().Helpers() > 0;
        if (!cached && !banded) return DrawDirect(ctm, target, pending);

        const PageKey key{pdfPage->Core()->serial, pdfPage->Core()->generation, pdf_to_num(ctx_, page_->obj), flag};
        DisplayListCache& cache = DisplayListCache::Instance();
        const bool keep = cached && key.object > 0;
        std::optional<Recording> recording;
        if (keep) recording = cache.Find(ctx_, key);
        size_t bytes = 0;
        const bool fresh = !recording;
        if (fresh) recording = Record(bounds, bytes);
        if (!recording) return DrawDirect(ctm, target, pending);
        const DisplayListHandle list(ctx_, recording->list);
        if (fresh && keep) cache.Store(ctx_, key, *recording, bytes);

        std::vector<int> seams;
        const bool coldGlyphs = fresh && long(target.width) * target.height < kFirstPictureBandPixels;
        if (banded && !coldGlyphs && !GlyphBound(*recording, target)) {
            seams = ChooseSeams(*recording->obstacles, bounds.y0, scaleY, std::max(scaleX, scaleY), target.height,
                                BandCount(target));
        }
        std::vector<ContentRun> results(seams.size() + 1);
        if (seams.empty()) {
            if (banded && pending.Pending()) ClearOnAllCores(target, *pending.Take());
            results[0] = drawRows(ctx_, list.get(), ctm, target, 0, target.height, pending.Take(), Remaining());
        } else {
            seams.insert(seams.begin(), 0);
            seams.push_back(target.height);
            const milliseconds budget = Remaining();
            const std::optional<unsigned char> value = pending.Take();
            // Helpers keep to the request's budget too: a decoder or the
            // allocator stops them where no abort flag is looked at.
            const Clock::time_point deadline = RequestBudget::Deadline().value_or(Clock::now() + budget);
            const size_t blockLimit = RequestBudget::BlockLimit();
            const std::function<void(int, fz_context*)> draw = [&](int band, fz_context* ctx) {
                const RequestBudget joined(deadline, blockLimit);
                results[band] = drawRows(ctx, list.get(), ctm, target, seams[band], seams[band + 1], value, budget);
            };
            BandPool::Instance().Run(ctx_, static_cast<int>(results.size()), draw);
        }
        int errors = 0;
        ContentRun cut;
        for (const ContentRun& result : results) {
            cut.expired |= result.expired;
            cut.workRefused |= result.workRefused;
            cut.shortOfMemory |= result.shortOfMemory;
            errors += result.errors;
        }
        Check(cut);
        for (const ContentRun& result : results) {
            if (result.failure) std::rethrow_exception(result.failure);
        }
        LogErrors(errors);
    }

    // The page's recording for drawing parts of it: from the cache, else
    // recorded now (and kept when the cache is on). Nothing when the content
    // cannot be recorded.
    std::optional<Recording> RecordingOf(PdfPage& page, bool flag) {
        start_ = Clock::now();
        source_ = &page;
        ctx_ = page.Context();
        page_ = page.Native();
        usage_ = flag ? "Print" : "View";
        const fz_rect bounds = guarded(ctx_, [&] { return pdf_bound_page(ctx_, page_); });
        const PageKey key{page.Core()->serial, page.Core()->generation, pdf_to_num(ctx_, page_->obj), flag};
        const bool keep = PageCacheLimit() > 0 && key.object > 0;
        DisplayListCache& cache = DisplayListCache::Instance();
        if (keep) {
            if (std::optional<Recording> found = cache.Find(ctx_, key)) return found;
        }
        size_t bytes = 0;
        std::optional<Recording> recording = Record(bounds, bytes);
        if (recording && keep) cache.Store(ctx_, key, *recording, bytes);
        return recording;
    }

private:
    // A picture that the limits cut short is no picture of the page.
    void Check(const ContentRun& result) const {
        source_->CheckRun("rendering", result);
    }

    milliseconds Remaining() const {
        return PageTimeBudget() - std::chrono::duration_cast<milliseconds>(Clock::now() - start_);
    }

    void LogErrors(int errors) const {
        // MuPDF recovered; a viewer renders the page again and again, so
        // this stays out of the default log.
        if (errors > 0) VLOG(1) << "page " << page_->super.number << ": rendered with " << errors << " error(s)";
    }

    // A picture that cannot be cut into bands is still cleared by every core.
    void ClearOnAllCores(const Target& target, unsigned char value) {
        const int parts = BandPool::Instance().Helpers() + 1;
        const std::function<void(int, fz_context*)> clear = [&](int part, fz_context*) {
            target.Clear(int(int64_t(target.height) * part / parts), int(int64_t(target.height) * (part + 1) / parts),
                         value);
        };
        BandPool::Instance().Run(ctx_, parts, clear);
    }

    // Runs the page's content straight into the target.
    void DrawDirect(fz_matrix ctm, const Target& target, PendingClear& pending) {
        if (const auto value = pending.Take()) target.Clear(0, target.height, *value);
        PixmapHandle pixmap(ctx_, guarded(ctx_, [&] {
                                return fz_new_pixmap_with_data(ctx_, fz_device_bgr(ctx_), target.width,
                                                               target.height, nullptr, 1, target.stride,
                                                               target.pixels);
                            }));
        DeviceHandle device(ctx_, guarded(ctx_, [&] { return fz_new_draw_device(ctx_, fz_identity, pixmap.get()); }));
        LimitImageDecoding(device.get());
        const fz_rect whole = fz_make_rect(0, 0, float(target.width), float(target.height));
        LimitTiling(device.get(), whole);
        LimitPaths(device.get(), whole);
        const ContentRun result = RunContent(Remaining(), [&](fz_cookie& cookie) {
            guarded(ctx_, [&] {
                pdf_run_page_with_usage(ctx_, page_, device.get(), ctm, usage_, &cookie);
                fz_close_device(ctx_, device.get());
            });
        });
        Check(result);
        if (result.failure) std::rethrow_exception(result.failure);
        LogErrors(result.errors);
    }

    // Records the page's content, in page space as displayed, with what a
    // band seam must not cross. Nothing when the content fails to record:
    // a direct drawing then shows as much of it as can be drawn. bytes is what
    // the recording holds (what the allocator gained while it was made).
    std::optional<Recording> Record(fz_rect bounds, size_t& bytes) {
        const size_t before = MemoryInUse();
        DisplayListHandle list(ctx_, guarded(ctx_, [&] { return fz_new_display_list(ctx_, bounds); }));
        DeviceHandle device(ctx_, guarded(ctx_, [&] { return fz_new_list_device(ctx_, list.get()); }));
        const TextLineSplitting lines(device.get());
        const ContentRun result = RunContent(Remaining(), [&](fz_cookie& cookie) {
            guarded(ctx_, [&] {
                pdf_run_page_with_usage(ctx_, page_, device.get(), fz_identity, usage_, &cookie);
                fz_close_device(ctx_, device.get());
            });
        });
        // Never kept, nor drawn from, when cut short.
        Check(result);
        if (result.failure) return std::nullopt;
        size_t glyphs = 0;
        auto obstacles = std::make_shared<const std::vector<SeamObstacle>>(FindSeamObstacles(ctx_, list.get(), glyphs));
        const size_t after = MemoryInUse();
        bytes = std::max(after > before ? after - before : 0, kLeastRecordingBytes) +
                obstacles->capacity() * sizeof(SeamObstacle);
        return Recording{list.release(), std::move(obstacles), glyphs};
    }

    Clock::time_point start_;
    const PdfPage* source_ = nullptr;
    fz_context* ctx_ = nullptr;
    pdf_page* page_ = nullptr;
    const char* usage_ = "View";
};

}  // namespace

std::optional<Recording> PageRecording(PdfPage& page, bool print) {
    PageRenderer renderer;
    return renderer.RecordingOf(page, print);
}

std::unique_ptr<IPageRenderer> CreatePageRenderer() {
    return std::make_unique<PageRenderer>();
}

}  // namespace Orvane::PDF::Pdfium
