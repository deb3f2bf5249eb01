#pragma once

// MuPDF's contexts. One base context per process, made with locking callbacks
// and a counting allocator; every thread that uses the engine calls
// InitLibrary() and from then on works with its own clone of it
// (CurrentContext()). A document is only ever used with the context of the
// thread that opened it.

#include <cstddef>

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

// Upper bound on the memory all of MuPDF's allocations may hold at once in
// this process; past it allocations fail and the engine call that made them
// throws. Takes effect at once.
void SetMemoryLimit(size_t bytes);
size_t MemoryLimit();
size_t MemoryInUse();

// Size of the cache of decoded resources shared by all threads (applies to
// base contexts made afterwards).
constexpr size_t kStoreSize = 128u << 20;

}  // namespace Orvane::PDF::Pdfium
