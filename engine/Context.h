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
};

// Largest single allocation of a request unless raised: a decoded image or
// stream larger than this is refused.
constexpr size_t kDefaultBlockLimit = size_t(256) << 20;

// Size of the cache of decoded resources shared by all threads (applies to
// base contexts made afterwards).
constexpr size_t kStoreSize = 128u << 20;

}  // namespace Orvane::PDF::Pdfium
