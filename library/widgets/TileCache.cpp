// Answers reach the GUI thread in the order the worker sent them. After a
// Reset the worker may still deliver tiles asked before it; a marker task
// queued behind them says when answers belong to the new state again, as
// PageSource does after an edit.

#include "TileCache.h"

#include <algorithm>

namespace Orvane::PDF {

namespace {
bool SameRect(const Rect& a, const Rect& b) {
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}
}  // namespace

class TileCache::Observer : public ITileObserver {
public:
    Observer(std::shared_ptr<GuiRelay> relay, TileCache* cache) : relay_(std::move(relay)), cache_(cache) {}
    void OnTile(int64_t doc, unsigned page, const Rect& region, double scale, IPageInfoObserver::ViewType viewType,
                const QImage& tile) override {
        if (viewType != IPageInfoObserver::DefaultView) return;
        TileCache* cache = cache_;
        relay_->Post([cache, doc, page, region, scale, tile] { cache->OnTile(doc, page, region, scale, tile); });
    }

private:
    std::shared_ptr<GuiRelay> relay_;
    TileCache* const cache_;
};

TileCache::TileCache(IPDFProvider& service, IReadingProvider& reader, qint64 budgetBytes, QObject* parent)
    : QObject(parent),
      service_(service),
      reader_(reader),
      budget_(budgetBytes),
      relay_(std::make_shared<GuiRelay>(this)),
      observer_(std::make_unique<Observer>(relay_, this)) {
    reader_.RegisterTileObserver(observer_.get());
}

TileCache::~TileCache() {
    relay_->Detach();
    reader_.UnregisterTileObserver(observer_.get());
    if (doc_ >= 0) {
        for (const auto& [key, region] : pending_)
            reader_.CancelTile(doc_, static_cast<unsigned>(key.page), region, scale_, IPageInfoObserver::DefaultView);
    }
}

void TileCache::Reset(int64_t doc) {
    if (doc_ >= 0) {
        for (const auto& [key, region] : pending_)
            reader_.CancelTile(doc_, static_cast<unsigned>(key.page), region, scale_, IPageInfoObserver::DefaultView);
    }
    pending_.clear();
    held_.clear();
    bytes_ = 0;
    scale_ = 0.0;
    const bool sameDocument = doc == doc_;
    doc_ = doc;
    ++generation_;
    // A new document has never been answered: nothing old can arrive.
    accepting_ = !sameDocument || doc < 0;
    if (accepting_) return;
    const uint64_t generation = generation_;
    std::shared_ptr<GuiRelay> relay = relay_;
    std::packaged_task<void(std::shared_ptr<IDocument>&)> marker([relay, this, generation](std::shared_ptr<IDocument>&) {
        relay->Post([this, generation] {
            if (generation == generation_) accepting_ = true;
        });
    });
    service_.ExecuteWithDocument(doc_, std::move(marker));
}

void TileCache::Want(double scale, const std::vector<Wanted>& wanted, const std::function<bool(const Key&)>& keep) {
    if (doc_ < 0) return;
    if (scale != scale_) {
        for (const auto& [key, region] : pending_)
            reader_.CancelTile(doc_, static_cast<unsigned>(key.page), region, scale_, IPageInfoObserver::DefaultView);
        pending_.clear();
        held_.clear();
        bytes_ = 0;
        scale_ = scale;
    }
    std::map<Key, Rect> now;
    for (const Wanted& want : wanted) now.emplace(want.key, want.region);
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (now.count(it->first) != 0) {
            ++it;
            continue;
        }
        reader_.CancelTile(doc_, static_cast<unsigned>(it->first.page), it->second, scale_,
                           IPageInfoObserver::DefaultView);
        it = pending_.erase(it);
    }
    for (auto it = held_.begin(); it != held_.end();) {
        if (keep(it->first)) {
            ++it;
        } else {
            bytes_ -= it->second.image.sizeInBytes();
            it = held_.erase(it);
        }
    }
    ++clock_;
    if (!accepting_) return;
    for (const auto& [key, region] : now) {
        auto held = held_.find(key);
        if (held != held_.end()) {
            held->second.used = clock_;
            continue;
        }
        if (pending_.count(key) != 0) continue;
        pending_.emplace(key, region);
        reader_.GenerateTileAsync(doc_, static_cast<unsigned>(key.page), region, scale_,
                                  IPageInfoObserver::DefaultView);
    }
}

QImage TileCache::Find(const Key& key) const {
    auto it = held_.find(key);
    return it == held_.end() ? QImage() : it->second.image;
}

void TileCache::OnTile(int64_t doc, unsigned page, const Rect& region, double scale, const QImage& image) {
    if (doc != doc_ || !accepting_ || scale != scale_) return;
    auto it = std::find_if(pending_.begin(), pending_.end(), [&](const auto& entry) {
        return entry.first.page == static_cast<int>(page) && SameRect(entry.second, region);
    });
    if (it == pending_.end()) return;
    const Key key = it->first;
    pending_.erase(it);
    if (image.isNull()) return;  // the page could not be drawn there: the scaled picture stays
    Forget(key);
    Held held{recolour_ ? recolour_(image) : image, clock_};
    bytes_ += held.image.sizeInBytes();
    held_.emplace(key, std::move(held));
    // Over budget: the least recently wanted go.
    while (bytes_ > budget_ && held_.size() > 1) {
        auto oldest = std::min_element(held_.begin(), held_.end(),
                                       [](const auto& a, const auto& b) { return a.second.used < b.second.used; });
        bytes_ -= oldest->second.image.sizeInBytes();
        held_.erase(oldest);
    }
    emit TileArrived(static_cast<int>(page));
}

void TileCache::Forget(const Key& key) {
    auto it = held_.find(key);
    if (it == held_.end()) return;
    bytes_ -= it->second.image.sizeInBytes();
    held_.erase(it);
}

}  // namespace Orvane::PDF
