#pragma once

// The one interface through which an application uses the service.
//
// Queued operations (every one returning a future, the two ...Async requests and
// ExecuteWithDocument) put work on the service's worker thread and return at
// once; nothing is checked on the caller's thread. A future whose work was
// still queued when its document was closed or the service destroyed reports
// std::future_error (broken promise) from get().
//
// Immediate operations (GetPageCount, GetDocumentPath, the permission queries,
// SetCallbackOnFormChange) run on the caller's thread and throw
// std::invalid_argument("Invalid doc handle") for an id that is not open.

#include <QImage>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "core/EventPublisher.h"
#include "orvane/IoPath.h"
#include "orvane/pdf/Document.h"
#include "orvane/pdf/IPageInfoObserver.h"
#include "orvane/pdf/Records.h"

namespace Orvane::PDF {

using Orvane::int64;

class IPDFProvider : public Orvane::Core::EventPublisher<IPageInfoObserver> {
public:
    enum PageRotation : int32_t {
        RotateClockwise = 0,         // a quarter turn clockwise
        RotateCounterClockwise = 1,  // a quarter turn counter-clockwise
        RotateHalfTurn = 2,
    };

    struct OpenDocInfo {
        int64_t id = -1;             // the new document's id; -1 on failure
        bool passwordError = false;  // the password was missing or wrong: ask and try again
    };

    struct PageInfo {
        IPage::Rotation rotation = IPage::Rotate0;
        Rect rect;  // the crop box in page space
        Size size;  // the crop box's size as displayed
    };

    struct DestinationLinkInfo {
        int32_t pageIndex = -1;  // target page of an in-document link, -1 if none
        double x = 0.0;          // target left on that page, page space
        double y = 0.0;          // target top on that page, page space
        float zoom = 1.0f;       // zoom factor, 0 to keep the current zoom
        std::string uri;         // target of a URI link
    };

    using SearchCallback = std::function<void(unsigned page, const std::vector<SearchResultInfo>& results,
                                              const std::shared_ptr<ITextObject>& textObject)>;

    ~IPDFProvider() override = default;

