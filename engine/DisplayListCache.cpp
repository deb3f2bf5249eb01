#include "engine/DisplayListCache.h"

#include <iterator>
#include <stdexcept>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "orvane/pdf/EngineLimits.h"

namespace Orvane::PDF::Pdfium {
void SetPageCacheLimit(size_t bytes) {
    EngineLimits limits = GetEngineLimits();
    limits.pageCacheBytes = bytes;
    SetEngineLimits(limits);
    fz_context* ctx = nullptr;
    try {
        ctx = CurrentContext();
    } catch (const std::logic_error&) {
        return;  // trimmed at the next use
    }
    DisplayListCache::Instance().Trim(ctx);
}

size_t PageCacheBytes() {
    return DisplayListCache::Instance().Bytes();
}

void DropRecordedPages(fz_context* ctx, uint64_t document) noexcept {
    DisplayListCache::Instance().DropDocument(ctx, document);
}

DisplayListCache& DisplayListCache::Instance() {
    // Never destroyed: documents held in static storage may be dropped after
    // every function-local static is gone.
    static auto* cache = new DisplayListCache;
    return *cache;
}

std::optional<Recording> DisplayListCache::Find(fz_context* ctx, const PageKey& key) {
    std::list<Entry> dropped;
    std::optional<Recording> found;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->key == key) {
                entries_.splice(entries_.begin(), entries_, it);
                found = it->recording;
                found->list = fz_keep_display_list(ctx, it->recording.list);
                break;
            }
        }
        EvictLocked(PageCacheLimit(), dropped);
    }
    DropAll(ctx, dropped);
    return found;
}

void DisplayListCache::Store(fz_context* ctx, const PageKey& key, const Recording& recording, size_t bytes) {
    std::list<Entry> dropped;
    std::list<Entry> fresh;
    fresh.push_back(Entry{key, recording, bytes});
    fresh.front().recording.list = nullptr;
    fresh.front().recording.list = fz_keep_display_list(ctx, recording.list);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Recordings of the document made before its latest change can never
        // be found again.
        for (auto it = entries_.begin(); it != entries_.end();) {
            const bool stale = it->key.document == key.document && it->key.generation < key.generation;
            if (stale || it->key == key) {
                bytes_ -= it->bytes;
                dropped.splice(dropped.end(), entries_, it++);
            } else {
                ++it;
            }
        }
        const size_t limit = PageCacheLimit();
        if (bytes <= limit) {
            EvictLocked(limit - bytes, dropped);
            entries_.splice(entries_.begin(), fresh);
            bytes_ += bytes;
        } else {
            EvictLocked(limit, dropped);
        }
    }
    DropAll(ctx, dropped);
    DropAll(ctx, fresh);
}

void DisplayListCache::DropDocument(fz_context* ctx, uint64_t document) {
    std::list<Entry> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = entries_.begin(); it != entries_.end();) {
            if (it->key.document == document) {
                bytes_ -= it->bytes;
                dropped.splice(dropped.end(), entries_, it++);
            } else {
                ++it;
            }
        }
    }
    DropAll(ctx, dropped);
}

void DisplayListCache::Trim(fz_context* ctx) {
    std::list<Entry> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        EvictLocked(PageCacheLimit(), dropped);
    }
    DropAll(ctx, dropped);
}

size_t DisplayListCache::Bytes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

void DisplayListCache::EvictLocked(size_t limit, std::list<Entry>& dropped) {
    while (bytes_ > limit && !entries_.empty()) {
        bytes_ -= entries_.back().bytes;
        dropped.splice(dropped.end(), entries_, std::prev(entries_.end()));
    }
}

void DisplayListCache::DropAll(fz_context* ctx, std::list<Entry>& dropped) noexcept {
    for (Entry& entry : dropped) fz_drop_display_list(ctx, entry.recording.list);
    dropped.clear();
}

}  // namespace Orvane::PDF::Pdfium
