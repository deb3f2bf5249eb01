// MuPDF's allocator: counts what the engine holds, refuses to pass the
// memory limit or the request's budget, and decides when the store may
// scavenge after a refusal.

#include <mupdf/fitz.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "engine/EngineState.h"

namespace Orvane::PDF::Pdfium {
namespace {

std::atomic<size_t> memoryInUse{0};

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

// Each block carries its size and the room it has in a header, aligned for
// any type. The room is what is counted against the limit.
struct BlockHeader {
    size_t size;
    size_t room;
};
constexpr size_t kHeader = alignof(std::max_align_t);
static_assert(sizeof(BlockHeader) <= kHeader, "the header holds the size and the room");

BlockHeader* headerOf(void* ptr) {
    return reinterpret_cast<BlockHeader*>(static_cast<unsigned char*>(ptr) - kHeader);
}

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
    *reinterpret_cast<BlockHeader*>(block) = BlockHeader{size, size};
    return block + kHeader;
}

void countedFree(void*, void* ptr) {
    if (ptr == nullptr) return;
    BlockHeader* header = headerOf(ptr);
    memoryInUse.fetch_sub(header->room, std::memory_order_relaxed);
    std::free(header);
}

// A block grown by a little at a time (the engine's object tables grow by one
// entry per new object) gets room for the next growths: half its size again.
size_t roomFor(size_t old, size_t size) {
    if (size - old > old / 8 || old > (SIZE_MAX - kHeader) / 2) return size;
    return std::max(size, old + old / 2);
}

void* countedRealloc(void* user, void* ptr, size_t size) {
    if (ptr == nullptr) return countedMalloc(user, size);
    if (size == 0) {
        countedFree(user, ptr);
        return nullptr;
    }
    BlockHeader* header = headerOf(ptr);
    const size_t old = header->size;
    const size_t room = header->room;
    if (size > SIZE_MAX - kHeader) return nullptr;
    if (size > old && refusedByRequestNoted(size)) return nullptr;
    // Growing within the room it has: nothing moves.
    if (size >= old && size <= room) {
        header->size = size;
        return ptr;
    }
    size_t want = size > room ? roomFor(old, size) : size;
    if (want > room && !reserve(want - room)) {
        want = size;
        if (want > room && !reserve(want - room)) return refusedByLimit();
    }
    auto* grown = static_cast<unsigned char*>(std::realloc(header, want + kHeader));
    if (grown == nullptr) {
        if (want > room) memoryInUse.fetch_sub(want - room, std::memory_order_relaxed);
        return refusedByLimit();
    }
    if (want < room) memoryInUse.fetch_sub(room - want, std::memory_order_relaxed);
    *reinterpret_cast<BlockHeader*>(grown) = BlockHeader{size, want};
    return grown + kHeader;
}

}  // namespace

fz_alloc_context allocator{nullptr, countedMalloc, countedRealloc, countedFree};

size_t MemoryInUse() {
    return memoryInUse.load();
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
