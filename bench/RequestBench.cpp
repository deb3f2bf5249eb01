// What one request costs the caller beyond the work it asks for:
//   GetPageInfo(id, 0).get()  queued, served by the worker, answered through
//                             the future (the whole round trip);
//   the same page information read from the engine on the calling thread
//                             (the work inside that round trip);
//   GetPageInfo after 5 ms    the same round trip when the caller asks after
//                             5 ms of its own work (painting, say): the worker
//                             has gone to sleep by then and must be woken;
//   GetPageCount(id)          an immediate query under the service's lock.

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <tuple>

#include "BenchSupport.h"

namespace QuirelleBench {
namespace {

void ServicePageInfo(benchmark::State& st, size_t input) {
    if (!Ready(st)) return;
    Orvane::PDF::Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[input].serviceId;
    const Orvane::PDF::Size expected = Inputs()[input].engineDocument->GetPage(0)->GetSize();
    const Orvane::PDF::IPDFProvider::PageInfo first = service.GetPageInfo(id, 0).get();
    if (first.size.width != expected.width || first.size.height != expected.height) {
        st.SkipWithError("the service's page size differs from the engine's");
        return;
    }
    for (auto _ : st) {
        Orvane::PDF::IPDFProvider::PageInfo info = service.GetPageInfo(id, 0).get();
        benchmark::DoNotOptimize(info);
    }
}

// The caller keeps its core busy between requests, as while it paints the
// last answer; only the request is timed.
void ServicePageInfoAfterWork(benchmark::State& st, size_t input) {
    if (!Ready(st)) return;
    Orvane::PDF::Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[input].serviceId;
    for (auto _ : st) {
        const auto busyUntil = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
        while (std::chrono::steady_clock::now() < busyUntil) {
        }
        const auto start = std::chrono::steady_clock::now();
        Orvane::PDF::IPDFProvider::PageInfo info = service.GetPageInfo(id, 0).get();
        st.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        benchmark::DoNotOptimize(info);
    }
}

void EnginePageInfo(benchmark::State& st, size_t input) {
    if (!Ready(st)) return;
    const Orvane::PDF::IDocument& document = *Inputs()[input].engineDocument;
    for (auto _ : st) {
        std::shared_ptr<Orvane::PDF::IPage> page = document.GetPage(0);
        Orvane::PDF::IPDFProvider::PageInfo info;
        info.size = page->GetSize();
        info.rotation = page->GetRotation();
        info.rect = page->GetPageRect();
        benchmark::DoNotOptimize(info);
    }
}

void ServicePageCount(benchmark::State& st, size_t input) {
    if (!Ready(st)) return;
    Orvane::PDF::Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[input].serviceId;
    const int expected = static_cast<int>(Inputs()[input].engineDocument->GetPageCount());
    if (service.GetPageCount(id) != expected) {
        st.SkipWithError("the service's page count differs from the engine's");
        return;
    }
    for (auto _ : st) benchmark::DoNotOptimize(service.GetPageCount(id));
}

[[maybe_unused]] const bool registered = [] {
    for (size_t input : {kSample, kHeavy}) {
        const std::string prefix = std::string("Request/") + InputName(input) + "/";
        const std::tuple<const char*, void (*)(benchmark::State&, size_t), benchmark::TimeUnit> benchmarks[] = {
            {"GetPageInfo/service", ServicePageInfo, benchmark::kMicrosecond},
            {"GetPageInfo/engine", EnginePageInfo, benchmark::kMicrosecond},
            {"GetPageCount/service", ServicePageCount, benchmark::kNanosecond}};
        for (const auto& [name, body, unit] : benchmarks) {
            benchmark::RegisterBenchmark((prefix + name).c_str(), body, input)
                ->UseRealTime()
                ->MeasureProcessCPUTime()
                ->ComputeStatistics("min", Fastest)
                ->Unit(unit);
        }
        benchmark::RegisterBenchmark((prefix + "GetPageInfo/service_after_5ms_of_work").c_str(),
                                     ServicePageInfoAfterWork, input)
            ->UseManualTime()
            ->Iterations(200)
            ->ComputeStatistics("min", Fastest)
            ->Unit(benchmark::kMicrosecond);
    }
    return true;
}();

}  // namespace
}  // namespace QuirelleBench
