// Text search, one page per worker pass. A search's request goes back to the
// end of the search queue after each page, so searches take turns and every
// other kind of work is served between two pages. A stopped search is removed
// from the queue at once, and once more in the pass's purge step, which
// catches a search whose step was running when it was stopped.

#include <algorithm>

#include "Log.h"
#include "QuirelleImpl.h"

namespace Orvane::PDF {

int64_t Quirelle::Impl::AddSearch(const int64_t& id, unsigned startPage, const std::wstring& text,
                                  const SearchCallback& callback) {
    int64_t searchId;
    {
        MutexLock lock(queueMutex);
        searchId = nextSearchId++;
        searches.Add(queueMutex, {id, startPage, 0, searchId, startPage, text, callback});
    }
    Wake();
    return searchId;
}

void Quirelle::Impl::StopSearch(const int64_t& searchId) {
    std::list<SearchRequest> stopped;
    {
        MutexLock lock(queueMutex);
        StopSearchLocked(searchId, stopped);
    }
    Wake();
}

void Quirelle::Impl::StopSearchLocked(const int64_t& searchId, std::list<SearchRequest>& stopped) {
    std::list<SearchRequest>& queued = searches.Items(queueMutex);
    auto found = std::find_if(queued.begin(), queued.end(),
                              [searchId](const SearchRequest& request) { return request.searchId == searchId; });
    if (found != queued.end()) stopped.splice(stopped.end(), queued, found);
    stoppedSearches.insert(searchId);
}

void Quirelle::Impl::ServeSearchStep() {
    std::optional<SearchRequest> taken = TakeFirst(searches);
    if (!taken) return;
    SearchRequest& request = *taken;
    try {
        SearchStep(request);
    } catch (const std::exception& e) {
        // The search ends; the worker goes on.
        QUIRELLE_LOG(ERROR) << "Search " << request.searchId << " ended by an error: " << e.what();
    } catch (...) {
        QUIRELLE_LOG(ERROR) << "Search " << request.searchId << " ended by an error";
    }
}

void Quirelle::Impl::SearchStep(SearchRequest& request) {
    if (!request.callback) return;
    std::shared_ptr<IDocument> document = FindDocument(request.id);
    if (!document) return;
    const unsigned count = document->GetPageCount();
    // Every page has been searched once (>= rather than ==: pages deleted
    // during a search cannot make it run forever).
    if (uint64_t{request.step} >= uint64_t{request.startPage} + count) return;
    const unsigned page = request.step % count;
    // The text object is plain data: the one searched is the one handed over.
    std::shared_ptr<ITextObject> text;
    {
        const Pdfium::RequestBudget budget;
        text = document->GetPage(page)->GetTextObject();
    }
    const std::vector<SearchResultInfo> results = text->FindText(request.text, 0);
    request.callback(page, results, text);
    MutexLock lock(queueMutex);
    ++request.step;
    searches.Add(queueMutex, std::move(request));
}

void Quirelle::Impl::PurgeStoppedSearches() {
    std::list<SearchRequest> stopped;  // destroyed after the lock is released
    MutexLock lock(queueMutex);
    std::list<SearchRequest>& queued = searches.Items(queueMutex);
    for (int64_t searchId : stoppedSearches) {
        auto found = std::find_if(queued.begin(), queued.end(),
                                  [searchId](const SearchRequest& request) { return request.searchId == searchId; });
        if (found != queued.end()) stopped.splice(stopped.end(), queued, found);
    }
    stoppedSearches.clear();
}

}  // namespace Orvane::PDF
