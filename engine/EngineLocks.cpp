// MuPDF's locks, shared by the base context and its clones, and their
// elision while a single thread uses the engine (SoleUse).

#include <linux/futex.h>
#include <mupdf/fitz.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "engine/EngineState.h"

namespace Orvane::PDF::Pdfium {
namespace {

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

}  // namespace

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

SoleUse::SoleUse() {
    if (!threadHoldsContext()) return;
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
}  // namespace Orvane::PDF::Pdfium
