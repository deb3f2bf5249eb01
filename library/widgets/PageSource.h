#pragma once

// The pages of one document as a widget sees them: their sizes (asked with
// GetPageInfoAsync) and pictures (GeneratePageImageAsync), answered through an
// observer on the worker thread and handed to the GUI thread. A widget says
// which pages it wants at which pixel size; the source asks for what is
// missing, withdraws what is no longer wanted and forgets far-away pictures.
// GUI thread only.

#include <QImage>
#include <QObject>
#include <QSize>
#include <QSizeF>
#include <Quirelle>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "GuiThread.h"

namespace Orvane::PDF {

class PageSource : public QObject {
    Q_OBJECT
public:
    using ViewType = IPageInfoObserver::ViewType;

    struct Page {
        QSizeF size;          // points, as displayed (rotation applied)
        bool known = false;   // size, rect and rotation came from the service
        bool failed = false;  // the page could not be measured or drawn
        IPage::Rotation rotation = IPage::Rotate0;
        Rect rect;      // crop box, page space
        QImage image;   // the latest picture, maybe of another size than wanted
        QSize pending;  // the size of a request still pending, if any
        bool stale = false;  // image shows content from before a change
    };

    PageSource(IPDFProvider& service, ViewType viewType, QObject* parent);
    ~PageSource() override;

    IPDFProvider& Service() const { return service_; }
    // Shows document id (-1: none). Asks every page's size, first page first.
    void SetDocument(int64_t id);
    // After the page list changed: forgets sizes and pictures and asks again,
    // ignoring answers the worker computed before this call.
    void Reload();
    // After the pages' content changed: every picture is asked again when
    // next wanted; the old ones are kept until the new ones come.
    void Refresh();
    int64_t Document() const { return doc_; }
    int Count() const { return static_cast<int>(pages_.size()); }
    const Page& At(int page) const { return pages_.at(static_cast<size_t>(page)); }
    // Requests each wanted page at its pixel size unless its picture already
    // has that size; withdraws pending requests of other pages; drops pictures
    // outside [keepFirst, keepLast].
    void Want(const std::map<int, QSize>& wanted, int keepFirst, int keepLast);

signals:
    // Page count or page sizes changed (coalesced).
    void LayoutChanged();
    void ImageArrived(int page);

private:
    class Observer;
    void Reset(int64_t id);
    void AskSizes();
    void OnInfo(int64_t doc, unsigned page, Size size, IPage::Rotation rotation, Rect rect);
    void OnImage(int64_t doc, unsigned page, QImage image);
    void ScheduleLayoutChanged();

    IPDFProvider& service_;
    const ViewType viewType_;
    std::shared_ptr<GuiRelay> relay_;
    std::unique_ptr<Observer> observer_;
    int64_t doc_ = -1;
    std::vector<Page> pages_;
    std::set<int> pending_;    // pages with a request pending
    bool accepting_ = false;   // answers belong to the current page list
    uint64_t generation_ = 0;  // bumped by every SetDocument and Reload
    bool layoutChangeQueued_ = false;
};

}  // namespace Orvane::PDF
