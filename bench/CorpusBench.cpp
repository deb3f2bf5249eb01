// The service against plain MuPDF on real documents: the manuals of
// bench/corpus.txt, fetched by bench/fetch-corpus.sh.
//
//   Corpus/<dpi>/<document>   every page (up to QUIRELLE_CORPUS_MAX_PAGES) of
//       one manual, each page drawn by plain MuPDF into one reused buffer and
//       by Quirelle::GeneratePageImage(...).get(), one right after the other
//       (the order alternates from page to page), single-threaded, the same
//       store size. Time = the service's; counters: raw and service
//       milliseconds a page and their ratio (raw / service: 1.0 = as fast).
//   Generated/<dpi>/<document>   the same for quirelle_bench's generated
//       documents (the sample and the heavy document), each page tried
//       QUIRELLE_GENERATED_ROUNDS times (default 20) in turns, the fastest
//       try of each way counting.
//   Corpus/open_first_page    each small document of the corpus packages
//       (QUIRELLE_CORPUS_SMALL_PAGES pages or fewer) opened and its first page
//       drawn at 150 dpi, both ways interleaved: plain MuPDF opens, loads,
//       bounds and draws; the service answers OpenDocument, GetPageInfo and
//       GeneratePageImage. Counters: medians a file and the median of the
//       per-file difference.
//
// After the run a table of every document (and one of the generated ones)
// is printed with the ratio of the summed page times; each page counts with
// its fastest time over the repetitions (--benchmark_repetitions), the least
// disturbed one on a busy machine. Without a corpus every benchmark is skipped with the reason.

#include <benchmark/benchmark.h>

#include <QImage>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Quirelle"
#include "common/CorpusDir.h"
#include "common/Generated.h"
#include "common/RawMuPdf.h"

namespace QuirelleBench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Orvane::PDF::Quirelle;

constexpr double kDpis[] = {150.0, 300.0};

std::string Env(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

int EnvInt(const char* name, int fallback) {
    const std::string value = Env(name, "");
    return value.empty() ? fallback : std::max(1, std::atoi(value.c_str()));
}

struct Document {
    std::string name;  // file name without .pdf
    std::string typeset;
    fs::path path;
    // Filled by the set-up:
    int pages = 0;  // rendered pages: the file's, capped
    std::vector<std::pair<double, double>> sizes;  // page size in points, as displayed
    size_t raw = 0;
    Orvane::int64 id = -1;
    bool generated = false;  // one of the benchmarks' own documents, not the corpus
    int rounds = 1;          // tries of each page per repetition (the fastest counts)
};

// Per page and resolution, the fastest time of each way over the repetitions.
struct PageTimes {
    double raw = 1e30;
    double service = 1e30;
    bool failed = false;  // the service answered a null picture
};

struct State {
    fs::path root;
    std::vector<Document> documents;
    std::vector<fs::path> small;
    std::unique_ptr<RawMuPdf> raw;
    std::unique_ptr<Quirelle> service;
    ReusedBuffer buffer;
    std::map<std::pair<size_t, int>, std::vector<PageTimes>> times;  // (document, dpi index)
    std::string failure;
};
State* state = nullptr;

std::vector<Document> ReadList(const fs::path& root, const fs::path& list) {
    std::ifstream in(list);
    if (!in) throw std::runtime_error("cannot read " + list.string());
    std::vector<Document> documents;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string package, path, typeset;
        if (!(fields >> package >> path) || package[0] == '#') continue;
        fields >> typeset;
        Document document;
        document.path = root / path;
        document.name = document.path.stem().string();
        document.typeset = typeset;
        documents.push_back(std::move(document));
    }
    return documents;
}

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

