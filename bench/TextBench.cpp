// The text-heavy page of the heavy document (110 lines of 6 pt text, the
// needle on every fifth line):
//   extract       GetPage + GetTextObject (MuPDF's structured text copied out);
//   find          FindText for the needle on a text object made once;
//   extract+find  both, what a search step does for one page (engine);
//   service       GetPageTextObject(...).get() + FindText, through the worker.
// Every run checks the number of hits against the lines that carry the needle.

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

namespace QuirelleBench {
namespace {

using Orvane::PDF::ITextObject;
using Orvane::PDF::SearchResultInfo;

bool CheckHits(benchmark::State& st, const std::vector<SearchResultInfo>& hits) {
    if (static_cast<int>(hits.size()) == NeedleLines()) return true;
    st.SkipWithError(
        ("FindText found " + std::to_string(hits.size()) + " hits, the page has " + std::to_string(NeedleLines()))
            .c_str());
    return false;
}

const Orvane::PDF::IDocument& HeavyDocument() {
    return *Inputs()[kHeavy].engineDocument;
}

void Extract(benchmark::State& st) {
    if (!Ready(st)) return;
    const Orvane::PDF::IDocument& document = HeavyDocument();
    int chars = 0;
    for (auto _ : st) {
        std::shared_ptr<ITextObject> text = document.GetPage(kTextPage)->GetTextObject();
        chars = text->GetCharCount();
        benchmark::DoNotOptimize(text.get());
    }
    st.counters["chars"] = chars;
}

void Find(benchmark::State& st) {
    if (!Ready(st)) return;
    std::shared_ptr<ITextObject> text = HeavyDocument().GetPage(kTextPage)->GetTextObject();
    for (auto _ : st) {
        std::vector<SearchResultInfo> hits = text->FindText(kNeedle, 0);
        if (!CheckHits(st, hits)) break;
    }
    st.counters["chars"] = text->GetCharCount();
}

void ExtractAndFind(benchmark::State& st) {
    if (!Ready(st)) return;
    const Orvane::PDF::IDocument& document = HeavyDocument();
    for (auto _ : st) {
        std::shared_ptr<ITextObject> text = document.GetPage(kTextPage)->GetTextObject();
        if (!CheckHits(st, text->FindText(kNeedle, 0))) break;
    }
}

void ServiceExtractAndFind(benchmark::State& st) {
    if (!Ready(st)) return;
    Orvane::PDF::Quirelle& service = Service();
    const Orvane::int64 id = Inputs()[kHeavy].serviceId;
    for (auto _ : st) {
        std::shared_ptr<ITextObject> text = service.GetPageTextObject(id, kTextPage).get();
        if (!text) {
            st.SkipWithError("the service answered no text object");
            break;
        }
        if (!CheckHits(st, text->FindText(kNeedle, 0))) break;
    }
}

[[maybe_unused]] const bool registered = [] {
    const std::string prefix = std::string("Text/") + InputName(kHeavy) + "/p1_text/";
    const std::pair<const char*, void (*)(benchmark::State&)> benchmarks[] = {
        {"extract/engine", Extract},
        {"find/engine", Find},
        {"extract+find/engine", ExtractAndFind},
        {"extract+find/service", ServiceExtractAndFind}};
    for (const auto& [name, body] : benchmarks) {
        benchmark::RegisterBenchmark((prefix + name).c_str(), body)
            ->UseRealTime()
            ->MeasureProcessCPUTime()
            ->ComputeStatistics("min", Fastest)
            ->Unit(benchmark::kMicrosecond);
    }
    return true;
}();

}  // namespace
}  // namespace QuirelleBench
