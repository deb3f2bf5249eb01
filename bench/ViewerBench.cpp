// What a viewer asks of the service, each benchmark with its own figure:
//   Viewer/scroll_burst      1,000 GeneratePageImageAsync requests over 50 pages,
//                            every page asked 20 times at a growing size: the
//                            renders done, and the time from the first request
//                            to the last observer call. Every page must end with
//                            exactly one picture of its last size.
//   Viewer/open_100k_pages   OpenDocument of a 100,000-page file plus its page
//                            count: the time, and the process's resident memory
//                            it added.
//   Viewer/image_during_search  page images asked for while a search runs over
//                            1,000 pages: how many search steps (callbacks) pass
//                            before each picture is there, and the time.
//   Viewer/export_1000_pages, Viewer/import_1000_pages  ExportPagesTo of every
//                            page, and ImportAllPages into a new document then
//                            SaveDocumentAs: pages/s and the file's size.
//   Viewer/save_as_outlined  SaveDocumentAs of a 1,000-page document with a
//                            2,000-entry outline and page labels (the copy
//                            carries both), beside a save in place of the same
//                            document (save_in_place_ms, the same contents).
//   Viewer/idle              processor time of the whole process (getrusage)
//                            over 10 s without requests, a document open.
// The documents are generated on first use into a temporary directory.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <QImage>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Quirelle"
#include "common/RawMuPdf.h"
#include "common/Generated.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Orvane::PDF::IPageInfoObserver;
using Orvane::PDF::Quirelle;

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

constexpr int kLongPages = 1000;
constexpr int kHugePages = 100000;
const std::wstring kNeedle = L"quartz";

struct Fixtures {
    QuirelleTest::TempDir temp;
    fs::path longDocument;  // kLongPages pages of text
    fs::path hugeDocument;  // kHugePages pages
    fs::path outlinedDocument;  // kLongPages pages, 2 * kLongPages outline entries
    std::string failure;
};

Fixtures& Files() {
    static Fixtures fixtures;
    static const bool made = [] {
        try {
            fixtures.longDocument = fixtures.temp.File("long.pdf");
            WriteLongDocument(fixtures.longDocument, kLongPages);
            fixtures.outlinedDocument = fixtures.temp.File("outlined.pdf");
            WriteOutlinedDocument(fixtures.outlinedDocument, kLongPages);
            fixtures.hugeDocument = fixtures.temp.File("huge.pdf");
            WriteHugeDocument(fixtures.hugeDocument, kHugePages);
        } catch (const std::exception& e) {
            fixtures.failure = e.what();
        }
        return true;
    }();
    (void)made;
    return fixtures;
}

bool Ready(benchmark::State& st) {
    if (Files().failure.empty()) return true;
    st.SkipWithError(("making the documents failed: " + Files().failure).c_str());
    return false;
}

// An open service with the long document, closed again at the end of a benchmark.
struct OpenService {
    Quirelle service{nullptr};
    Orvane::int64 id = -1;
    explicit OpenService(const fs::path& path) { id = service.OpenDocument(path.string(), "").get().id; }
    ~OpenService() {
        if (id >= 0) service.CloseDoument(id).get();
    }
};

class BurstObserver : public IPageInfoObserver {
public:
    explicit BurstObserver(std::map<unsigned, PixelSize> finalSizes) : final_(std::move(finalSizes)) {}
    void OnPageInfo(int64_t, unsigned, const Orvane::PDF::Size&, const Orvane::PDF::IPage::Rotation&,
                    const Orvane::PDF::Rect&) override {}
    void OnPageImage(int64_t, unsigned page, ViewType, const QImage& image) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++renders_;
        last_ = Clock::now();
        const PixelSize wanted = final_.at(page);
        if (!image.isNull() && image.width() == wanted.width && image.height() == wanted.height) {
            if (++finalRenders_[page] == 1) ++pagesDone_;
        } else {
            ++superseded_;
        }
        if (pagesDone_ == final_.size()) done_.notify_all();
    }
    bool Wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return done_.wait_for(lock, limit, [this] { return pagesDone_ == final_.size(); });
    }
    // Read after the service is idle.
    int renders_ = 0;
    int superseded_ = 0;  // pictures of a size asked for earlier
    std::map<unsigned, int> finalRenders_;
    Clock::time_point last_;