// Opens everything both ways and checks that the first page of every
// document comes out the same from both.
void SetUp(State& s, int maxPages, int smallPages) {
    s.raw = std::make_unique<RawMuPdf>(false);
    s.service = std::make_unique<Quirelle>(nullptr);
    for (Document& d : s.documents) {
        if (!fs::exists(d.path)) throw std::runtime_error(d.path.string() + " is missing");
        d.raw = s.raw->Open(d.path.string());
        d.id = s.service->OpenDocument(d.path.string(), "").get().id;
        if (d.id < 0) throw std::runtime_error("the service cannot open " + d.path.string());
        const int count = s.raw->PageCount(d.raw);
        if (s.service->GetPageCount(d.id) != count) throw std::runtime_error(d.name + ": page counts differ");
        d.pages = std::min(count, maxPages);
        for (int page = 0; page < d.pages; ++page) {
            const Orvane::PDF::Size size = s.service->GetPageInfo(d.id, page).get().size;
            const PixelSize raw = s.raw->PageSize(d.raw, page, 72.0);
            const PixelSize svc = PixelsAt(size.width, size.height, 72.0);
            if (raw.width != svc.width || raw.height != svc.height) {
                throw std::runtime_error(d.name + ": page sizes differ on page " + std::to_string(page));
            }
            d.sizes.emplace_back(size.width, size.height);
        }
        const PixelSize px = PixelsAt(d.sizes[0].first, d.sizes[0].second, 150.0);
        const QImage picture = s.service->GeneratePageImage(d.id, 0, px.width, px.height).get();
        unsigned char* bits = s.buffer.For(px.width, px.height);
        s.raw->Render(d.raw, 0, bits, px.width, px.height, px.width * 4);
        if (picture.isNull() || CountInk(bits, px.width, px.height, px.width * 4) == 0 ||
            DifferingShare(picture, bits, px.width * 4) > 0.01) {
            throw std::runtime_error(d.name + ": the service and plain MuPDF draw page 1 differently");
        }
    }
    // The small documents: every PDF in the unpacked packages with few pages.
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(s.root)) {
        if (entry.is_regular_file() && entry.path().extension() == ".pdf") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    RawMuPdf counter(false);
    for (const fs::path& file : files) {
        try {
            const size_t n = counter.Open(file.string());
            const int count = counter.PageCount(n);
            counter.Close(n);
            if (count >= 1 && count <= smallPages) s.small.push_back(file);
        } catch (const std::exception&) {
            // not a document plain MuPDF opens: not one for this comparison
        }
    }
}

// Runs both ways, which one first alternating with turn.
template <class Raw, class Service>
void Interleaved(size_t turn, Raw& raw, Service& service) {
    if (turn % 2 == 0) {
        raw();
        service();
    } else {
        service();
        raw();
    }
}

void RenderDocument(benchmark::State& st, size_t index, int dpiIndex) {
    if (state == nullptr || !state->failure.empty()) {
        st.SkipWithError(state ? state->failure.c_str() : "no corpus");
        return;
    }
    State& s = *state;
    Document& d = s.documents[index];
    std::vector<PageTimes>& best = s.times[{index, dpiIndex}];
    best.resize(d.pages);
    int round = 0, failed = 0;
    double rawSum = 0, serviceSum = 0;
    for (auto _ : st) {
        rawSum = serviceSum = 0;
        failed = 0;
        for (int page = 0; page < d.pages; ++page) {
            const PixelSize px = PixelsAt(d.sizes[page].first, d.sizes[page].second, kDpis[dpiIndex]);
            // Each way's fastest of d.rounds tries, taken in turns.
            double rawTime = 1e30, serviceTime = 1e30;
            bool null = false;
            auto raw = [&] {
                unsigned char* bits = s.buffer.For(px.width, px.height);
                const Clock::time_point start = Clock::now();
                s.raw->Render(d.raw, page, bits, px.width, px.height, px.width * 4);
                rawTime = std::min(rawTime, Seconds(start));
                benchmark::DoNotOptimize(bits);
            };
            auto service = [&] {
                const Clock::time_point start = Clock::now();
                {
                    QImage picture = s.service->GeneratePageImage(d.id, page, px.width, px.height).get();
                    null = null || picture.isNull();
                    benchmark::DoNotOptimize(picture.constBits());
                }  // dropped inside the timing: a caller pays for that too
                serviceTime = std::min(serviceTime, Seconds(start));
            };
            for (int k = 0; k < d.rounds; ++k) Interleaved(page + round + k, raw, service);
            if (null) {
                ++failed;
                best[page].failed = true;
                continue;
            }
            rawSum += rawTime;
            serviceSum += serviceTime;
            best[page].raw = std::min(best[page].raw, rawTime);
            best[page].service = std::min(best[page].service, serviceTime);
        }
        st.SetIterationTime(serviceSum);
        ++round;
    }
    const int drawn = d.pages - failed;
    st.counters["pages"] = drawn;
    st.counters["raw_ms"] = drawn ? 1e3 * rawSum / drawn : 0;
    st.counters["service_ms"] = drawn ? 1e3 * serviceSum / drawn : 0;
    st.counters["ratio"] = serviceSum > 0 ? rawSum / serviceSum : 0;
    if (failed) st.counters["null_pictures"] = failed;
}

