// Eight caller threads issue mixed requests against several documents for a
// bounded time (QUIRELLE_LOAD_SECONDS, default 3): no request hangs, every
// future resolves or reports broken promise once the service is gone, no
// observer hears anything after it was unregistered, and memory settles.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "fuzz/FuzzSupport.h"
#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using Clock = std::chrono::steady_clock;

// Counts what it hears after it was unregistered.
class WatchedObserver : public IPageInfoObserver {
public:
    void OnPageInfo(int64_t, unsigned, const Size&, const IPage::Rotation&, const Rect&) override { Heard(); }
    void OnPageImage(int64_t, unsigned, ViewType, const QImage&) override { Heard(); }
    void Heard() { late += gone.load(); }
    std::atomic<bool> gone{false};
    std::atomic<int> late{0};
};

// Resident memory of this process in MiB.
long ResidentMiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6) / 1024;
    return 0;
}

// Whether the future settled within the wait: to a value, an error of the
// request or, once the service is gone, a broken promise.
template <class T>
bool Settled(std::future<T>& future, std::chrono::seconds wait) {
    if (future.wait_for(wait) != std::future_status::ready) return false;
    try {
        future.get();
    } catch (...) {
    }
    return true;
}

class Caller {
public:
    Caller(Quirelle& service, const std::vector<int64_t>& docs, const std::vector<std::filesystem::path>& files,
           const std::filesystem::path& saveTo, unsigned seed)
        : service_(service), docs_(docs), files_(files), saveTo_(saveTo), random_(seed) {}

    void Run(Clock::time_point until) {
        while (Clock::now() < until) Step();
        service_.UnregisterEventHandler(&observer_);
        observer_.gone = true;
    }
    std::vector<std::function<bool(std::chrono::seconds)>> pending;  // each answers Settled
    WatchedObserver observer_;
    int hung = 0;

private:
    unsigned Pick(unsigned n) { return random_() % n; }
    template <class T>
    void Keep(std::future<T> future) {
        auto kept = std::make_shared<std::future<T>>(std::move(future));
        pending.push_back([kept](std::chrono::seconds wait) { return Settled(*kept, wait); });
    }

    void Step() {
        const int64_t id = docs_[Pick(unsigned(docs_.size()))];
        const unsigned page = Pick(4);
        switch (Pick(10)) {
        case 0: Keep(service_.GeneratePageImage(id, page, 64, 48)); break;
        case 1:
            service_.GeneratePageImageAsync(id, page, 32, 32, IPageInfoObserver::ViewType(Pick(3)));
            if (Pick(2)) service_.CancelAsyncTasks(id, page, IPageInfoObserver::ViewType(Pick(3)));
            service_.GetPageInfoAsync(id, page, IPageInfoObserver::ViewType(0));
            break;
        case 2: {
            const int64_t search = service_.SearchInDocument(id, 0, L"page", [](unsigned, const auto&, const auto&) {});
            if (Pick(2)) std::this_thread::yield();
            service_.StopSearch(search);
            break;
        }
        case 3:
            Keep(service_.AddBlankPage(id, page, 100, 100));
            Keep(service_.DeletePages(id, {page}));
            break;
        case 4: Keep(service_.RotatePage(id, page, IPDFProvider::PageRotation(Pick(3)))); break;
        case 5: Keep(service_.SaveDocumentAs(id, saveTo_)); break;
        case 6: {
            auto open = service_.OpenDocument(files_[Pick(unsigned(files_.size()))], "");
            try {
                const int64_t opened = open.get().id;
                Keep(service_.GeneratePageImage(opened, 0, 16, 16));
                Keep(service_.CloseDoument(opened));
            } catch (...) {
            }
            break;
        }
        case 7:
            try {
                service_.GetPageTextObject(id, page).get();
                service_.GetPageObjectBounds(id, page, 100, 700, 1).get();
            } catch (...) {
            }
            break;
        case 8:
            if (Pick(2)) {
                service_.RegisterEventHandler(&observer_);
            } else {
                service_.UnregisterEventHandler(&observer_);
            }
            break;
        case 9: Keep(service_.ImportPages(id, docs_[0], {page}, 0)); break;
        }
        if (pending.size() < 24) return;
        for (auto& settled : pending) hung += !settled(kTimeout);
        pending.clear();
    }

    Quirelle& service_;
    const std::vector<int64_t>& docs_;
    const std::vector<std::filesystem::path>& files_;
    std::filesystem::path saveTo_;
    std::mt19937 random_;
};

TEST(Load, EightCallersOfMixedRequests) {
    const char* seconds = std::getenv("QUIRELLE_LOAD_SECONDS");
    const auto length = std::chrono::milliseconds(seconds ? std::atoi(seconds) * 1000 : 3000);
    TempDir temp;
    std::vector<std::filesystem::path> files;
    const std::vector<std::string> fixtures = QuirelleFuzz::FixtureDocuments();
    for (size_t i = 0; i < 3; ++i) {
        files.push_back(temp.File("doc" + std::to_string(i) + ".pdf"));
        WriteFile(files.back(), fixtures[i]);
    }
    auto service = std::make_unique<Quirelle>(nullptr);
    std::vector<int64_t> docs;
    for (const auto& file : files) docs.push_back(Await(service->OpenDocument(file, "")).id);

    std::vector<std::unique_ptr<Caller>> callers;
    long rssAfterHalf = 0;
    for (int half = 0; half < 2; ++half) {
        callers.clear();
        for (unsigned i = 0; i < 8; ++i) {
            callers.push_back(std::make_unique<Caller>(*service, docs, files,
                                                       temp.File("save" + std::to_string(i) + ".pdf"), i + 8 * half));
        }
        const Clock::time_point until = Clock::now() + length / 2;
        std::vector<std::thread> threads;
        for (auto& caller : callers) threads.emplace_back([&caller, until] { caller->Run(until); });
        for (auto& thread : threads) thread.join();
        for (auto& caller : callers) {
            EXPECT_EQ(caller->hung, 0);
            EXPECT_EQ(caller->observer_.late.load(), 0);
        }
        if (half == 0) rssAfterHalf = ResidentMiB();
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The second half of the run keeps what the first one needed, no more.
    EXPECT_LT(ResidentMiB() - rssAfterHalf, 64) << "MiB more after the second half";
#endif
    // What the last steps left queued ends with the service.
    service.reset();
    for (auto& caller : callers) {
        EXPECT_EQ(caller->observer_.late.load(), 0);
        for (auto& settled : caller->pending) EXPECT_TRUE(settled(std::chrono::seconds(0)));
    }
}

}  // namespace
}  // namespace QuirelleTest