private:
    const std::map<unsigned, PixelSize> final_;
    std::mutex mutex_;
    std::condition_variable done_;
    size_t pagesDone_ = 0;
};

void ScrollBurst(benchmark::State& st) {
    if (!Ready(st)) return;
    constexpr unsigned kPages = 50;
    constexpr int kRounds = 20;
    auto sizeOf = [](int round) { return PixelsAt(200 + 10 * round, (200 + 10 * round) * 11.0 / 8.5, 72.0); };
    std::map<unsigned, PixelSize> finalSizes;
    for (unsigned page = 0; page < kPages; ++page) finalSizes[page] = sizeOf(kRounds - 1);
    for (auto _ : st) {
        OpenService open(Files().longDocument);
        BurstObserver observer(finalSizes);
        open.service.RegisterEventHandler(&observer);
        const Clock::time_point start = Clock::now();
        for (int round = 0; round < kRounds; ++round) {
            const PixelSize size = sizeOf(round);
            for (unsigned page = 0; page < kPages; ++page) {
                open.service.GeneratePageImageAsync(open.id, page, size.width, size.height,
                                                    IPageInfoObserver::DefaultView);
            }
        }
        const double asked = Seconds(start);
        const bool complete = observer.Wait(std::chrono::seconds(120));
        open.service.GetPageInfo(open.id, 0).get();  // every pending picture is answered by now
        open.service.UnregisterEventHandler(&observer);
        if (!complete) {
            st.SkipWithError("not every page got a picture of its last size");
            break;
        }
        int duplicates = 0;
        for (const auto& [page, count] : observer.finalRenders_) duplicates += count - 1;
        const double total = std::chrono::duration<double>(observer.last_ - start).count();
        st.SetIterationTime(total);
        st.counters["requests"] = kPages * kRounds;
        st.counters["renders"] = observer.renders_;
        st.counters["superseded"] = observer.superseded_;
        st.counters["duplicates"] = duplicates;
        st.counters["ask_ms"] = 1e3 * asked;
        st.counters["last_ms"] = 1e3 * total;
        if (duplicates != 0) st.SkipWithError("a page was drawn twice at its last size");
    }
}

long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

void OpenHuge(benchmark::State& st) {
    if (!Ready(st)) return;
    for (auto _ : st) {
        Quirelle service(nullptr);
        service.CloseDoument(service.CreateDocument().get().id).get();  // the worker is up and running
        const long before = ResidentKiB();
        const Clock::time_point start = Clock::now();
        const Orvane::int64 id = service.OpenDocument(Files().hugeDocument.string(), "").get().id;
        const int count = id >= 0 ? service.GetPageCount(id) : -1;
        const double seconds = Seconds(start);
        const long after = ResidentKiB();
        st.SetIterationTime(seconds);
        if (count != kHugePages) {
            st.SkipWithError(("the service counted " + std::to_string(count) + " pages").c_str());
            break;
        }
        // The first page, as a viewer shows it next.
        const Clock::time_point first = Clock::now();
        const QImage picture = service.GeneratePageImage(id, kHugePages - 1, 612, 792).get();
        st.counters["last_page_ms"] = 1e3 * Seconds(first);
        st.counters["open_ms"] = 1e3 * seconds;
        st.counters["rss_added_MiB"] = (after - before) / 1024.0;
        st.counters["file_MiB"] = static_cast<double>(fs::file_size(Files().hugeDocument)) / (1 << 20);
        if (picture.isNull()) st.SkipWithError("the last page was not drawn");
        service.CloseDoument(id).get();
    }
}

