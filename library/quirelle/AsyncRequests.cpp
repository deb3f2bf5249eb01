// Fire-and-forget page requests. Page-information requests wait in a list,
// oldest first, a repeated request moving to the back. Image requests wait in
// two sets keyed on the page index alone (the default view, every other view),
// so a set holds one request per page and serves the smallest page first.
// Answers go to the observers on the worker, never under queueMutex.

#include "Log.h"
#include "QuirelleImpl.h"

namespace Orvane::PDF {

void Quirelle::Impl::AddPageInfoRequest(const PageInfoRequest& request) {
    {
        MutexLock lock(queueMutex);
        RemovePendingPageInfo(request);
        pageInfoRequests.Add(queueMutex, request);
    }
    Wake();
}

void Quirelle::Impl::AddPageImageRequest(const PageImageTask& request) {
    {
        MutexLock lock(queueMutex);
        RemovePendingPageImage(request);
        // Dropped when the page index is already pending in this set, for
        // another document or another non-default view.
        PendingSetFor(request.viewType).Add(queueMutex, request);
    }
    Wake();
}

void Quirelle::Impl::CancelRequests(const int64_t& id, unsigned page, ViewType viewType) {
    MutexLock lock(queueMutex);
    RemovePendingPageImage({id, page, viewType, 0, 0});
    RemovePendingPageInfo({id, page, viewType});
}

void Quirelle::Impl::RemovePendingPageInfo(const PageInfoRequest& key) {
    pageInfoRequests.Items(queueMutex).remove_if([&key](const PageInfoRequest& request) {
        return request.id == key.id && request.page == key.page && request.viewType == key.viewType;
    });
}

void Quirelle::Impl::RemovePendingPageImage(const PageImageTask& key) {
    PendingImages& pending = PendingSetFor(key.viewType).Items(queueMutex);
    auto found = pending.find(key);
    if (found != pending.end() && found->id == key.id && found->viewType == key.viewType) pending.erase(found);
}

void Quirelle::Impl::ServePageInfoRequest() {
    const std::optional<PageInfoRequest> taken = TakeFirst(pageInfoRequests);
    if (!taken) return;
    const PageInfoRequest& request = *taken;
    try {
        OpenDocumentOf(request.id);
        const PageInfo info = PageInfoOf({request.id, request.page});
        observers.Notify(&IPageInfoObserver::OnPageInfo, request.id, request.page, info.size, info.rotation, info.rect);
    } catch (...) {
        // The failure marker: size 1 x 1, rotation 0, an all-zero rect. An
        // observer throwing now only loses this notification.
        try {
            observers.Notify(&IPageInfoObserver::OnPageInfo, request.id, request.page, Size{1.0, 1.0}, IPage::Rotate0,
                             Rect{0.0, 0.0, 0.0, 0.0});
        } catch (const std::exception& e) {
            QUIRELLE_LOG(ERROR) << "An observer failed on page information: " << e.what();
        } catch (...) {
            QUIRELLE_LOG(ERROR) << "An observer failed on page information";
        }
    }
}

void Quirelle::Impl::ServePendingImage(PendingImageQueue& pending) {
    const std::optional<PageImageTask> taken = TakeFirst(pending);
    if (!taken) return;
    const PageImageTask& request = *taken;
    const QImage image = RenderPageImage(FindDocument(request.id), request);
    try {
        observers.Notify(&IPageInfoObserver::OnPageImage, request.id, request.page, request.viewType, image);
    } catch (const std::exception& e) {
        QUIRELLE_LOG(ERROR) << "An observer failed on a page image: " << e.what();
    } catch (...) {
        QUIRELLE_LOG(ERROR) << "An observer failed on a page image";
    }
}

}  // namespace Orvane::PDF
