#pragma once

// The service's private implementation: the worker thread, its task queues,
// the pending asynchronous requests, the running searches, the registry of
// open documents and the observer list.
//
// Invariants:
// - queueMutex guards every queue and set below, the registry and the two id
//   counters. It is held only to insert, to take the front element, to look a
//   document up or to edit the stop set; never while a task runs, the engine
//   is called or observers are notified.
// - Only the worker writes the registry (under queueMutex); the worker reads
//   it without the lock, which is safe because no other thread writes it.
// - Every engine document is made, used and destroyed on the worker thread,
//   between the engine's initialisation and its uninitialisation.

#include <QImage>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Quirelle"
#include "core/EventHandlerList.h"
#include "engine/Context.h"
#include "engine/PicturePool.h"

namespace Orvane::PDF {

class QUIRELLE_HIDDEN Quirelle::Impl {
public:
    using ViewType = IPageInfoObserver::ViewType;
    using OpenDocInfo = IPDFProvider::OpenDocInfo;
    using PageInfo = IPDFProvider::PageInfo;
    using DestinationLinkInfo = IPDFProvider::DestinationLinkInfo;
    using SearchCallback = IPDFProvider::SearchCallback;

    // ---- task records: plain aggregates, the document id first ----

    struct OpenDocumentTask {
        int64_t id = -1;      // not used: the id is given out once the document exists
        Orvane::ioPath path;  // empty: a new blank document
        std::string password;
    };
    struct PageTask {
        int64_t id;
        unsigned page;
    };
    // Also the record of a pending asynchronous image request.
    struct PageImageTask {
        int64_t id;
        unsigned page;
        ViewType viewType;
        int width;   // -1: the page's width in points
        int height;  // -1: the page's height in points
    };
    struct PagePositionTask {
        int64_t id;
        unsigned page;
        int x;
        int y;
        int kind;  // object kind, for GetPageObjectBounds only
    };
    struct RotationPageTask {
        int64_t id;
        unsigned page;
        IPDFProvider::PageRotation rotation;
    };
    struct ImportPageTask {
        int64_t sourceId;
        int64_t targetId;
        int32_t position;
        std::vector<unsigned> pages;  // empty for ImportAllPages
    };
    struct SaveDocumentTask {
        int64_t id;
        Orvane::ioPath path;  // empty: save to the document's own path
    };
    struct ExportTask {
        int64_t id;
        std::vector<unsigned> pages;
        Orvane::ioPath path;
    };
    struct MovePagesTask {
        int64_t id;
        unsigned destination;
        std::vector<unsigned> pages;
    };
    struct DeletePagesTask {
        int64_t id;
        std::vector<unsigned> pages;
    };

    // A queued request: its record and the packaged work that answers its future.
    template <class Record, class Result>
    struct Queued {
        Record record;
        std::packaged_task<Result(const Record&)> work;
        void Run() { work(record); }
    };
    template <class Record, class Result>
    using Queue = std::list<Queued<Record, Result>>;

    // ExecuteWithDocument: the caller's own task, run with the document.
    struct CallerWork {
        int64_t id;
        std::packaged_task<void(std::shared_ptr<IDocument>&)> work;
    };

    // A pending asynchronous page-information request.
    struct PageInfoRequest {
        int64_t id;
        unsigned page;
        ViewType viewType;
    };

    // Pending images are kept per page index alone: one request per page.
    struct ByPageIndex {
        bool operator()(const PageImageTask& a, const PageImageTask& b) const { return a.page < b.page; }
    };
    using PendingImages = std::set<PageImageTask, ByPageIndex>;

    // A tile: GenerateTile's record, and a pending asynchronous tile.
    struct TileTask {
        int64_t id;
        unsigned page;
        Rect region;
        double scale;
        ViewType viewType;
        bool SameTile(const TileTask& other) const {
            return id == other.id && page == other.page && region.left == other.region.left &&
                   region.top == other.region.top && region.right == other.region.right &&
                   region.bottom == other.region.bottom && scale == other.scale && viewType == other.viewType;
        }
    };

    // A reading query (outline, labels, information, selection): its
    // document and the packaged work that answers its future. Dropped
    // unrun, the work breaks its promise.
    struct ReadingWork {
        int64_t id;
        std::function<void()> run;
    };

    struct SearchRequest {
        int64_t id;         // the document searched
        unsigned step;      // position of the next page, counted from startPage without wrapping
        unsigned reserved;  // always 0
        int64_t searchId;
        unsigned startPage;
        std::wstring text;
        SearchCallback callback;
    };

    explicit Impl(const std::shared_ptr<IFontProviderFactory>& factory);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // ---- enqueue path (any thread) ----

