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

size_t DisplayListCache::KeyHash::operator()(const PageKey& key) const noexcept {
    size_t h = std::hash<uint64_t>()(key.document);
    for (const uint64_t part : {key.generation, uint64_t(key.object) << 1 | uint64_t(key.print)}) {
        h ^= std::hash<uint64_t>()(part) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
    }
    return h;
}

std::optional<Recording> DisplayListCache::Find(fz_context* ctx, const PageKey& key) {
    Entries dropped;
    std::optional<Recording> found;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = index_.find(key);
        if (it != index_.end()) {
            entries_.splice(entries_.begin(), entries_, it->second);
            found = it->second->recording;
            found->list = fz_keep_display_list(ctx, it->second->recording.list);
        }
        EvictLocked(PageCacheLimit(), dropped);
    }
    DropAll(ctx, dropped);
    return found;
}

void DisplayListCache::Store(fz_context* ctx, const PageKey& key, const Recording& recording, size_t bytes) {
    Entries dropped;
    Entries fresh;
    fresh.push_back(Entry{key, recording, bytes});
    fresh.front().recording.list = nullptr;
    fresh.front().recording.list = fz_keep_display_list(ctx, recording.list);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Recordings of the document made before its latest change can never
        // be found again.
        auto newest = generations_.find(key.document);
        if (newest != generations_.end() && newest->second < key.generation) {
            UnlinkDocumentLocked(key.document, dropped);
            newest = generations_.end();
        }
        if (const auto same = index_.find(key); same != index_.end()) UnlinkLocked(same->second, dropped);
        const size_t limit = PageCacheLimit();
        if (bytes <= limit && IndexLocked(key, newest == generations_.end())) {
            EvictLocked(limit - bytes, dropped);
            entries_.splice(entries_.begin(), fresh);
            index_[key] = entries_.begin();  // the slot is there: no allocation
            bytes_ += bytes;
        } else {
            EvictLocked(limit, dropped);
        }
    }
    DropAll(ctx, dropped);
    DropAll(ctx, fresh);
}

void DisplayListCache::DropDocument(fz_context* ctx, uint64_t document) {
    Entries dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        UnlinkDocumentLocked(document, dropped);
    }
    DropAll(ctx, dropped);
}

void DisplayListCache::Trim(fz_context* ctx) {
    Entries dropped;
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

bool DisplayListCache::IndexLocked(const PageKey& key, bool newGeneration) noexcept {
    try {
        index_.emplace(key, entries_.end());
        if (newGeneration) generations_[key.document] = key.generation;
        return true;
    } catch (...) {
        index_.erase(key);
        return false;  // not kept, and nothing else changed
    }
}

void DisplayListCache::UnlinkLocked(Entries::iterator entry, Entries& dropped) {
    bytes_ -= entry->bytes;
    index_.erase(entry->key);
    dropped.splice(dropped.end(), entries_, entry);
}

void DisplayListCache::EvictLocked(size_t limit, Entries& dropped) {
    while (bytes_ > limit && !entries_.empty()) UnlinkLocked(std::prev(entries_.end()), dropped);
}

void DisplayListCache::UnlinkDocumentLocked(uint64_t document, Entries& dropped) {
    generations_.erase(document);
    for (auto it = entries_.begin(); it != entries_.end();) {
        const auto next = std::next(it);
        if (it->key.document == document) UnlinkLocked(it, dropped);
        it = next;
    }
}

void DisplayListCache::DropAll(fz_context* ctx, Entries& dropped) noexcept {
    for (Entry& entry : dropped) fz_drop_display_list(ctx, entry.recording.list);
    dropped.clear();
}

}  // namespace Orvane::PDF::Pdfium
