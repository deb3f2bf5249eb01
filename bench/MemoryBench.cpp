// MuPDF's memory while the engine renders the heavy document at 150 dpi.
// Pdfium::MemoryInUse() counts every byte MuPDF holds through the engine's
// allocator in this executable (documents, their parsed objects, the store of
// decoded fonts and images, the page being drawn); the picture itself is the
// QImage's, outside MuPDF. A sampling thread reads it every ~50 us and the
// render loop reads it once more after each page is drawn, before the page is
// dropped. Counters:
//   peak_in_use  the highest value seen while the benchmark ran;
//   at_start     the value when the benchmark started: every input open twice
//                (on the benchmark's thread and on the engine_thread helper)
//                and the shared store warm, every page having been drawn
//                during set-up;
//   peak_over_start  what drawing the page(s) added on top of that.
// The service's engine lives inside libquirelle.so with a counter of its own,
// so these numbers are the engine's, called directly.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "BenchSupport.h"
#include "engine/Context.h"
#include "engine/Engine.h"

namespace QuirelleBench {
namespace {

using Orvane::PDF::Pdfium::MemoryInUse;

class PeakSampler {
public:
    PeakSampler() : peak_(MemoryInUse()), thread_([this] { Run(); }) {}
    ~PeakSampler() {
        stop_.store(true);
        thread_.join();
    }
    void Sample() { Raise(MemoryInUse()); }
    size_t Peak() const { return peak_.load(); }

private:
    void Run() {
        while (!stop_.load()) {
            Sample();
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
    void Raise(size_t value) {
        size_t seen = peak_.load();
        while (value > seen && !peak_.compare_exchange_weak(seen, value)) {
        }
    }

    std::atomic<size_t> peak_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// pages: indices into the heavy document; empty for all of its pages.
void RenderWatched(benchmark::State& st, std::vector<unsigned> indices) {
    if (!Ready(st)) return;
    const Input& heavy = Inputs()[kHeavy];
    const Orvane::PDF::IDocument& document = *heavy.engineDocument;
    std::vector<InputPage> pages;
    for (const InputPage& page : heavy.pages) {
        if (indices.empty() || std::find(indices.begin(), indices.end(), page.index) != indices.end()) {
            pages.push_back(page);
        }
    }
    const size_t atStart = MemoryInUse();
    size_t peak = 0;
    {
        PeakSampler sampler;
        for (auto _ : st) {
            for (const InputPage& page : pages) {
                QImage picture(page.width, page.height, QImage::Format_RGB32);
                std::shared_ptr<Orvane::PDF::IPage> engine = document.GetPage(page.index);
                std::shared_ptr<Orvane::PDF::IBitmap> bitmap =
                    Orvane::PDF::Pdfium::CreateBitmap(page.width, page.height, Orvane::PDF::IBitmap::Bgrx,
                                                      picture.bits(), static_cast<int>(picture.bytesPerLine()));
                bitmap->FillRect(0, 0, page.width, page.height, 0xFFFFFFFF);
                Orvane::PDF::Pdfium::CreatePageRenderer()->Render(engine, bitmap, false);
                sampler.Sample();
                benchmark::DoNotOptimize(picture.constBits());
            }
        }
        peak = sampler.Peak();
    }
    st.counters["peak_in_use"] =
        benchmark::Counter(static_cast<double>(peak), benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    st.counters["at_start"] =
        benchmark::Counter(static_cast<double>(atStart), benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    st.counters["peak_over_start"] = benchmark::Counter(static_cast<double>(peak > atStart ? peak - atStart : 0),
                                                        benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

[[maybe_unused]] const bool registered = [] {
    for (const PageName& name : PageNames()) {
        if (name.input != kHeavy) continue;
        benchmark::RegisterBenchmark((std::string("Memory/heavy/") + name.label + "/engine").c_str(), RenderWatched,
                                     std::vector<unsigned>{name.index})
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("Memory/heavy/all_pages/engine", RenderWatched, std::vector<unsigned>{})
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    return true;
}();

}  // namespace
}  // namespace QuirelleBench