    template <class Record, class Result, class Body>
    std::future<Result> Enqueue(Queue<Record, Result>& queue, Record record, Body&& body);
    void EnqueueCallerWork(const int64_t& id, std::packaged_task<void(std::shared_ptr<IDocument>&)>&& work);

    // ---- immediate operations (caller's thread, under queueMutex) ----

    // Runs query with the open document, under the lock. Throws
    // std::invalid_argument("Invalid doc handle") for an id that is not open.
    template <class Query>
    auto WithOpenDocument(const int64_t& id, Query&& query);

    // ---- asynchronous requests (caller's thread) ----

    void AddPageInfoRequest(const PageInfoRequest& request);
    void AddPageImageRequest(const PageImageTask& request);
    void CancelRequests(const int64_t& id, unsigned page, ViewType viewType);
    void RemovePendingPageInfo(const PageInfoRequest& key);  // queueMutex held
    void RemovePendingPageImage(const PageImageTask& key);   // queueMutex held
    PendingImages& PendingSetFor(ViewType viewType) { return viewType == 0 ? pendingImages[0] : pendingImages[1]; }

    // ---- reading (Reading.cpp) ----

    // Queues body(document) for the worker; the document is the open one
    // (std::invalid_argument "Invalid doc handle" through the future if not).
    template <class Result, class Body>
    std::future<Result> EnqueueReading(const int64_t& id, Body&& body);
    void AddTileRequest(const TileTask& request);
    void CancelTileRequests(const std::function<bool(const TileTask&)>& matches);
    QImage RenderTile(const TileTask& task) const;  // throws
    void ServeReadingWork();
    void ServePendingTile();

    // ---- searches (caller's thread) ----

    int64_t AddSearch(const int64_t& id, unsigned startPage, const std::wstring& text, const SearchCallback& callback);
    void StopSearch(const int64_t& searchId);
    // queueMutex held; the stopped search moves to stopped, to be destroyed
    // unlocked (its callback's captured state may call the service).
    void StopSearchLocked(const int64_t& searchId, std::list<SearchRequest>& stopped);
    std::future<void> EnqueueClose(const int64_t& id);

    // ---- the worker ----

    void WorkerLoop();
    void StartEngine();
    // Tells the worker that work was queued or stop was set (after the lock is released).
    void Wake() {
        wakeups.fetch_add(1, std::memory_order_release);
        queueCondition.notify_all();
    }
    bool WaitForWork();
    bool HasWork() const;  // queueMutex held
    void ServePass();
    template <class Record, class Result>
    void ServeOne(Queue<Record, Result>& queue);
    void ServeCallerWork();
    void ServePageInfoRequest();
    void ServePendingImage(PendingImages& pending);
    void ServeSearchStep();
    void PurgeStoppedSearches();
    void ShutDown();

    // ---- registry (worker) ----

    // The open document, or an empty pointer.
    std::shared_ptr<IDocument> FindDocument(int64_t id) const;
    int64_t RegisterDocument(std::shared_ptr<IDocument> document);

    // ---- task bodies (worker) ----

    OpenDocInfo OpenDocument(const OpenDocumentTask& task);
    std::shared_ptr<IDocument> CreateImageDocument(const Orvane::ioPath& path);
    bool SaveDocument(const SaveDocumentTask& task);
    void CloseDocument(const int64_t& id);
    void PurgeQueuedWork(const int64_t& id, std::vector<std::shared_ptr<void>>& discarded);  // queueMutex held

    PageInfo PageInfoOf(int64_t id, unsigned page) const;
    QImage RenderPageImage(const std::shared_ptr<IDocument>& document, const PageImageTask& request) const;
    DestinationLinkInfo HandleLink(const PagePositionTask& task) const;
    bool IsInsideLinkArea(const PagePositionTask& task) const;
    Rect GetPageObjectBounds(const PagePositionTask& task) const;
    std::shared_ptr<ITextObject> GetPageTextObject(const PageTask& task) const;
    void SearchStep(SearchRequest& request);

    void AddBlankPage(const int64_t& id, unsigned index, int width, int height);
    void DeletePages(const DeletePagesTask& task);
    void MovePages(const MovePagesTask& task);
    void RotatePage(const RotationPageTask& task);
    void ImportPages(const ImportPageTask& task);
    void ImportAllPages(const ImportPageTask& task);
    bool ExportPages(const ExportTask& task);

    // ---- members ----

    // Pending asynchronous images: [0] for the default view, [1] for every other view.
    PendingImages pendingImages[2];  // guarded by queueMutex

