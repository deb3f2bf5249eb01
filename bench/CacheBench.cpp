// Recorded pages and band drawing against plain MuPDF, which interprets the
// page again for every picture and draws on one core. Every benchmark times
// both ways page by page, interleaved, so that the ratio comes from one run
// under one machine load; the reported time is the engine's, the counters
// carry raw_ms, engine_ms and speedup = raw / engine.
//   Cache/300dpi/<page>    the page at 300 dpi, drawn again and again (the
//                          recording is made once);
//   Cache/zoom/<page>      the page drawn at 150 dpi, then timed at 200 %;
//   Cache/viewer/<page>    a viewer's sequence from an empty cache: thumbnail
//                          150 px wide, 150 dpi, 200 %;
//   Cache/corpus_viewer    that sequence over the first pages of every PDF
//                          under $QUIRELLE_CORPUS (default: the unpacked
//                          corpus of bench/fetch-corpus.sh);
//   Cache/corpus_memory    peak resident memory of the corpus sequence, plain
//                          MuPDF first, then the engine.
// 200 % is twice 96 dpi. Every engine picture is compared with plain MuPDF's
// (pages_identical / pages_differing, and differing_share_max, the largest
// share of pixels that differ on one page), and on the corpus also with the
// engine's own drawing in one piece from the same recording (band_mismatches,
// which must be 0). QUIRELLE_BANDS=0 turns band drawing off.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <QImage>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "common/CorpusDir.h"
#include "engine/Bands.h"
#include "engine/Context.h"
#include "engine/DisplayListCache.h"
#include "engine/Engine.h"
#include "engine/Guarded.h"
#include "engine/PdfDocument.h"

namespace QuirelleBench {
namespace {

namespace Pdfium = Orvane::PDF::Pdfium;
using Clock = std::chrono::steady_clock;

constexpr double kZoomDpi = 192.0;
constexpr int kThumbnailWidth = 150;

double Ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

void ClearCache() {
    const size_t limit = Pdfium::PageCacheLimit();
    Pdfium::SetPageCacheLimit(0);
    Pdfium::SetPageCacheLimit(limit);
}

QSize AtDpi(double width, double height, double dpi) {
    return QSize(std::max(1, int(width * dpi / 72.0)), std::max(1, int(height * dpi / 72.0)));
}

// The viewer's three sizes for a page of width x height points.
std::vector<QSize> ViewerSizes(double width, double height) {
    return {QSize(kThumbnailWidth, std::max(1, int(kThumbnailWidth * height / width))), AtDpi(width, height, kDpi),
            AtDpi(width, height, kZoomDpi)};
}

QImage White(QSize size) {
    QImage picture(size, QImage::Format_RGB32);
    return picture;
}

// Times and compares both ways; reported as counters at the end.
struct Tally {
    double rawMs = 0, engineMs = 0;
    int identical = 0, differing = 0;
    double worstShare = 0;
    size_t cachePeak = 0;