void OpenFirstPage(benchmark::State& st) {
    if (state == nullptr || !state->failure.empty()) {
        st.SkipWithError(state ? state->failure.c_str() : "no corpus");
        return;
    }
    State& s = *state;
    if (s.small.empty()) {
        st.SkipWithError("the corpus has no small documents");
        return;
    }
    std::vector<double> raw, service, over;
    int round = 0;
    for (auto _ : st) {
        raw.clear();
        service.clear();
        over.clear();
        double serviceSum = 0;
        for (size_t i = 0; i < s.small.size(); ++i) {
            const std::string path = s.small[i].string();
            double rawTime = 0, serviceTime = 0;
            bool ok = true;
            auto plain = [&] {
                const Clock::time_point start = Clock::now();
                const size_t n = s.raw->Open(path);
                const PixelSize px = s.raw->PageSize(n, 0, 150.0);
                s.raw->Render(n, 0, s.buffer.For(px.width, px.height), px.width, px.height, px.width * 4);
                rawTime = Seconds(start);
                s.raw->Close(n);
            };
            auto viaService = [&] {
                const Clock::time_point start = Clock::now();
                const Orvane::int64 id = s.service->OpenDocument(path, "").get().id;
                if (id < 0) {
                    ok = false;
                    return;
                }
                const Orvane::PDF::Size size = s.service->GetPageInfo(id, 0).get().size;
                const PixelSize px = PixelsAt(size.width, size.height, 150.0);
                {
                    const QImage picture = s.service->GeneratePageImage(id, 0, px.width, px.height).get();
                    ok = !picture.isNull();
                }
                serviceTime = Seconds(start);
                s.service->CloseDoument(id).get();
            };
            Interleaved(i + round, plain, viaService);
            if (!ok) continue;
            raw.push_back(rawTime);
            service.push_back(serviceTime);
            over.push_back(serviceTime - rawTime);
            serviceSum += serviceTime;
        }
        st.SetIterationTime(serviceSum);
        ++round;
    }
    const double rawTotal = std::accumulate(raw.begin(), raw.end(), 0.0);
    const double serviceTotal = std::accumulate(service.begin(), service.end(), 0.0);
    st.counters["files"] = static_cast<double>(raw.size());
    st.counters["raw_ms"] = 1e3 * Median(raw);
    st.counters["service_ms"] = 1e3 * Median(service);
    st.counters["over_ms"] = 1e3 * Median(over);
    st.counters["over_mean_ms"] = raw.empty() ? 0 : 1e3 * (serviceTotal - rawTotal) / raw.size();
    st.counters["ratio"] = serviceTotal > 0 ? rawTotal / serviceTotal : 0;
}

// One table: the corpus, or the generated documents.
void PrintTable(const State& s, bool generated) {
    std::printf("\n| document | typeset | pages | 150 dpi raw ms | service ms | ratio | 300 dpi raw ms | service ms | ratio |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|\n");
    double totalRaw[2] = {0, 0}, totalService[2] = {0, 0}, worst[2] = {1e9, 1e9};
    int totalPages = 0;
    std::string worstName[2];
    for (size_t i = 0; i < s.documents.size(); ++i) {
        const Document& d = s.documents[i];
        if (d.generated != generated) continue;
        std::string cells;
        int pages = 0;
        for (int k = 0; k < 2; ++k) {
            const auto found = s.times.find({i, k});
            double raw = 0, service = 0;
            int n = 0;
            if (found != s.times.end()) {
                for (const PageTimes& t : found->second) {
                    if (t.failed || t.raw > 1e29) continue;
                    raw += t.raw;
                    service += t.service;
                    ++n;
                }
            }
            char cell[96];
            if (n == 0) {
                std::snprintf(cell, sizeof cell, " - | - | - |");
            } else {
                pages = std::max(pages, n);
                const double ratio = raw / service;
                std::snprintf(cell, sizeof cell, " %.2f | %.2f | %.3f |", 1e3 * raw / n, 1e3 * service / n, ratio);
                totalRaw[k] += raw;
                totalService[k] += service;
                if (ratio < worst[k]) {
                    worst[k] = ratio;
                    worstName[k] = d.name;
                }
            }
            cells += cell;
        }
        if (pages == 0) continue;
        totalPages += pages;
        std::printf("| %s | %s | %d |%s\n", d.name.c_str(), d.typeset.c_str(), pages, cells.c_str());
    }
    std::string cells;
    for (int k = 0; k < 2; ++k) {
        char cell[96];
        if (totalService[k] > 0) {
            std::snprintf(cell, sizeof cell, " %.3f s | %.3f s | **%.3f** |", totalRaw[k], totalService[k],
                          totalRaw[k] / totalService[k]);
        } else {
            std::snprintf(cell, sizeof cell, " - | - | - |");
        }
        cells += cell;
    }
    std::printf("| **all** | | %d |%s\n\n", totalPages, cells.c_str());
    for (int k = 0; k < 2; ++k) {
        if (totalService[k] > 0) {
            std::printf("lowest ratio at %.0f dpi: %.3f (%s)\n", kDpis[k], worst[k], worstName[k].c_str());
        }
    }
}

}  // namespace
}  // namespace QuirelleBench

