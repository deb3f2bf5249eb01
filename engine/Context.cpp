#include "engine/Context.h"

#include <glog/logging.h>
#include <linux/futex.h>
#include <mupdf/fitz.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "orvane/pdf/EngineLimits.h"

namespace Orvane::PDF::Pdfium {
namespace {

// ---- limits ----

std::atomic<long long> timeBudgetMs{5000};
std::atomic<size_t> memoryLimit{size_t(1) << 30};
std::atomic<size_t> pageCacheLimit{size_t(64) << 20};
std::atomic<size_t> memoryInUse{0};

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

// ---- the calling thread's request ----

struct RequestState {
    int depth = 0;  // nested RequestBudget scopes
    std::chrono::steady_clock::time_point deadline;
    size_t blockLimit = kDefaultBlockLimit;
    unsigned allocations = 0;
    bool expired = false;
};
thread_local RequestState request;

// Why the thread's latest allocation was refused.
enum class Refusal : unsigned char {
    Request,  // the request's budget is spent or the block is above its block limit
    Limit,    // the process's memory limit (or the system) has no room
};

// What the calling thread's engine work ran into. Read and written by the
// thread alone: the allocator, the lock callbacks and the store's scavenging
// all run on the thread that allocates.
struct ThreadEngineState {
    Refusal lastRefusal = Refusal::Limit;
    // MuPDF's FreeType and glyph-cache locks the thread holds now (a bit each).
    unsigned heldLocks = 0;
    // Allocations MuPDF finally went without (after scavenging, if any).
    size_t refusals = 0;
    size_t refusedWork = 0;  // RequestBudget::NoteRefusedWork
};
thread_local ThreadEngineState engineState;

// Whether an allocation of size must fail for the thread's request. The clock
// is read every few allocations only: MuPDF allocates a lot, in small pieces.
bool refusedByRequest(size_t size) {
    RequestState& r = request;
    if (r.depth == 0) return false;
    if (size > r.blockLimit) return true;
    if (!r.expired && (++r.allocations & 15u) == 0 && std::chrono::steady_clock::now() >= r.deadline) r.expired = true;
    return r.expired;
}

bool refusedByRequestNoted(size_t size) {
    if (!refusedByRequest(size)) return false;
    engineState.lastRefusal = Refusal::Request;
    return true;
}

// ---- allocator: counts what MuPDF holds and refuses to pass the limit ----

// Each block carries its size in a header, aligned for any type.
constexpr size_t kHeader = alignof(std::max_align_t);

bool reserve(size_t bytes) {
    // Optimistic: count first, give back if that passed the limit.
    const size_t before = memoryInUse.fetch_add(bytes, std::memory_order_relaxed);
    if (before + bytes < before || before + bytes > memoryLimit.load(std::memory_order_relaxed)) {
        memoryInUse.fetch_sub(bytes, std::memory_order_relaxed);
        return false;
    }
    return true;
}

void* refusedByLimit() {
    engineState.lastRefusal = Refusal::Limit;
    return nullptr;
}

void* countedMalloc(void*, size_t size) {
    if (size > SIZE_MAX - kHeader || refusedByRequestNoted(size)) return nullptr;
    if (!reserve(size)) return refusedByLimit();
    auto* block = static_cast<unsigned char*>(std::malloc(size + kHeader));
    if (block == nullptr) {
        memoryInUse.fetch_sub(size, std::memory_order_relaxed);
        return refusedByLimit();
    }
    *reinterpret_cast<size_t*>(block) = size;
    return block + kHeader;
}

void countedFree(void*, void* ptr) {
    if (ptr == nullptr) return;
    auto* block = static_cast<unsigned char*>(ptr) - kHeader;
    memoryInUse.fetch_sub(*reinterpret_cast<size_t*>(block), std::memory_order_relaxed);
    std::free(block);
}

void* countedRealloc(void* user, void* ptr, size_t size) {
    if (ptr == nullptr) return countedMalloc(user, size);
    if (size == 0) {
        countedFree(user, ptr);
        return nullptr;
    }
    auto* block = static_cast<unsigned char*>(ptr) - kHeader;
    const size_t old = *reinterpret_cast<size_t*>(block);
    if (size > SIZE_MAX - kHeader) return nullptr;
    if (size > old && refusedByRequestNoted(size)) return nullptr;
    if (size > old && !reserve(size - old)) return refusedByLimit();
    auto* grown = static_cast<unsigned char*>(std::realloc(block, size + kHeader));
    if (grown == nullptr) {
        if (size > old) memoryInUse.fetch_sub(size - old, std::memory_order_relaxed);
        return refusedByLimit();
    }
    if (size < old) memoryInUse.fetch_sub(old - size, std::memory_order_relaxed);
    *reinterpret_cast<size_t*>(grown) = size;
    return grown + kHeader;
}

fz_alloc_context allocator{nullptr, countedMalloc, countedRealloc, countedFree};

// ---- locks shared by the base context and its clones ----

// Tells the processor that this is a spin-wait loop.
inline void spinPause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// MuPDF takes these around every reference count, store and glyph-cache
// access: tens of thousands of times a page, nearly always uncontended. The
// free path is one atomic operation each way; a taken lock is spun on
// briefly (holders keep it for a few instructions), then waited for on a
// futex. The state: 0 free, 1 held, 2 held with waiters that need a wake-up.
class alignas(64) EngineLock {
public:
    void lock() noexcept {
        int expected = 0;
        if (!state_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            Wait();
        }
    }
    void unlock() noexcept {
        if (state_.exchange(0, std::memory_order_release) == 2) {
            syscall(SYS_futex, Address(), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
        }
    }

private:
    static constexpr int kSpins = 100;

    void Wait() noexcept {
        for (int i = 0; i < kSpins; ++i) {
            spinPause();
            int expected = 0;
            if (state_.load(std::memory_order_relaxed) == 0 &&
                state_.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
        }
        // Marked as waited for, whoever holds it wakes one waiter on release;
        // a waiter that wins takes it as 2, since others may still wait.
        while (state_.exchange(2, std::memory_order_acquire) != 0) {
            syscall(SYS_futex, Address(), FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
        }
    }
    int* Address() noexcept { return reinterpret_cast<int*>(&state_); }

    std::atomic<int> state_{0};
    static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free,
                  "the futex works on the atomic's own int");
};

std::array<EngineLock, FZ_LOCK_MAX> engineLocks;

// Off only while one thread uses the engine (SoleUse). Changed only by that
// thread, outside engine calls; other threads see it through soleMutex.
std::atomic<bool> locksOff{false};

// The allocation lock is taken around every allocation and reference count
// and is never held while MuPDF allocates on its own account (its allocator
// takes it itself); only the others are noted, whether locks are on or off.
void lockEngine(void*, int lock) {
    if (!locksOff.load(std::memory_order_relaxed)) engineLocks[lock].lock();
    if (lock != FZ_LOCK_ALLOC) engineState.heldLocks |= 1u << lock;
}
void unlockEngine(void*, int lock) {
    if (lock != FZ_LOCK_ALLOC) engineState.heldLocks &= ~(1u << lock);
    if (!locksOff.load(std::memory_order_relaxed)) engineLocks[lock].unlock();
}

// ---- sole use ----

std::mutex soleMutex;
// Never destroyed: a document in static storage may be let go of at exit.
std::condition_variable& soleEnded = *new std::condition_variable;
int contextThreads = 0;     // threads holding a context (InitLibrary); guarded by soleMutex
int waitingThreads = 0;     // threads waiting for a sole use to end; guarded by soleMutex
std::thread::id soleThread;  // the thread in a sole use, if any; guarded by soleMutex

// A thread about to take a context: after any sole use, and counted.
void joinEngineUsers() {
    std::unique_lock<std::mutex> lock(soleMutex);
    ++waitingThreads;
    soleEnded.wait(lock, [] { return soleThread == std::thread::id(); });
    --waitingThreads;
    ++contextThreads;
}

void leaveEngineUsers() {
    std::lock_guard<std::mutex> lock(soleMutex);
    --contextThreads;
}

fz_locks_context locks{nullptr, lockEngine, unlockEngine};

// MuPDF reports recoverable problems of damaged files as warnings; they are
// diagnostics, not errors of the caller's.
void logWarning(void*, const char* message) {
    VLOG(1) << "engine: " << message;
}
void logError(void*, const char* message) {
    VLOG(1) << "engine error: " << message;
}

// ---- the base context and the threads' clones ----

std::mutex baseMutex;
fz_context* baseContext = nullptr;  // guarded by baseMutex
int baseUsers = 0;                  // threads holding a clone and documents; guarded by baseMutex

struct ThreadContext {
    fz_context* ctx = nullptr;
    int initCalls = 0;
};
thread_local ThreadContext threadContext;

fz_context* makeBaseContext() {
    fz_context* ctx = fz_new_context(&allocator, &locks, kStoreSize);
    if (ctx == nullptr) throw std::runtime_error("cannot create the PDF engine's context");
    fz_set_warning_callback(ctx, logWarning, nullptr);
    fz_set_error_callback(ctx, logError, nullptr);
    // Registering handlers and installing the font loader allocate; a failure
    // there leaves a context that cannot open anything, so give it up.
    try {
        guarded(ctx, [&] {
            fz_register_document_handlers(ctx);
            installSystemFontLoader(ctx);
        });
    } catch (const std::exception& e) {
        fz_drop_context(ctx);
        throw std::runtime_error(std::string("cannot initialise the PDF engine: ") + e.what());
    }
    return ctx;
}

}  // namespace

PdfiumInitializer& PdfiumInitializer::Instance() {
    static PdfiumInitializer instance;
    return instance;
}

void PdfiumInitializer::InitLibrary() {
    if (threadContext.initCalls++ > 0) return;
    readEnvironment();
    joinEngineUsers();
    std::lock_guard<std::mutex> lock(baseMutex);
    try {
        if (baseContext == nullptr) baseContext = makeBaseContext();
        fz_context* clone = fz_clone_context(baseContext);
        if (clone == nullptr) throw std::runtime_error("cannot clone the PDF engine's context");
        threadContext.ctx = clone;
        ++baseUsers;
    } catch (...) {
        threadContext.initCalls = 0;
        if (baseUsers == 0 && baseContext != nullptr) {
            fz_drop_context(std::exchange(baseContext, nullptr));
        }
        leaveEngineUsers();
        throw;
    }
}

void PdfiumInitializer::Uninitialize() {
    if (threadContext.initCalls == 0 || --threadContext.initCalls > 0) return;
    fz_drop_context(std::exchange(threadContext.ctx, nullptr));
    {
        std::lock_guard<std::mutex> lock(baseMutex);
        if (--baseUsers == 0) fz_drop_context(std::exchange(baseContext, nullptr));
    }
    leaveEngineUsers();
}

SoleUse::SoleUse() {
    if (threadContext.ctx == nullptr) return;
    std::lock_guard<std::mutex> lock(soleMutex);
    if (contextThreads != 1 || waitingThreads != 0 || soleThread != std::thread::id()) return;
    soleThread = std::this_thread::get_id();
    locksOff.store(true, std::memory_order_relaxed);
    sole_ = true;
}

SoleUse::~SoleUse() {
    if (!sole_) return;
    {
        std::lock_guard<std::mutex> lock(soleMutex);
        locksOff.store(false, std::memory_order_relaxed);
        soleThread = std::thread::id();
    }
    soleEnded.notify_all();
}

SharedUse::SharedUse() {
    std::lock_guard<std::mutex> lock(soleMutex);
    if (soleThread != std::this_thread::get_id()) return;
    locksOff.store(false, std::memory_order_relaxed);
    resume_ = true;
}

SharedUse::~SharedUse() {
    if (!resume_) return;
    std::lock_guard<std::mutex> lock(soleMutex);
    locksOff.store(true, std::memory_order_relaxed);
}

EngineReference::EngineReference() {
    std::lock_guard<std::mutex> lock(baseMutex);
    if (baseContext == nullptr) throw std::logic_error("the PDF engine is not initialised");
    ++baseUsers;
}

EngineReference::~EngineReference() {
    std::lock_guard<std::mutex> lock(baseMutex);
    if (--baseUsers == 0) fz_drop_context(std::exchange(baseContext, nullptr));
}

ScopedContext::ScopedContext() {
    PdfiumInitializer::Instance().InitLibrary();
    ctx_ = threadContext.ctx;
}

ScopedContext::~ScopedContext() {
    PdfiumInitializer::Instance().Uninitialize();
}

fz_context* CurrentContext() {
    if (threadContext.ctx == nullptr) {
        throw std::logic_error("the PDF engine is not initialised on this thread");
    }
    return threadContext.ctx;
}

size_t MemoryLimit() {
    readEnvironment();
    return memoryLimit.load();
}
size_t MemoryInUse() {
    return memoryInUse.load();
}
std::chrono::milliseconds TimeBudget() {
    readEnvironment();
    return std::chrono::milliseconds(timeBudgetMs.load());
}
size_t PageCacheLimit() {
    readEnvironment();
    return pageCacheLimit.load();
}

RequestBudget::RequestBudget() {
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

// ---- the store's scavenging ----
//
// When an allocation is refused, MuPDF's allocator asks the store to evict
// cached resources and tries again, until the store has nothing left to give.
// Evicting drops resources outside the allocation lock, and a dropped font
// takes the FreeType lock to free its face (directly, or as the last holder
// of a tile, an image or a font description). A thread refused while it held
// the FreeType or the glyph-cache lock (FreeType allocating as it loads or
// renders a glyph, the glyph cache growing) would then wait for itself for
// ever; with the locks off it would re-enter FreeType in the middle of one of
// its own calls. Both locks are always taken before the allocation lock, so
// no other order can close a cycle through the scavenging.
//
// The allocator is linked through this function (-Wl,--wrap, see
// CMakeLists.txt), which refuses to scavenge
// - for a refusal of the request's (its budget is spent, or the block is above
//   its block limit): no eviction lets that allocation pass, and a spent budget
//   refuses every allocation, so scavenging would only empty the store, once
//   per allocation, for nothing;
// - while the thread holds MuPDF's FreeType or glyph-cache lock: the
//   allocation fails as if the store were empty, and MuPDF leaves the lock
//   through its own error handling, as for any allocation that fails there.
// A refusal of the memory limit with no such lock held scavenges as MuPDF
// would. Every allocation that fails in the end is counted for the thread
// (RequestBudget::Refusals), so that work MuPDF carried on with after a
// failure it swallowed is known to be incomplete.

extern "C" {
int __real_fz_store_scavenge(fz_context* ctx, size_t size, int* phase);

int __wrap_fz_store_scavenge(fz_context* ctx, size_t size, int* phase) {
    using namespace Orvane::PDF::Pdfium;
    ThreadEngineState& state = engineState;
    if (state.lastRefusal == Refusal::Limit && state.heldLocks == 0 && __real_fz_store_scavenge(ctx, size, phase)) {
        return 1;
    }
    ++state.refusals;
    return 0;
}
}  // extern "C"

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