    // A new empty document without a path. Never fails: {id, false}.
    virtual std::future<OpenDocInfo> CreateDocument() = 0;
    // A PDF (owner or user password), or an image file (.png .jpg .jpeg .bmp
    // .tif .tiff, any case) with one page per frame. An empty path creates a
    // new document. Failures answer {-1, passwordError}, never an exception.
    virtual std::future<OpenDocInfo> OpenDocument(const Orvane::ioPath& path, const std::string& password) = 0;
    virtual void SetCallbackOnFormChange(const int64& id, const std::function<void()>& callback) = 0;
    virtual int GetPageCount(const int64& id) = 0;
    // The answer reaches observers' OnPageInfo. A repeated request moves to the back.
    virtual void GetPageInfoAsync(const int64& id, unsigned page, IPageInfoObserver::ViewType viewType) = 0;
    // An unknown id answers zero size and rect; an engine failure (a page out
    // of range) is rethrown by get().
    virtual std::future<PageInfo> GetPageInfo(const int64& id, unsigned page) = 0;
    // The answer reaches observers' OnPageImage. width or height -1 takes the
    // page's size in points. Requests are coalesced per page index.
    virtual void GeneratePageImageAsync(const int64& id, unsigned page, int width, int height,
                                        IPageInfoObserver::ViewType viewType) = 0;
    // Withdraws the pending requests of both kinds that match all three values.
    virtual void CancelAsyncTasks(const int64& id, unsigned page, IPageInfoObserver::ViewType viewType) = 0;
    // A Format_RGB32 picture, white where the page paints nothing; a null
    // image for an unknown id or any failure, never an exception.
    virtual std::future<QImage> GeneratePageImage(const int64& id, unsigned page, int width, int height,
                                                  IPageInfoObserver::ViewType viewType) = 0;
    // As above with the default view.
    virtual std::future<QImage> GeneratePageImage(const int64& id, unsigned page, int width, int height) = 0;
    // kind 1 (x, y ignored): the box around all text of the page, or all -1
    // when there is none. Other kinds: the bounds of the topmost object of that
    // kind at (x, y), or all 0 when there is none. All -1 for an unknown id.
    virtual std::future<Rect> GetPageObjectBounds(const int64& id, unsigned page, int x, int y, int kind) = 0;
    // An empty pointer for an unknown id.
    virtual std::future<std::shared_ptr<ITextObject>> GetPageTextObject(const int64& id, unsigned page) = 0;
    // Turns the page relative to its present rotation. Engine failures are rethrown by get().
    virtual std::future<void> RotatePage(const int64& id, unsigned page, PageRotation rotation) = 0;
    // Runs task on the worker with the document (an empty pointer when the id
    // is not open). The caller keeps the task's future.
    virtual void ExecuteWithDocument(const int64& id, std::packaged_task<void(std::shared_ptr<IDocument>&)>&& task) = 0;
    // Moves the listed pages (ascending) so that they land before the page
    // that stood at destination. An empty list does nothing.
    virtual std::future<void> MovePages(const int64& id, const std::vector<unsigned>& pages, unsigned destination) = 0;
    // Copies the listed source pages, in list order and with duplicates, into
    // the target before page position (negative or past the end appends).
    // Either id -1: logged and ignored. Engine failures are rethrown by get().
    virtual std::future<void> ImportPages(const int64& sourceId, const int64& targetId,
                                          const std::vector<unsigned>& pages, int position) = 0;
    virtual std::future<void> ImportAllPages(const int64& sourceId, const int64& targetId, int position) = 0;
    // false for an unknown id or a document without a path; engine failures
    // are rethrown by get() and leave the file on disk as it was.
    virtual std::future<bool> SaveDocument(const int64& id) = 0;
    // Writes a fresh copy to path; the document then belongs to path.
    virtual std::future<bool> SaveDocumentAs(const int64& id, const Orvane::ioPath& path) = 0;
    // Writes the listed pages, in list order, to a new file. true when written,
    // false otherwise; never an exception.
    virtual std::future<bool> ExportPagesTo(const int64& id, const std::vector<unsigned>& pages,
                                            const Orvane::ioPath& path) = 0;
    virtual std::future<bool> IsInsideLinkArea(const int64& id, unsigned page, int x, int y) = 0;
    // Deletes in list order; each deletion renumbers the pages behind it, so pass highest first.
    virtual std::future<void> DeletePages(const int64& id, const std::vector<unsigned>& pages) = 0;
    // Inserts a blank page of width x height points before page index.
    virtual std::future<void> AddBlankPage(const int64& id, unsigned index, int width, int height) = 0;
    virtual Orvane::ioPath GetDocumentPath(const int64& id) = 0;
    virtual bool IsProtected(const int64& id) = 0;
    virtual bool IsEditContentProtected(const int64& id) = 0;
    virtual bool IsEditPagesProtected(const int64& id) = 0;
    virtual bool IsExtractingPagesProtected(const int64& id) = 0;
    virtual bool IsCopyTextAndGraphicsProtected(const int64& id) = 0;
    virtual bool IsPrintProtected(const int64& id) = 0;
    virtual bool IsPrintLowResolution(const int64& id) = 0;
    // The link under the page point (page space): destination or URI; the
    // default record when there is none or the id is unknown.
    virtual std::future<DestinationLinkInfo> HandleLink(const int64& id, unsigned page, int x, int y) = 0;
    // Searches one page per worker pass from startPage, wrapping around, and
    // calls callback on the worker after every page. Returns the search id.
    virtual int64 SearchInDocument(const int64& id, unsigned startPage, const std::wstring& text,
                                   const SearchCallback& callback) = 0;
    // The callback of a page being searched right now may still arrive.
    virtual void StopSearch(const int64& searchId) = 0;
    // Drops the document's queued work and pending requests, then closes it.
    virtual std::future<void> CloseDoument(const int64& id) = 0;
};

}  // namespace Orvane::PDF