    // Request queues, in the order the worker serves them (see ServePass).
    Queue<OpenDocumentTask, OpenDocInfo> openQueue;                 // guarded by queueMutex
    std::list<PageInfoRequest> pageInfoRequests;                    // guarded by queueMutex
    Queue<PageTask, PageInfo> pageInfoQueue;                        // guarded by queueMutex
    Queue<PageImageTask, QImage> pageImageQueue;                    // guarded by queueMutex
    Queue<TileTask, QImage> tileQueue;                              // guarded by queueMutex
    std::list<TileTask> pendingTiles;                               // guarded by queueMutex; oldest first
    Queue<PagePositionTask, Rect> objectBoundsQueue;                // guarded by queueMutex
    Queue<PageTask, std::shared_ptr<ITextObject>> textObjectQueue;  // guarded by queueMutex
    std::list<ReadingWork> readingQueue;                            // guarded by queueMutex
    Queue<RotationPageTask, void> rotationQueue;                    // guarded by queueMutex
    std::list<CallerWork> callerWorkQueue;                          // guarded by queueMutex
    Queue<ImportPageTask, void> importQueue;                        // guarded by queueMutex
    Queue<SaveDocumentTask, bool> saveQueue;                        // guarded by queueMutex
    Queue<ExportTask, bool> exportQueue;                            // guarded by queueMutex
    Queue<MovePagesTask, void> moveQueue;                           // guarded by queueMutex
    Queue<DeletePagesTask, void> deleteQueue;                       // guarded by queueMutex
    Queue<int64_t, void> blankPageQueue;                            // guarded by queueMutex
    Queue<PagePositionTask, bool> linkAreaQueue;                    // guarded by queueMutex
    Queue<PagePositionTask, DestinationLinkInfo> linkQueue;         // guarded by queueMutex
    Queue<int64_t, void> closeQueue;                                // guarded by queueMutex

    std::list<SearchRequest> searches;  // guarded by queueMutex
    std::set<int64_t> stoppedSearches;  // guarded by queueMutex

    // Written by the worker under queueMutex; read by callers under it and by
    // the worker without it.
    std::map<int64_t, std::shared_ptr<IDocument>> documents;
    int64_t nextDocumentId = 0;  // guarded by queueMutex
    int64_t nextSearchId = 0;    // guarded by queueMutex

    std::atomic<bool> stop{false};
    mutable std::mutex queueMutex;
    std::condition_variable queueCondition;
    std::atomic<uint64_t> wakeups{0};  // counts Wake() calls; the worker spins on it before it sleeps

    Orvane::Core::EventHandlerList<IPageInfoObserver, Orvane::Core::SyncExecutePolicy> observers;
    Orvane::Core::EventHandlerList<ITileObserver, Orvane::Core::SyncExecutePolicy> tileObservers;

    // Memory of the pictures handed out, reused once callers drop them (also
    // by the next document); at most kIdlePictureBytes of it waits unused.
    static constexpr size_t kIdlePictureBytes = size_t(64) << 20;
    const std::shared_ptr<Pdfium::PicturePool> pictures = Pdfium::PicturePool::Create(kIdlePictureBytes);

    std::shared_ptr<IFontProviderFactory> fontProviderFactory;
    std::shared_ptr<IFontProvider> fontProvider;  // worker only, from start to shutdown

    std::thread thread;  // started last
};

template <class Record, class Result, class Body>
std::future<Result> Quirelle::Impl::Enqueue(Queue<Record, Result>& queue, Record record, Body&& body) {
    std::packaged_task<Result(const Record&)> work(std::forward<Body>(body));
    std::future<Result> future = work.get_future();
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        queue.push_back({std::move(record), std::move(work)});
    }
    Wake();
    return future;
}

template <class Result, class Body>
std::future<Result> Quirelle::Impl::EnqueueReading(const int64_t& id, Body&& body) {
    auto work = std::make_shared<std::packaged_task<Result()>>(
        [this, id, body = std::forward<Body>(body)]() mutable -> Result {
            std::shared_ptr<IDocument> document = FindDocument(id);
            if (!document) throw std::invalid_argument("Invalid doc handle");
            return body(document);
        });
    std::future<Result> future = work->get_future();
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        readingQueue.push_back({id, [work] { (*work)(); }});
    }
    Wake();
    return future;
}

template <class Query>
auto Quirelle::Impl::WithOpenDocument(const int64_t& id, Query&& query) {
    std::lock_guard<std::mutex> lock(queueMutex);
    auto found = documents.find(id);
    if (found == documents.end() || !found->second) throw std::invalid_argument("Invalid doc handle");
    return query(*found->second);
}

template <class Record, class Result>
void Quirelle::Impl::ServeOne(Queue<Record, Result>& queue) {
    std::unique_lock<std::mutex> lock(queueMutex);
    if (queue.empty()) return;
    Queued<Record, Result> item = std::move(queue.front());
    queue.pop_front();
    lock.unlock();
    const Pdfium::RequestBudget budget;
    item.Run();
}

}  // namespace Orvane::PDF
