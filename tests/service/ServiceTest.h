#pragma once

// Support for tests of the service: a fixture owning a Quirelle, files built
// in code, a clock that holds the worker and counts its passes, and an
// observer that records what it hears.

#include <gtest/gtest.h>

#include <Quirelle>
#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {

using namespace Orvane::PDF;
constexpr auto kTimeout = std::chrono::seconds(60);
constexpr int64_t kNotOpen = 1'000'000;  // a document id no test opens

// The future's value; fails the test (and throws) if it does not come in time.
template <class T>
T Await(std::future<T>&& future) {
    if (future.wait_for(kTimeout) != std::future_status::ready) {
        ADD_FAILURE() << "timed out waiting for the worker";
        throw std::runtime_error("timeout");
    }
    return future.get();
}

template <class T>
bool IsReady(const std::future<T>& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

inline std::array<double, 4> Sides(const Rect& r) {
    return {r.left, r.top, r.right, r.bottom};
}

// Expects the future's work to have been dropped unrun.
template <class T>
void ExpectBroken(std::future<T>& future) {
    try {
        future.get();
        ADD_FAILURE() << "dropped work ran";
    } catch (const std::future_error& e) {
        EXPECT_EQ(e.code(), std::future_errc::broken_promise);
    }
}

class ServiceTest : public ::testing::Test {
protected:
    int64_t Open(const std::filesystem::path& path, const std::string& password = "") {
        const IPDFProvider::OpenDocInfo info = Await(service->OpenDocument(path.string(), password));
        EXPECT_NE(info.id, -1) << path;
        return info.id;
    }
    // A file of count pages, each with "Page N" at (72, 720).
    std::filesystem::path NumberedPdf(int count, const std::string& name = "numbered.pdf") {
        const auto path = temp.File(name);
        PdfBuilder().AddNumberedPages(count).Save(path);
        return path;
    }
    int64_t OpenNumbered(int count) { return Open(NumberedPdf(count, "numbered" + std::to_string(count) + ".pdf")); }
    // Runs work on the worker with the document (ExecuteWithDocument).
    std::future<void> WithDocument(int64_t id, std::function<void(std::shared_ptr<IDocument>&)> work) {
        std::packaged_task<void(std::shared_ptr<IDocument>&)> task(std::move(work));
        auto done = task.get_future();
        service->ExecuteWithDocument(id, std::move(task));
        return done;
    }

    TempDir temp;
    std::unique_ptr<Quirelle> service = std::make_unique<Quirelle>(nullptr);
};

// Holds the worker inside the callback of a search over a document with many
// pages. After Release() the search advances one page per worker pass, so each
// later callback marks the end of the work of one pass (the search step comes
// after every other kind of work but closing); onPass(n) runs on the worker
// in pass n (1, 2, ...).
//
// Work queued while the worker is held is served from pass 1 on, except a
// close: the held pass still has its close step ahead. OccupyCloseStep()
// queues the close of an id that is not open, which takes that step, so that
// closes queued after it wait for pass 1 like everything else.
class PassClock {
public:
    PassClock(IPDFProvider& service, int64_t doc, std::function<void(int)> onPass = nullptr);
    // Stops the clock and waits for a callback in flight: a search's callback
    // may still arrive after StopSearch returns.
    ~PassClock();
    void Release();
    void OccupyCloseStep() { service_.CloseDoument(kNotOpen); }
    // Waits until pass n has reached its search step.
    void WaitForPass(int n);
    // Forget the service (after it was destroyed): the destructor then leaves it alone.
    void Detach() { detached_ = true; }

private:
    // Shared with the search's callback, which may outlive this object.
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::function<void(int)> onPass;
        bool held = false;
        bool released = false;
        bool finished = false;  // no more onPass calls
        bool busy = false;      // an onPass call is running
        int passes = 0;
    };
    IPDFProvider& service_;
    std::shared_ptr<State> state_ = std::make_shared<State>();
    int64_t searchId_ = -1;
    bool detached_ = false;
};

// Items added on any thread, read by the test.
template <class T>
class Recorded {
public:
    // The lock is the last thing touched: a waiting test may destroy the owner once woken.
    void Add(T item) {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(item));
        changed_.notify_all();
    }
    // Waits until there are at least n.
    std::vector<T> WaitFor(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, kTimeout, [&] { return items_.size() >= n; })) ADD_FAILURE() << "too few";
        return items_;
    }
    std::vector<T> All() { return WaitFor(0); }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<T> items_;
};

// Records the answers to asynchronous requests.
class RecordingObserver : public IPageInfoObserver {
public:
    struct Info {
        int64_t doc;
        unsigned page;
        Size size;
        IPage::Rotation rotation;
        Rect rect;
    };
    struct Image {
        int64_t doc;
        unsigned page;
        ViewType viewType;
        QImage image;
    };

    void OnPageInfo(int64_t doc, unsigned page, const Size& size, const IPage::Rotation& rotation,
                    const Rect& rect) override {
        if (onAnswer) onAnswer();
        infos.Add({doc, page, size, rotation, rect});
    }
    void OnPageImage(int64_t doc, unsigned page, ViewType viewType, const QImage& image) override {
        if (onAnswer) onAnswer();
        images.Add({doc, page, viewType, image});
    }

    std::function<void()> onAnswer;  // runs on the worker before each answer is recorded
    Recorded<Info> infos;
    Recorded<Image> images;
};

// Records the tiles the service answers.
class TileRecorder : public ITileObserver {
public:
    struct Tile {
        int64_t doc;
        unsigned page;
        Rect region;
        QImage image;
    };
    void OnTile(int64_t doc, unsigned page, const Rect& region, double, IPageInfoObserver::ViewType,
                const QImage& tile) override {
        tiles.Add({doc, page, region, tile});
    }
    Recorded<Tile> tiles;
};

}  // namespace QuirelleTest
