// Answers reach the GUI thread through a relay, in the order the worker sent
// them. After an edit the worker may still deliver pictures of the old page
// order; Reload queues a marker task behind them and accepts answers only once
// the marker has come back.

#include "PageSource.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Orvane::PDF {

namespace {
constexpr QSizeF kDefaultSize(612, 792);   // until the first page's size is known
constexpr qint64 kMaxPixels = 24'000'000;  // bigger pictures are asked smaller and scaled when drawn
}  // namespace

class PageSource::Observer : public IPageInfoObserver {
public:
    explicit Observer(std::shared_ptr<GuiRelay> relay, PageSource* source)
        : relay_(std::move(relay)), source_(source) {}
    void OnPageInfo(int64_t doc, unsigned page, const Size& size, const IPage::Rotation& rotation,
                    const Rect& rect) override {
        PageSource* source = source_;
        relay_->Post([source, doc, page, size, rotation, rect] { source->OnInfo(doc, page, size, rotation, rect); });
    }
    void OnPageImage(int64_t doc, unsigned page, ViewType viewType, const QImage& image) override {
        if (viewType != source_->viewType_) return;
        PageSource* source = source_;
        relay_->Post([source, doc, page, image] { source->OnImage(doc, page, image); });
    }

private:
    std::shared_ptr<GuiRelay> relay_;
    PageSource* const source_;
};

PageSource::PageSource(IPDFProvider& service, ViewType viewType, QObject* parent)
    : QObject(parent),
      service_(service),
      viewType_(viewType),
      relay_(std::make_shared<GuiRelay>(this)),
      observer_(std::make_unique<Observer>(relay_, this)) {
    service_.RegisterEventHandler(observer_.get());
}

PageSource::~PageSource() {
    relay_->Detach();
    // Waits for a notification in flight, so the observer can go.
    service_.UnregisterEventHandler(observer_.get());
    Reset(-1);
}

void PageSource::Reset(int64_t id) {
    for (int page : pending_) service_.CancelAsyncTasks(doc_, static_cast<unsigned>(page), viewType_);
    pending_.clear();
    ++generation_;
    doc_ = id;
    int count = 0;
    if (id >= 0) {
        try {
            count = std::max(0, service_.GetPageCount(id));
        } catch (const std::invalid_argument&) {
            count = 0;  // not open (any more)
        }
    }
    const QSizeF estimate = pages_.empty() || !pages_.front().known ? kDefaultSize : pages_.front().size;
    pages_.assign(static_cast<size_t>(count), Page{});
    for (Page& page : pages_) page.size = estimate;
}

void PageSource::SetDocument(int64_t id) {
    Reset(id);
    // A new id has never been answered before: nothing old can arrive.
    accepting_ = true;
    AskSizes();
    ScheduleLayoutChanged();
}

void PageSource::Reload() {
    Reset(doc_);
    accepting_ = false;
    if (doc_ < 0) return ScheduleLayoutChanged();
    const uint64_t generation = generation_;
    std::shared_ptr<GuiRelay> relay = relay_;
    std::packaged_task<void(std::shared_ptr<IDocument>&)> marker(
        [relay, this, generation](std::shared_ptr<IDocument>&) {
            relay->Post([this, generation] {
                if (generation != generation_) return;
                accepting_ = true;
                AskSizes();
            });
        });
    service_.ExecuteWithDocument(doc_, std::move(marker));
    ScheduleLayoutChanged();
}

void PageSource::Redraw() {
    for (int page : pending_) {
        service_.CancelAsyncTasks(doc_, static_cast<unsigned>(page), viewType_);
        pages_[static_cast<size_t>(page)].pending = QSize();
    }
    pending_.clear();
    for (Page& page : pages_) page.stale = !page.image.isNull();
}

void PageSource::AskSizes() {
    for (int page = 0; page < Count(); ++page) service_.GetPageInfoAsync(doc_, static_cast<unsigned>(page), viewType_);
}

void PageSource::Want(const std::map<int, QSize>& wanted, int keepFirst, int keepLast) {
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (wanted.count(*it) != 0) {
            ++it;
            continue;
        }
        service_.CancelAsyncTasks(doc_, static_cast<unsigned>(*it), viewType_);
        pages_[static_cast<size_t>(*it)].pending = QSize();
        it = pending_.erase(it);
    }
    for (int page = 0; page < Count(); ++page) {
        if (page < keepFirst || page > keepLast) pages_[static_cast<size_t>(page)].image = QImage();
    }
    if (!accepting_) return;
    for (const auto& [index, wantedSize] : wanted) {
        if (index < 0 || index >= Count()) continue;
        Page& page = pages_[static_cast<size_t>(index)];
        QSize size = wantedSize;
        const qint64 pixels = qint64(size.width()) * size.height();
        if (pixels > kMaxPixels) size = (QSizeF(size) * std::sqrt(double(kMaxPixels) / double(pixels))).toSize();
        if (!page.known || page.failed || size.isEmpty() || page.pending == size) continue;
        if (page.image.size() == size && !page.stale) continue;
        service_.GeneratePageImageAsync(doc_, static_cast<unsigned>(index), size.width(), size.height(), viewType_);
        page.pending = size;
        page.stale = false;
        pending_.insert(index);
    }
}

void PageSource::OnInfo(int64_t doc, unsigned index, Size size, IPage::Rotation rotation, Rect rect) {
    if (doc != doc_ || !accepting_ || index >= pages_.size()) return;
    Page& page = pages_[index];
    page.known = true;
    // The service's failure marker: a 1 x 1 size and an empty rect.
    page.failed = size.width == 1.0 && size.height == 1.0 && rect.left == rect.right;
    if (!page.failed) {
        page.size = QSizeF(size.width, size.height);
        page.rotation = rotation;
        page.rect = rect;
    }
    ScheduleLayoutChanged();
}

void PageSource::OnImage(int64_t doc, unsigned index, QImage image) {
    if (doc != doc_ || !accepting_ || index >= pages_.size()) return;
    Page& page = pages_[index];
    if (image.isNull()) {
        page.failed = page.pending.isValid();
    } else {
        page.image = image;
    }
    if (image.isNull() || image.size() == page.pending) {
        page.stale = page.stale && image.isNull();
        page.pending = QSize();
        pending_.erase(static_cast<int>(index));
    }
    emit ImageArrived(static_cast<int>(index));
}

void PageSource::ScheduleLayoutChanged() {
    if (layoutChangeQueued_) return;
    layoutChangeQueued_ = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            layoutChangeQueued_ = false;
            emit LayoutChanged();
        },
        Qt::QueuedConnection);
}

}  // namespace Orvane::PDF