// Notes the search steps done when a picture is handed over, on the worker,
// so that a caller woken late does not count steps that came after it.
class StepObserver : public IPageInfoObserver {
public:
    explicit StepObserver(const std::atomic<int>& steps) : steps_(steps) {}
    void OnPageInfo(int64_t, unsigned, const Orvane::PDF::Size&, const Orvane::PDF::IPage::Rotation&,
                    const Orvane::PDF::Rect&) override {}
    void OnPageImage(int64_t, unsigned page, ViewType, const QImage& image) override {
        std::lock_guard<std::mutex> lock(mutex_);
        delivered_[page] = {steps_.load(), Clock::now(), !image.isNull()};
        arrived_.notify_all();
    }
    struct Delivery {
        int steps = 0;
        Clock::time_point at;
        bool drawn = false;
    };
    std::optional<Delivery> Wait(unsigned page) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!arrived_.wait_for(lock, std::chrono::seconds(60), [&] { return delivered_.count(page) != 0; })) {
            return std::nullopt;
        }
        return delivered_[page];
    }

private:
    const std::atomic<int>& steps_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::map<unsigned, Delivery> delivered_;
};

void ImageDuringSearch(benchmark::State& st) {
    if (!Ready(st)) return;
    constexpr int kRequests = 20;
    for (auto _ : st) {
        OpenService open(Files().longDocument);
        std::atomic<int> steps{0};
        StepObserver observer(steps);
        open.service.RegisterEventHandler(&observer);
        const Orvane::int64 search = open.service.SearchInDocument(
            open.id, 0, kNeedle,
            [&](unsigned, const std::vector<Orvane::PDF::SearchResultInfo>&,
                const std::shared_ptr<Orvane::PDF::ITextObject>&) { ++steps; });
        std::vector<int> latencySteps;
        std::vector<double> latencyMs;
        bool drawn = true;
        for (int r = 0; r < kRequests; ++r) {
            // Spread over the search: the next request once 40 more pages are searched.
            while (steps.load() < 20 + 40 * r) std::this_thread::sleep_for(std::chrono::microseconds(200));
            const unsigned page = 999 - 37 * r;
            const int before = steps.load();
            const Clock::time_point start = Clock::now();
            open.service.GeneratePageImageAsync(open.id, page, 1275, 1650, IPageInfoObserver::DefaultView);
            const std::optional<StepObserver::Delivery> delivery = observer.Wait(page);
            if (!delivery) {
                drawn = false;
                break;
            }
            drawn = drawn && delivery->drawn;
            latencyMs.push_back(1e3 * std::chrono::duration<double>(delivery->at - start).count());
            latencySteps.push_back(delivery->steps - before);
        }
        const int stepsAtEnd = steps.load();
        open.service.StopSearch(search);
        open.service.GetPageInfo(open.id, 0).get();  // no callback runs after this
        open.service.UnregisterEventHandler(&observer);
        if (!drawn || latencyMs.size() != kRequests) {
            st.SkipWithError("a picture was not drawn");
            break;
        }
        st.SetIterationTime(std::accumulate(latencyMs.begin(), latencyMs.end(), 0.0) / 1e3);
        std::sort(latencySteps.begin(), latencySteps.end());
        std::sort(latencyMs.begin(), latencyMs.end());
        st.counters["requests"] = kRequests;
        st.counters["steps_max"] = latencySteps.back();
        st.counters["steps_median"] = latencySteps[kRequests / 2];
        st.counters["ms_median"] = latencyMs[kRequests / 2];
        st.counters["ms_max"] = latencyMs.back();
        st.counters["searched_pages"] = stepsAtEnd;
        if (stepsAtEnd >= kLongPages) st.SkipWithError("the search ended before the last request");
    }
}

void Export(benchmark::State& st) {
    if (!Ready(st)) return;
    for (auto _ : st) {
        OpenService open(Files().longDocument);
        std::vector<unsigned> pages(kLongPages);
        std::iota(pages.begin(), pages.end(), 0u);
        const fs::path out = Files().temp.File("export.pdf");
        const Clock::time_point start = Clock::now();
        const bool ok = open.service.ExportPagesTo(open.id, pages, out.string()).get();
        const double seconds = Seconds(start);
        st.SetIterationTime(seconds);
        if (!ok) {
            st.SkipWithError("the export failed");
            break;
        }
        st.counters["pages_per_s"] = kLongPages / seconds;
        st.counters["out_MiB"] = static_cast<double>(fs::file_size(out)) / (1 << 20);
        st.counters["in_MiB"] = static_cast<double>(fs::file_size(Files().longDocument)) / (1 << 20);
        fs::remove(out);
    }
}