int main(int argc, char** argv) {
    using namespace QuirelleBench;
    State s;
    s.root = CorpusDir() / "x";
    const fs::path list = Env("QUIRELLE_CORPUS_LIST", QUIRELLE_BENCH_DIR "/corpus.txt");
    try {
        if (!fs::is_directory(s.root)) {
            throw std::runtime_error("no corpus at " + s.root.string() +
                                     " (run bash bench/fetch-corpus.sh, or set QUIRELLE_CORPUS_DIR)");
        }
        s.documents = ReadList(s.root, list);
        if (s.documents.empty()) throw std::runtime_error(list.string() + " names no document");
    } catch (const std::exception& e) {
        s.failure = e.what();
    }
    // The generated pages of quirelle_bench, measured the same way, each page
    // tried several times in a row (they are few and quick).
    QuirelleTest::TempDir temp;
    if (s.failure.empty()) {
        try {
            BuildHeavyDocument().builder.Save(temp.File("heavy.pdf"));
            for (const fs::path& path : {QuirelleTest::SamplesDir() / "sample.pdf", temp.File("heavy.pdf")}) {
                Document document;
                document.path = path;
                document.name = path.stem().string();
                document.typeset = "generated";
                document.generated = true;
                document.rounds = EnvInt("QUIRELLE_GENERATED_ROUNDS", 20);
                s.documents.push_back(std::move(document));
            }
        } catch (const std::exception& e) {
            s.failure = e.what();
        }
    }
    state = &s;
    if (s.documents.empty()) {
        benchmark::RegisterBenchmark("Corpus/missing", [](benchmark::State& st) { RenderDocument(st, 0, 0); });
    }
    for (int k = 0; k < 2; ++k) {
        for (size_t i = 0; i < s.documents.size(); ++i) {
            const std::string name = std::string(s.documents[i].generated ? "Generated/" : "Corpus/") +
                                     std::to_string(static_cast<int>(kDpis[k])) + "dpi/" + s.documents[i].name;
            benchmark::RegisterBenchmark(name.c_str(), RenderDocument, i, k)
                ->UseManualTime()
                ->Iterations(1)
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::RegisterBenchmark("Corpus/open_first_page", OpenFirstPage)
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (s.failure.empty()) {
        try {
            const Clock::time_point start = Clock::now();
            SetUp(s, EnvInt("QUIRELLE_CORPUS_MAX_PAGES", 60), EnvInt("QUIRELLE_CORPUS_SMALL_PAGES", 2));
            int pages = 0;
            for (const Document& d : s.documents) pages += d.pages;
            std::fprintf(stderr, "corpus: %zu documents, %d pages (at most %d each), %zu small documents; set-up %.1f s\n",
                         s.documents.size(), pages, EnvInt("QUIRELLE_CORPUS_MAX_PAGES", 60), s.small.size(),
                         Seconds(start));
        } catch (const std::exception& e) {
            s.failure = std::string("set-up failed: ") + e.what();
            std::fprintf(stderr, "corpus: %s\n", s.failure.c_str());
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    if (s.failure.empty()) {
        PrintTable(s, false);
        PrintTable(s, true);
    }
    benchmark::Shutdown();
    // The service's documents are closed by its destructor, on its worker.
    s.service.reset();
    s.raw.reset();
    return s.failure.empty() ? 0 : 1;
}
