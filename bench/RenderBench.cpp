// One page rendered at 150 dpi into a fresh Format_RGB32 QImage:
//   raw            plain MuPDF on its own context without locks;
//   raw_reused     the same drawing into one buffer kept from page to page (the floor);
//   raw_locked     the same with std::mutex locking callbacks, which any
//                  multi-threaded use of MuPDF needs (the engine has them);
//   engine         the engine's document, renderer and bitmap, called directly
//                  on the benchmark's thread;
//   engine_thread  the same work handed to one other thread and waited for:
//                  the least any design with a worker thread pays;
//   service        Quirelle::GeneratePageImage(...).get(): queueing, the hop
//                  to the worker thread and back, the engine's work there.
// Every way but raw_reused allocates its picture per page, as the service must. A page's
// benchmarks are registered next to each other so that they run under the
// same machine load. Ready() checked that all of them draw identical pixels.

#include <benchmark/benchmark.h>

#include <string>

#include "BenchSupport.h"

namespace QuirelleBench {
namespace {

void RawRender(benchmark::State& st, PageName name) {
    if (!Ready(st)) return;
    const InputPage& page = PageOf(name);
    RawMuPdf& raw = Raw();
    for (auto _ : st) {
        QImage picture(page.width, page.height, QImage::Format_RGB32);
        raw.Render(name.input, page.index, picture);
        benchmark::DoNotOptimize(picture.constBits());
    }
}

// A careful single-threaded caller of MuPDF keeps one picture buffer and
// draws every page into it: no allocation, no page faults per page.
void RawReusedRender(benchmark::State& st, PageName name) {
    if (!Ready(st)) return;
    const InputPage& page = PageOf(name);
    RawMuPdf& raw = Raw();
    ReusedBuffer buffer;
    for (auto _ : st) {
        unsigned char* bits = buffer.For(page.width, page.height);
        raw.Render(name.input, page.index, bits, page.width, page.height, page.width * 4);
        benchmark::DoNotOptimize(bits);
    }
}

void RawLockedRender(benchmark::State& st, PageName name) {
    if (!Ready(st)) return;
    const InputPage& page = PageOf(name);
    RawMuPdf& raw = RawWithLocks();
    for (auto _ : st) {
        QImage picture(page.width, page.height, QImage::Format_RGB32);
        raw.Render(name.input, page.index, picture);
        benchmark::DoNotOptimize(picture.constBits());
    }
}

void EngineRenderPage(benchmark::State& st, PageName name) {
    if (!Ready(st)) return;
    const InputPage& page = PageOf(name);
    const Orvane::PDF::IDocument& document = *Inputs()[name.input].engineDocument;
    for (auto _ : st) {
        QImage picture(page.width, page.height, QImage::Format_RGB32);
        EngineRender(document, page.index, picture);
        benchmark::DoNotOptimize(picture.constBits());
    }
}

void EngineThreadRender(benchmark::State& st, PageName name) {
    if (!Ready(st)) return;
    const InputPage& page = PageOf(name);
    EngineThread& helper = HelperThread();
    for (auto _ : st) {
        QImage picture = helper.Render(name.input, page);
        benchmark::DoNotOptimize(picture.constBits());
    }
}

void ServiceRender(benchmark::State& st, PageName name) {
    if (!Ready(st)) return;
    const InputPage& page = PageOf(name);
    Orvane::PDF::Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[name.input].serviceId;
    for (auto _ : st) {
        QImage picture = service.GeneratePageImage(id, page.index, page.width, page.height).get();
        if (picture.isNull()) {
            st.SkipWithError("the service answered a null picture");
            break;
        }
        benchmark::DoNotOptimize(picture.constBits());
    }
}

[[maybe_unused]] const bool registered = [] {
    for (const PageName& name : PageNames()) {
        const std::string prefix = std::string("Render/") + InputName(name.input) + "/" + name.label + "/";
        for (auto [way, body] :
             {std::pair{"raw", &RawRender}, std::pair{"raw_reused", &RawReusedRender},
              std::pair{"raw_locked", &RawLockedRender},
              std::pair{"engine", &EngineRenderPage}, std::pair{"engine_thread", &EngineThreadRender},
              std::pair{"service", &ServiceRender}}) {
            benchmark::RegisterBenchmark((prefix + way).c_str(), body, name)
                ->UseRealTime()
                ->MeasureProcessCPUTime()
                ->ComputeStatistics("min", Fastest)
                ->Unit(benchmark::kMillisecond)
                ->MinTime(0.5);
        }
    }
    return true;
}();

}  // namespace
}  // namespace QuirelleBench