void Import(benchmark::State& st) {
    if (!Ready(st)) return;
    for (auto _ : st) {
        OpenService open(Files().longDocument);
        const Orvane::int64 target = open.service.CreateDocument().get().id;
        const Clock::time_point start = Clock::now();
        open.service.ImportAllPages(open.id, target, -1).get();
        const double seconds = Seconds(start);
        const int count = open.service.GetPageCount(target);
        const fs::path out = Files().temp.File("import.pdf");
        const Clock::time_point saving = Clock::now();
        const bool saved = open.service.SaveDocumentAs(target, out.string()).get();
        const double saveSeconds = Seconds(saving);
        open.service.CloseDoument(target).get();
        st.SetIterationTime(seconds);
        if (count != kLongPages || !saved) {
            st.SkipWithError("the import or its save failed");
            break;
        }
        st.counters["pages_per_s"] = kLongPages / seconds;
        st.counters["save_ms"] = 1e3 * saveSeconds;
        st.counters["out_MiB"] = static_cast<double>(fs::file_size(out)) / (1 << 20);
        fs::remove(out);
    }
}

// One save takes some tens of milliseconds, which the other processes of a
// shared machine easily double: the median of several of each.
void SaveAsOutlined(benchmark::State& st) {
    if (!Ready(st)) return;
    constexpr int kSaves = 9;
    for (auto _ : st) {
        std::vector<double> inPlaceSeconds, asSeconds;
        bool saved = true;
        const fs::path out = Files().temp.File("outlined-copy.pdf");
        for (int i = 0; i < kSaves && saved; ++i) {
            const fs::path inPlace = Files().temp.File("in-place.pdf");
            fs::copy_file(Files().outlinedDocument, inPlace, fs::copy_options::overwrite_existing);
            OpenService reference(inPlace);
            Clock::time_point start = Clock::now();
            saved = reference.service.SaveDocument(reference.id).get();
            inPlaceSeconds.push_back(Seconds(start));

            OpenService open(Files().outlinedDocument);
            start = Clock::now();
            saved = open.service.SaveDocumentAs(open.id, out.string()).get() && saved;
            asSeconds.push_back(Seconds(start));
        }
        if (!saved) {
            st.SkipWithError("a save failed");
            break;
        }
        st.SetIterationTime(Median(asSeconds));
        st.counters["save_in_place_ms"] = 1e3 * Median(inPlaceSeconds);
        st.counters["out_MiB"] = static_cast<double>(fs::file_size(out)) / (1 << 20);
        fs::remove(out);
    }
}

double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void Idle(benchmark::State& st) {
    if (!Ready(st)) return;
    constexpr auto kQuiet = std::chrono::seconds(10);
    for (auto _ : st) {
        OpenService open(Files().longDocument);
        open.service.GeneratePageImage(open.id, 0, 600, 800).get();  // the worker has just worked
        const double cpuBefore = ProcessCpuSeconds();
        const Clock::time_point start = Clock::now();
        std::this_thread::sleep_for(kQuiet);
        const double wall = Seconds(start);
        const double cpu = ProcessCpuSeconds() - cpuBefore;
        st.SetIterationTime(wall);
        st.counters["cpu_ms"] = 1e3 * cpu;
        st.counters["core_percent"] = 100 * cpu / wall;
    }
}

[[maybe_unused]] const bool registered = [] {
    const std::pair<const char*, void (*)(benchmark::State&)> benchmarks[] = {
        {"Viewer/scroll_burst", ScrollBurst},     {"Viewer/open_100k_pages", OpenHuge},
        {"Viewer/image_during_search", ImageDuringSearch}, {"Viewer/export_1000_pages", Export},
        {"Viewer/import_1000_pages", Import},     {"Viewer/save_as_outlined", SaveAsOutlined},
        {"Viewer/idle", Idle}};
    for (const auto& [name, body] : benchmarks) {
        benchmark::RegisterBenchmark(name, body)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
    }
    return true;
}();

}  // namespace
}  // namespace QuirelleBench
