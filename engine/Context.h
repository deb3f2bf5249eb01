#pragma once

// MuPDF's contexts. One base context per process, made with locking callbacks
// and a counting allocator; every thread that uses the engine calls
// InitLibrary() and from then on works with its own clone of it
// (CurrentContext()). A document is only ever used with the context of the
// thread that opened it.

#include <chrono>
#include <cstddef>
#include <optional>

struct fz_context;

namespace Orvane::PDF::Pdfium {

class PdfiumInitializer {
public:
    static PdfiumInitializer& Instance();

    // Gives the calling thread its context (nested calls are counted).
    void InitLibrary();
    // Releases the calling thread's context once its calls are balanced; the
    // base context goes with the last thread. Release the thread's documents first.
    void Uninitialize();

    PdfiumInitializer(const PdfiumInitializer&) = delete;
    PdfiumInitializer& operator=(const PdfiumInitializer&) = delete;

private:
    PdfiumInitializer() = default;
};

// The calling thread's context. Throws std::logic_error when the thread has
// not called InitLibrary().
fz_context* CurrentContext();

// Held by every document: the engine stays initialised while one exists,
// even after the thread that opened it has let go of the engine.
class EngineReference {
public:
    EngineReference();
    ~EngineReference();
    EngineReference(const EngineReference&) = delete;
    EngineReference& operator=(const EngineReference&) = delete;
};

// A context for the calling thread for the scope: its own when it has one,
// else a clone made for the scope. For releasing what another thread made
// (an application may let go of a document long after its service is gone).
// The engine must be initialised somewhere (an EngineReference is held).
class ScopedContext {
public:
    ScopedContext();
    ~ScopedContext();
    ScopedContext(const ScopedContext&) = delete;
    ScopedContext& operator=(const ScopedContext&) = delete;
    fz_context* get() const { return ctx_; }

private:
    fz_context* ctx_;
};

// MuPDF takes a lock around every reference count, store and glyph-cache
// access: about a tenth of the time of a page drawn on one thread, for
// nothing while only one thread uses the engine, as a service's worker nearly
// always does. For the scope of a SoleUse made by the only thread holding a
// context, the locks are skipped; a thread that wants a context meanwhile
// waits for the scope to end. The scope must not run code that could wait
// for another thread to start using the engine (observers, callers' work),
// and it is made and ended outside any engine call.
class SoleUse {
public:
    SoleUse();
    ~SoleUse();
    SoleUse(const SoleUse&) = delete;
    SoleUse& operator=(const SoleUse&) = delete;

private:
    bool sole_ = false;
};

// Turns the locks back on for its scope when the calling thread is in a
// SoleUse: for handing work to helper threads with clones of its context.
// Made and ended outside any engine call.
class SharedUse {
public:
    SharedUse();
    ~SharedUse();
    SharedUse(const SharedUse&) = delete;
    SharedUse& operator=(const SharedUse&) = delete;

private:
    bool resume_ = false;
};

// The engine's side of Orvane::PDF::EngineLimits (see orvane/pdf/EngineLimits.h).
// Upper bound on the memory all of MuPDF's allocations may hold at once in
// this process; past it allocations fail and the engine call that made them
// throws. Takes effect at once.
size_t MemoryLimit();
size_t MemoryInUse();
// What one request may hold the worker for.
std::chrono::milliseconds TimeBudget();
// Memory for recorded pages (display lists); 0: no cache.
size_t PageCacheLimit();

// One request's budget on the calling thread. The outermost scope starts the
// clock with TimeBudget(); scopes made inside it join it. Once the budget is
// spent every engine allocation of the thread fails, so whatever MuPDF is
// doing ends with an error that the engine reports as the budget's
// (throwCaught). A single allocation above the request's block limit fails
// too: decoded images and streams cannot grow without bound.
class RequestBudget {
public:
    RequestBudget();
    // For a thread working for another thread's request (a band of its
    // picture): the request's deadline and block limit (Deadline(),
    // BlockLimit() there). Inside a budget of the calling thread, joins it.
    RequestBudget(std::chrono::steady_clock::time_point deadline, size_t blockLimit);
    ~RequestBudget();
    RequestBudget(const RequestBudget&) = delete;
    RequestBudget& operator=(const RequestBudget&) = delete;

    // Whether the calling thread's request has spent its budget.
    static bool Expired();
    // When the calling thread's request ends, if it runs in a budget.
    static std::optional<std::chrono::steady_clock::time_point> Deadline();
    // Raises the largest single allocation of the calling thread's request
    // (the default suits everything but drawing into big bitmaps).
    static void AllowBlocksOf(size_t bytes);
    // The calling thread's request's largest single allocation.
    static size_t BlockLimit();
    // How many allocations the calling thread's engine work went without so
    // far (refused by the budget or the memory limit, after whatever the
    // store could give up). MuPDF carries on after many failures inside a
    // page's content; a count that grew over a run tells that the run is
    // incomplete. Counts on every thread, in a budget or not.
    static size_t Refusals();
    // Work refused before MuPDF started it because no budget could see it end
    // (a drawing call whose size is known to be beyond bounds), counted for
    // the calling thread like Refusals().
    static void NoteRefusedWork();
    static size_t RefusedWork();
};

// A walk over every page ends with the request's budget, whatever each page
// costs: throws Orvane::Exception naming what once the budget is spent.
void ThrowIfBudgetSpent(const char* what);

// What the calling thread's engine work ran into from construction on.
class RunLimits {
public:
    RunLimits() : refusals_(RequestBudget::Refusals()), work_(RequestBudget::RefusedWork()) {}
    // An allocation was refused: what ran is incomplete.
    bool ShortOfMemory() const { return RequestBudget::Refusals() != refusals_; }
    bool WorkRefused() const { return RequestBudget::RefusedWork() != work_; }

private:
    size_t refusals_;
    size_t work_;
};

// Largest single allocation of a request unless raised: a decoded image or
// stream larger than this is refused.
constexpr size_t kDefaultBlockLimit = size_t(256) << 20;

// Size of the cache of decoded resources shared by all threads (applies to
// base contexts made afterwards).
constexpr size_t kStoreSize = 128u << 20;

}  // namespace Orvane::PDF::Pdfium
