#include "engine/Watchdog.h"

#include <mupdf/fitz.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "engine/Context.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Sleeps until the nearest deadline, aborts what has passed it, and starts
// only once the first deadline is registered.
class Watchdog {
public:
    static Watchdog& Instance() {
        static Watchdog watchdog;
        return watchdog;
    }

    std::mutex mutex;
    std::multimap<std::chrono::steady_clock::time_point, std::pair<fz_cookie*, bool*>> deadlines;  // guarded by mutex

    // Wakes the thread only for a deadline before the time it sleeps until:
    // one render after another would otherwise wake it for every page.
    void Add(std::chrono::steady_clock::time_point when, fz_cookie* cookie, bool* expired) {
        bool sooner = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            deadlines.emplace(when, std::make_pair(cookie, expired));
            if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
            sooner = when < wakeAt_;
        }
        if (sooner) changed_.notify_all();
    }

    void Remove(std::chrono::steady_clock::time_point when, fz_cookie* cookie) {
        std::lock_guard<std::mutex> lock(mutex);
        auto [first, last] = deadlines.equal_range(when);
        for (auto it = first; it != last; ++it) {
            if (it->second.first == cookie) {
                deadlines.erase(it);
                return;
            }
        }
    }

    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

private:
    void Run() {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping_) {
            const auto now = std::chrono::steady_clock::now();
            while (!deadlines.empty() && deadlines.begin()->first <= now) {
                auto [cookie, expired] = deadlines.begin()->second;
                // MuPDF polls the flag from the thread that draws.
                __atomic_store_n(&cookie->abort, 1, __ATOMIC_RELEASE);
                *expired = true;
                deadlines.erase(deadlines.begin());
            }
            // Entries removed meanwhile leave the time as it is: waking then
            // finds nothing due and sleeps on.
            if (deadlines.empty()) {
                wakeAt_ = std::chrono::steady_clock::time_point::max();
                changed_.wait(lock);
            } else {
                wakeAt_ = deadlines.begin()->first;
                changed_.wait_until(lock, wakeAt_);
            }
        }
    }

    std::condition_variable changed_;
    std::thread thread_;     // guarded by mutex
    bool stopping_ = false;  // guarded by mutex
    // When the thread wakes next; never after the earliest deadline. Guarded by mutex.
    std::chrono::steady_clock::time_point wakeAt_ = std::chrono::steady_clock::time_point::max();
};

}  // namespace

std::chrono::milliseconds PageTimeBudget() {
    return TimeBudget();
}

Deadline::Deadline(fz_cookie& cookie, std::chrono::milliseconds budget)
    : cookie_(cookie), when_(std::chrono::steady_clock::now() + budget) {
    if (const auto request = RequestBudget::Deadline()) when_ = std::min(when_, *request);
    if (budget.count() <= 0 || RequestBudget::Expired()) {
        cookie_.abort = 1;
        expired_ = true;
        return;
    }
    Watchdog::Instance().Add(when_, &cookie_, &expired_);
    registered_ = true;
}

Deadline::~Deadline() {
    // Gone already when the watchdog fired; removing is then a no-op.
    if (registered_) Watchdog::Instance().Remove(when_, &cookie_);
}

bool Deadline::Expired() const {
    // The clock as well: the watchdog may wake a little after the deadline.
    if (std::chrono::steady_clock::now() >= when_) return true;
    std::lock_guard<std::mutex> lock(Watchdog::Instance().mutex);
    return expired_;
}

}  // namespace Orvane::PDF::Pdfium