    void Compare(const QImage& raw, const QImage& engine) {
        const double share = DifferingShare(raw, engine);
        (share == 0 ? identical : differing) += 1;
        worstShare = std::max(worstShare, share);
        cachePeak = std::max(cachePeak, Pdfium::PageCacheBytes());
    }
    void Report(benchmark::State& st) const {
        st.counters["raw_ms"] = rawMs;
        st.counters["engine_ms"] = engineMs;
        st.counters["speedup"] = engineMs > 0 ? rawMs / engineMs : 0;
        st.counters["pages_identical"] = identical;
        st.counters["pages_differing"] = differing;
        st.counters["differing_share_max"] = worstShare;
        st.counters["cache_peak_MB"] = double(cachePeak) / (1 << 20);
        st.counters["cache_limit_MB"] = double(Pdfium::PageCacheLimit()) / (1 << 20);
    }
};

// Pictures of the last few sizes, kept between drawings as a buffer pool
// keeps them: the first touch of a fresh picture's memory (page faults, about
// as long as drawing a simple page at 300 dpi) would otherwise be timed on
// both sides. Each way clears its picture to white before drawing.
std::pair<QImage, QImage>& Pictures(QSize size) {
    static std::vector<std::pair<QSize, std::pair<QImage, QImage>>> kept;
    for (auto& [keptSize, pictures] : kept) {
        if (keptSize == size) return pictures;
    }
    if (kept.size() >= 4) kept.erase(kept.begin());
    kept.emplace_back(size, std::pair{White(size), White(size)});
    return kept.back().second;
}

// One page both ways: plain MuPDF, then the engine.
template <class RawDraw, class EngineDraw>
double DrawBoth(Tally& tally, QSize size, RawDraw&& raw, EngineDraw&& engine) {
    auto& [rawPicture, enginePicture] = Pictures(size);
    auto t0 = Clock::now();
    raw(rawPicture);
    auto t1 = Clock::now();
    engine(enginePicture);
    auto t2 = Clock::now();
    tally.rawMs += Ms(t1 - t0);
    tally.engineMs += Ms(t2 - t1);
    tally.Compare(rawPicture, enginePicture);
    return Ms(t2 - t1);
}

// QUIRELLE_BANDS=0 draws every engine picture in one piece (recordings only).
bool BandsWanted() {
    const char* bands = std::getenv("QUIRELLE_BANDS");
    return bands == nullptr || std::string(bands) != "0";
}

enum class Scenario { Dpi300, Zoom, Viewer };

void GeneratedPage(benchmark::State& st, PageName name, Scenario scenario) {
    if (!Ready(st)) return;
    Pdfium::SetBandDrawing(BandsWanted());
    const Orvane::PDF::IDocument& document = *Inputs()[name.input].engineDocument;
    const Orvane::PDF::Size points = document.GetPage(name.index)->GetSize();
    auto raw = [&](QImage& p) { Raw().Render(name.input, name.index, p); };
    auto engine = [&](QImage& p) { EngineRender(document, name.index, p); };
    Tally tally;
    for (auto _ : st) {
        double engineMs = 0;
        if (scenario == Scenario::Dpi300) {
            engineMs = DrawBoth(tally, AtDpi(points.width, points.height, 300.0), raw, engine);
        } else {
            ClearCache();
            const std::vector<QSize> sizes = ViewerSizes(points.width, points.height);
            if (scenario == Scenario::Zoom) {
                QImage first = White(sizes[1]);
                engine(first);
                engineMs = DrawBoth(tally, sizes[2], raw, engine);
            } else {
                for (QSize size : sizes) engineMs += DrawBoth(tally, size, raw, engine);
            }
        }
        st.SetIterationTime(engineMs / 1000.0);
    }
    tally.Report(st);
}

// ---- the corpus ----

std::vector<std::filesystem::path> CorpusFiles() {
    const char* dir = std::getenv("QUIRELLE_CORPUS");
    const std::filesystem::path root = dir != nullptr ? std::filesystem::path(dir) : CorpusDir() / "x";
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->path().extension() == ".pdf") files.push_back(it->path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Pages per file, from the first ($QUIRELLE_CORPUS_PAGES, default 2).
int CorpusPages() {
    const char* pages = std::getenv("QUIRELLE_CORPUS_PAGES");
    return pages != nullptr ? std::max(1, std::atoi(pages)) : 2;
}

// Plain MuPDF on a context of its own, single-threaded, the engine's store size.
class RawFile {
public:
    explicit RawFile(const std::filesystem::path& path) {
        ctx_ = fz_new_context(nullptr, nullptr, Pdfium::kStoreSize);
        if (ctx_ == nullptr) return;
        fz_set_warning_callback(ctx_, [](void*, const char*) {}, nullptr);
        fz_set_error_callback(ctx_, [](void*, const char*) {}, nullptr);
        fz_try(ctx_) {
            fz_register_document_handlers(ctx_);
            doc_ = fz_open_document(ctx_, path.c_str());
        }
        fz_catch(ctx_) {
            doc_ = nullptr;
        }
    }
    ~RawFile() {
        if (ctx_ == nullptr) return;
        fz_drop_document(ctx_, doc_);
        fz_drop_context(ctx_);
    }
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    bool Open() const { return doc_ != nullptr; }

    // As the engine does: the page stretched over the picture, white first.
    void Render(int index, QImage& picture) {
        fz_context* ctx = ctx_;
        fz_try(ctx) {
            fz_page* page = fz_load_page(ctx, doc_, index);
            fz_rect b = fz_bound_page(ctx, page);
            fz_matrix ctm = fz_concat(fz_translate(-b.x0, -b.y0), fz_scale(picture.width() / (b.x1 - b.x0),
                                                                             picture.height() / (b.y1 - b.y0)));
            fz_pixmap* pixmap =
                fz_new_pixmap_with_data(ctx, fz_device_bgr(ctx), picture.width(), picture.height(), nullptr, 1,
                                        int(picture.bytesPerLine()), picture.bits());
            fz_clear_pixmap_with_value(ctx, pixmap, 0xFF);
            fz_device* device = fz_new_draw_device(ctx, fz_identity, pixmap);
            fz_cookie cookie = {};
            fz_run_page(ctx, page, device, ctm, &cookie);
            fz_close_device(ctx, device);
            fz_drop_device(ctx, device);
            fz_drop_pixmap(ctx, pixmap);
            fz_drop_page(ctx, page);
        }
        fz_catch(ctx) {
            picture.fill(Qt::white);
        }
    }
    // The page's size in points; false when the page cannot be read.
    bool PageSize(int index, double& width, double& height) {
        fz_context* ctx = ctx_;
        try {
            Pdfium::PageHandle page(ctx, Pdfium::guarded(ctx, [&] { return fz_load_page(ctx, doc_, index); }));
            const fz_rect b = Pdfium::guarded(ctx, [&] { return fz_bound_page(ctx, page.get()); });
            width = b.x1 - b.x0;
            height = b.y1 - b.y0;
            return width >= 1 && height >= 1;
        } catch (const std::exception&) {
            return false;
        }
    }
    int Pages() {
        try {
            return Pdfium::guarded(ctx_, [&] { return fz_count_pages(ctx_, doc_); });
        } catch (const std::exception&) {
            return 0;
        }
    }

private:
    fz_context* ctx_ = nullptr;
    fz_document* doc_ = nullptr;
};

// Calls page(raw, engine document, index, width, height) for every corpus
// page both can open; raw or engine may be absent when only one way is wanted.
template <class PageFn>
int ForCorpusPages(bool withRaw, bool withEngine, PageFn&& page) {
    int pages = 0;
    for (const auto& path : CorpusFiles()) {
        RawFile raw(path);
        if (!raw.Open()) continue;
        std::shared_ptr<Pdfium::PdfDocument> engine;
        if (withEngine) {
            try {
                engine = std::make_shared<Pdfium::PdfDocument>(nullptr, Orvane::ioPath(path), "");
            } catch (const std::exception&) {
                continue;
            }
        }
        const int count = std::min(raw.Pages(), CorpusPages());
        for (int i = 0; i < count; ++i) {
            double width = 0, height = 0;
            if (!raw.PageSize(i, width, height)) continue;
            page(withRaw ? &raw : nullptr, engine.get(), i, width, height);
            ++pages;
        }
    }
    return pages;
}

void CorpusViewer(benchmark::State& st) {
    if (!Ready(st)) return;
    Pdfium::SetBandDrawing(BandsWanted());
    Tally tally;
    int bandMismatches = 0;
    for (auto _ : st) {
        double engineMs = 0;
        const int pages = ForCorpusPages(true, true, [&](RawFile* raw, Pdfium::PdfDocument* engine, int index,
                                                         double width, double height) {
            for (QSize size : ViewerSizes(width, height)) {
                engineMs += DrawBoth(
                    tally, size, [&](QImage& p) { raw->Render(index, p); },
                    [&](QImage& p) { EngineRender(*engine, unsigned(index), p); });
            }
            // The same recording drawn in one piece, against the bands.
            const QSize size = ViewerSizes(width, height)[2];
            QImage banded = White(size), whole = White(size);
            EngineRender(*engine, unsigned(index), banded);
            Pdfium::SetBandDrawing(false);
            EngineRender(*engine, unsigned(index), whole);
            Pdfium::SetBandDrawing(BandsWanted());
            bandMismatches += DifferingShare(banded, whole) > 0;
        });
        st.counters["pages"] = pages;
        st.SetIterationTime(engineMs / 1000.0);
    }
    tally.Report(st);
    st.counters["band_mismatches"] = bandMismatches;
    st.counters["pictures_shared_out"] = double(Pdfium::PicturesSharedOut());
}

// Peak resident set since the last reset, in MiB (Linux: VmHWM, reset by
// writing 5 to clear_refs).
double PeakRssMb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    }
    return 0;
}
void ResetPeakRss() {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
}

void CorpusMemory(benchmark::State& st) {
    if (!Ready(st)) return;
    Pdfium::SetBandDrawing(BandsWanted());
    for (auto _ : st) {
        ResetPeakRss();
        ForCorpusPages(true, false, [&](RawFile* raw, Pdfium::PdfDocument*, int index, double w, double h) {
            for (QSize size : ViewerSizes(w, h)) {
                QImage picture = White(size);
                raw->Render(index, picture);
            }
        });
        const double rawPeak = PeakRssMb();
        ResetPeakRss();
        size_t cachePeak = 0;
        ForCorpusPages(false, true, [&](RawFile*, Pdfium::PdfDocument* engine, int index, double w, double h) {
            for (QSize size : ViewerSizes(w, h)) {
                QImage picture = White(size);
                EngineRender(*engine, unsigned(index), picture);
                cachePeak = std::max(cachePeak, Pdfium::PageCacheBytes());
            }
        });
        const double enginePeak = PeakRssMb();
        st.counters["raw_peak_rss_MB"] = rawPeak;
        st.counters["engine_peak_rss_MB"] = enginePeak;
        st.counters["rss_ratio"] = rawPeak > 0 ? enginePeak / rawPeak : 0;
        st.counters["cache_peak_MB"] = double(cachePeak) / (1 << 20);
    }
}

[[maybe_unused]] const bool registered = [] {
    for (const PageName& name : PageNames()) {
        const std::string page = std::string(InputName(name.input)) + "/" + name.label;
        for (auto [label, scenario] : {std::pair{"300dpi", Scenario::Dpi300}, std::pair{"zoom", Scenario::Zoom},
                                       std::pair{"viewer", Scenario::Viewer}}) {
            benchmark::RegisterBenchmark(("Cache/" + std::string(label) + "/" + page).c_str(), GeneratedPage, name,
                                         scenario)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond)
                ->MinTime(1.0);
        }
    }
    benchmark::RegisterBenchmark("Cache/corpus_viewer", CorpusViewer)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1);
    benchmark::RegisterBenchmark("Cache/corpus_memory", CorpusMemory)->Unit(benchmark::kMillisecond)->Iterations(1);
    return true;
}();

}  // namespace
}  // namespace QuirelleBench
