// The engine's limits (defaults, the environment, EngineLimits) and the
// calling thread's request budget.

#include <glog/logging.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

#include "engine/EngineState.h"
#include "orvane/Exception.h"
#include "orvane/pdf/EngineLimits.h"

namespace Orvane::PDF::Pdfium {

std::atomic<size_t> memoryLimit{size_t(1) << 30};

namespace {

// ---- limits ----

std::atomic<long long> timeBudgetMs{5000};
std::atomic<size_t> pageCacheLimit{size_t(64) << 20};

// A positive whole number from the environment, or nothing.
std::optional<long long> fromEnvironment(const char* name) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < 0) {
        LOG(WARNING) << "ignoring " << name << "=" << text << ": not a whole number of at least 0";
        return std::nullopt;
    }
    return value;
}

}  // namespace

// The environment replaces the defaults, once, before any other use.
void readEnvironment() {
    static std::once_flag once;
    std::call_once(once, [] {
        constexpr long long kMaxMegabytes = (std::numeric_limits<long long>::max() >> 20) - 1;
        if (auto ms = fromEnvironment("QUIRELLE_TIME_BUDGET_MS")) timeBudgetMs = *ms;
        if (auto mb = fromEnvironment("QUIRELLE_MEMORY_LIMIT_MB")) memoryLimit = size_t(std::min(*mb, kMaxMegabytes)) << 20;
        if (auto mb = fromEnvironment("QUIRELLE_PAGE_CACHE_MB")) pageCacheLimit = size_t(std::min(*mb, kMaxMegabytes)) << 20;
    });
}

size_t MemoryLimit() {
    readEnvironment();
    return memoryLimit.load();
}
std::chrono::milliseconds TimeBudget() {
    readEnvironment();
    return std::chrono::milliseconds(timeBudgetMs.load());
}
size_t PageCacheLimit() {
    readEnvironment();
    return pageCacheLimit.load();
}RequestBudget::RequestBudget() {
    RequestState& r = request;
    if (r.depth++ > 0) return;
    r.deadline = std::chrono::steady_clock::now() + TimeBudget();
    r.blockLimit = kDefaultBlockLimit;
    r.allocations = 0;
    r.expired = TimeBudget().count() <= 0;
}

RequestBudget::RequestBudget(std::chrono::steady_clock::time_point deadline, size_t blockLimit) {
    RequestState& r = request;
    if (r.depth++ > 0) return;
    r.deadline = deadline;
    r.blockLimit = blockLimit;
    r.allocations = 0;
    r.expired = std::chrono::steady_clock::now() >= deadline;
}

size_t RequestBudget::BlockLimit() {
    return request.depth > 0 ? request.blockLimit : kDefaultBlockLimit;
}

RequestBudget::~RequestBudget() {
    if (--request.depth == 0) request.expired = false;
}

bool RequestBudget::Expired() {
    RequestState& r = request;
    if (r.depth == 0) return false;
    if (!r.expired && std::chrono::steady_clock::now() >= r.deadline) r.expired = true;
    return r.expired;
}

std::optional<std::chrono::steady_clock::time_point> RequestBudget::Deadline() {
    if (request.depth == 0) return std::nullopt;
    return request.deadline;
}

void RequestBudget::AllowBlocksOf(size_t bytes) {
    if (request.depth > 0) request.blockLimit = std::max(request.blockLimit, bytes);
}

void ThrowIfBudgetSpent(const char* what) {
    if (RequestBudget::Expired()) {
        throw Orvane::Exception(std::string(what) + " ran past the time budget of " +
                                std::to_string(TimeBudget().count()) + " ms");
    }
}

size_t RequestBudget::Refusals() {
    return engineState.refusals;
}

void RequestBudget::NoteRefusedWork() {
    ++engineState.refusedWork;
}

size_t RequestBudget::RefusedWork() {
    return engineState.refusedWork;
}

}  // namespace Orvane::PDF::Pdfium

namespace Orvane::PDF {

void SetEngineLimits(const EngineLimits& limits) {
    Pdfium::readEnvironment();
    Pdfium::timeBudgetMs = limits.timeBudget.count();
    Pdfium::memoryLimit = limits.memoryLimitBytes;
    Pdfium::pageCacheLimit = limits.pageCacheBytes;
}

EngineLimits GetEngineLimits() {
    EngineLimits limits;
    limits.timeBudget = Pdfium::TimeBudget();
    limits.memoryLimitBytes = Pdfium::MemoryLimit();
    limits.pageCacheBytes = Pdfium::PageCacheLimit();
    return limits;
}

}  // namespace Orvane::PDF
