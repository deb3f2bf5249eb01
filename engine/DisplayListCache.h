#pragma once

// Pages recorded for drawing. The first picture of a page runs its content
// into a MuPDF display list; every later picture of the page, at any size,
// draws from that recording instead of interpreting the content again.
//
// One cache for the process, bounded in bytes, least recently used first
// out. A recording is named by its document's serial and change generation,
// the page's object number and the usage (view or print), so a document
// that changed never finds a recording made before the change; a
// document's recordings go with it (DropRecordedPages). Recordings are
// allocated through the engine's counting allocator, inside its memory cap.

#include <mupdf/fitz.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Orvane::PDF::Pdfium {

// Sets the cache's bound (EngineLimits::pageCacheBytes, read through
// PageCacheLimit(); 0 turns it off). A lower bound is applied at once on a
// thread with an engine context, else at the cache's next use.
void SetPageCacheLimit(size_t bytes);
// What the cache holds now, in its own count.
size_t PageCacheBytes();

struct PageKey {
    uint64_t document = 0;
    uint64_t generation = 0;
    int object = 0;
    bool print = false;
    bool operator==(const PageKey& other) const {
        return document == other.document && generation == other.generation && object == other.object &&
               print == other.print;
    }
};

// Vertical extent (recording space, y down) of something a band seam must not
// cut: a band's rasteriser clips the edges that cross its top and bottom, and
// a clipped edge steps slightly differently from the whole one. Glyphs small
// enough for the glyph cache are drawn from bitmaps and can be cut anywhere:
// text is only in the way at a scale of at least fromScale.
struct SeamObstacle {
    float top = 0;
    float bottom = 0;
    float fromScale = 0;
};

struct Recording {
    fz_display_list* list = nullptr;
    std::shared_ptr<const std::vector<SeamObstacle>> obstacles;
    size_t glyphs = 0;  // glyphs of text drawn (not clipped with)
};

class PdfPage;
// The page's recording, from the cache or made now (Renderer.cpp), with a
// reference of the caller's; nothing when the content cannot be recorded.
std::optional<Recording> PageRecording(PdfPage& page, bool print);

class DisplayListCache {
public:
    static DisplayListCache& Instance();

    // The recording for key with a reference of the caller's (drop it with
    // fz_drop_display_list), or nothing.
    std::optional<Recording> Find(fz_context* ctx, const PageKey& key);
    // Keeps a reference to the recording, counted as bytes, evicting the
    // least recently used ones (and the document's recordings of earlier
    // generations) to stay within the bound. Too large a recording is not kept.
    void Store(fz_context* ctx, const PageKey& key, const Recording& recording, size_t bytes);
    void DropDocument(fz_context* ctx, uint64_t document);
    // Evicts down to the bound.
    void Trim(fz_context* ctx);
    size_t Bytes();

private:
    struct Entry {
        PageKey key;
        Recording recording;
        size_t bytes;
    };
    using Entries = std::list<Entry>;
    struct KeyHash {
        size_t operator()(const PageKey& key) const noexcept;
    };

    // Makes room in the index for key (and notes a document's new
    // generation); false when there is no memory for it.
    bool IndexLocked(const PageKey& key, bool newGeneration) noexcept;
    // Unlink entries under the lock, into dropped; the caller drops them
    // after it.
    void UnlinkLocked(Entries::iterator entry, Entries& dropped);
    void EvictLocked(size_t limit, Entries& dropped);
    void UnlinkDocumentLocked(uint64_t document, Entries& dropped);
    static void DropAll(fz_context* ctx, Entries& dropped) noexcept;

    // A viewer keeps thousands of pages here: every look-up goes through the
    // index, and only a document's change or its closing walks the entries.
    std::mutex mutex_;
    Entries entries_;                                            // most recently used first; guarded by mutex_
    std::unordered_map<PageKey, Entries::iterator, KeyHash> index_;  // guarded by mutex_
    std::unordered_map<uint64_t, uint64_t> generations_;          // newest generation kept a document; guarded by mutex_
    size_t bytes_ = 0;                                           // guarded by mutex_
};

}  // namespace Orvane::PDF::Pdfium
