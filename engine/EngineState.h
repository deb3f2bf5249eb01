#pragma once

// What the engine's limits, its counting allocator, its lock callbacks and
// its contexts share (Limits.cpp, Allocator.cpp, EngineLocks.cpp,
// Context.cpp). Nothing else includes it.

#include <mupdf/fitz.h>

#include <atomic>
#include <chrono>
#include <cstddef>

#include "engine/Context.h"

namespace Orvane::PDF::Pdfium {

// ---- the calling thread's request ----

struct RequestState {
    int depth = 0;  // nested RequestBudget scopes
    std::chrono::steady_clock::time_point deadline;
    size_t blockLimit = kDefaultBlockLimit;
    unsigned allocations = 0;
    bool expired = false;
};
inline thread_local RequestState request;

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
inline thread_local ThreadEngineState engineState;

// The process's memory limit (Limits.cpp).
extern std::atomic<size_t> memoryLimit;
// The environment replaces the limits' defaults, once (Limits.cpp).
void readEnvironment();
// MuPDF's allocator, counting (Allocator.cpp).
extern fz_alloc_context allocator;
// MuPDF's lock callbacks (EngineLocks.cpp).
extern fz_locks_context locks;
// A thread about to take a context waits for any sole use to end and is
// counted; one that lets go of its context is counted out (EngineLocks.cpp).
void joinEngineUsers();
void leaveEngineUsers();
// Whether the calling thread holds its context (Context.cpp).
bool threadHoldsContext();

}  // namespace Orvane::PDF::Pdfium
