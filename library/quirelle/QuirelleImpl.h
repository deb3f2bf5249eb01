#pragma once

// The service's private implementation: the worker thread, its task queues,
// the pending asynchronous requests, the running searches, the registry of
// open documents and the observer list.
//
// Invariants:
// - queueMutex guards every queue and set below, the registry and the two id
//   counters; clang checks it (-Wthread-safety).
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
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Quirelle"
#include "ThreadSafety.h"
#include "WorkQueue.h"
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
        Orvane::ioPath path;   // empty: save to the document's own path
        bool decrypt = false;  // save as: write the copy without encryption
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

    // A queue of requests answered through futures.
    template <class Record, class Result>
    using Requests = WorkQueue<Queued<Record, Result>>;

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
    using PendingImageQueue = WorkQueue<PageImageTask, PendingImages>;

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
    struct LabelTask {
        int64_t id;
        std::string label;
    };
    struct SelectionTask {
        enum Kind { Between, Word, Line, All };
        int64_t id;
        unsigned page;
        Kind kind;
        Position from;  // the point of Word and Line
        Position to;    // Between only
    };

    // Work for one document in a queue whose requests answer different
    // types (annotations, forms): each task answers its own future;
    // destroyed unrun (purged on close, dropped at shutdown), it breaks it.
    struct DocumentWork {
        int64_t id;
        std::packaged_task<void(Impl&)> work;
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

private:
    // The facade reaches the queues, the enqueue path and the task bodies.
    friend class Quirelle;

    // ---- enqueue path (any thread) ----

    // Queues record for body, a member function (or a callable taking Impl&)
    // run on the worker with the record; its result answers the future.
    template <class Record, class Result, class Body>
    std::future<Result> Enqueue(Requests<Record, Result>& queue, typename Requests<Record, Result>::Record record,
                                Body body) EXCLUDES(queueMutex);
    // Queues body(Impl&, id) to queue; its result (or exception) answers the future.
    template <class Result, class Body>
    std::future<Result> EnqueueDocumentWork(WorkQueue<DocumentWork>& queue, const int64_t& id, Body body)
        EXCLUDES(queueMutex);
    // As EnqueueDocumentWork, body(IDocument&) run with the open document,
    // the engine the worker's alone (Pdfium::SoleUse).
    template <class Result, class Body>
    std::future<Result> EnqueueWithDocument(WorkQueue<DocumentWork>& queue, const int64_t& id, Body body)
        EXCLUDES(queueMutex);
    void EnqueueCallerWork(const int64_t& id, std::packaged_task<void(std::shared_ptr<IDocument>&)>&& work)
        EXCLUDES(queueMutex);

    // ---- immediate operations (caller's thread, under queueMutex) ----

    // Runs query (a callable or a member of IDocument) with the open document, under the lock. Throws
    // std::invalid_argument("Invalid doc handle") for an id that is not open.
    template <class Query>
    auto WithOpenDocument(const int64_t& id, Query&& query) EXCLUDES(queueMutex);

    // ---- asynchronous requests (caller's thread) ----

    void AddPageInfoRequest(const PageInfoRequest& request) EXCLUDES(queueMutex);
    void AddPageImageRequest(const PageImageTask& request) EXCLUDES(queueMutex);
    void CancelRequests(const int64_t& id, unsigned page, ViewType viewType) EXCLUDES(queueMutex);
    void RemovePendingPageInfo(const PageInfoRequest& key) REQUIRES(queueMutex);
    void RemovePendingPageImage(const PageImageTask& key) REQUIRES(queueMutex);
    PendingImageQueue& PendingSetFor(ViewType viewType) {
        return viewType == 0 ? pendingDefaultView : pendingOtherViews;
    }

    // ---- tiles (Reading.cpp, caller's thread) ----

    void AddTileRequest(const TileTask& request) EXCLUDES(queueMutex);
    void CancelTileRequests(const std::function<bool(const TileTask&)>& matches) EXCLUDES(queueMutex);

    // ---- forms (Forms.cpp) ----

    // Runs change with the open document (worker); calls the document's
    // form-change callback when it answers that a field changed.
    void ChangeForm(const int64_t& id, const std::function<bool(IDocument&)>& change);

    // ---- searches (caller's thread) ----

    int64_t AddSearch(const int64_t& id, unsigned startPage, const std::wstring& text, const SearchCallback& callback)
        EXCLUDES(queueMutex);
    void StopSearch(const int64_t& searchId) EXCLUDES(queueMutex);
    // The stopped search moves to stopped, to be destroyed unlocked (its
    // callback's captured state may call the service).
    void StopSearchLocked(const int64_t& searchId, std::list<SearchRequest>& stopped) REQUIRES(queueMutex);
    std::future<void> EnqueueClose(const int64_t& id) EXCLUDES(queueMutex);

    // ---- the worker ----

    void WorkerLoop();
    void StartEngine();
    // Tells the worker that work was queued or stop was set (after the lock is released).
    void Wake() {
        wakeups.fetch_add(1, std::memory_order_release);
        queueCondition.notify_all();
    }
    bool WaitForWork() EXCLUDES(queueMutex);
    bool HasWork() const REQUIRES(queueMutex) { return queues.AnyWork(queueMutex); }
    void ServePass();
    // The first element of queue, taken under the lock, if there is one.
    template <class Queue>
    auto TakeFirst(Queue& queue) EXCLUDES(queueMutex) {
        MutexLock lock(queueMutex);
        return queue.TakeFirst(queueMutex);
    }
    template <class Record, class Result>
    void ServeOne(Requests<Record, Result>& queue) EXCLUDES(queueMutex);
    void ServeCallerWork() EXCLUDES(queueMutex);
    void ServePageInfoRequest() EXCLUDES(queueMutex);
    void ServePendingImage(PendingImageQueue& pending) EXCLUDES(queueMutex);
    void ServePendingTile() EXCLUDES(queueMutex);
    void ServeDocumentWork(WorkQueue<DocumentWork>& queue) EXCLUDES(queueMutex);
    void ServeSearchStep() EXCLUDES(queueMutex);
    void PurgeStoppedSearches() EXCLUDES(queueMutex);
    void DropQueuedWork() EXCLUDES(queueMutex);
    void ShutDown() EXCLUDES(queueMutex);

    // ---- registry ----

    // The open document, or an empty pointer. Worker only, without the lock:
    // the worker is the registry's only writer.
    std::shared_ptr<IDocument> FindDocument(int64_t id) const NO_THREAD_SAFETY_ANALYSIS;
    // The open document (worker), or std::invalid_argument("Invalid doc handle").
    std::shared_ptr<IDocument> OpenDocumentOf(int64_t id) const;
    int64_t RegisterDocument(std::shared_ptr<IDocument> document) EXCLUDES(queueMutex);
    // Both documents of an import, looked up with insert-on-miss (see ImportExport.cpp).
    struct ImportHandles {
        std::shared_ptr<IDocument>* target;
        std::shared_ptr<IDocument>* source;
    };
    ImportHandles LookUpForImport(const ImportPageTask& task) EXCLUDES(queueMutex);

    // ---- task bodies (worker) ----

    OpenDocInfo OpenDocument(const OpenDocumentTask& task);
    std::shared_ptr<IDocument> CreateImageDocument(const Orvane::ioPath& path);
    bool SaveDocument(const SaveDocumentTask& task);
    void CloseDocument(const int64_t& id) EXCLUDES(queueMutex);

    PageInfo PageInfoOf(const PageTask& task) const;
    QImage GeneratePageImage(const PageImageTask& task) const;
    QImage RenderPageImage(const std::shared_ptr<IDocument>& document, const PageImageTask& request) const;
    DestinationLinkInfo HandleLink(const PagePositionTask& task) const;
    bool IsInsideLinkArea(const PagePositionTask& task) const;
    Rect GetPageObjectBounds(const PagePositionTask& task) const;
    std::shared_ptr<ITextObject> GetPageTextObject(const PageTask& task) const;
    void SearchStep(SearchRequest& request);

    // Reading (Reading.cpp).
    std::vector<OutlineEntry> Outline(const int64_t& id) const;
    std::vector<std::string> PageLabels(const int64_t& id) const;
    int PageByLabel(const LabelTask& task) const;
    DocumentInformation Information(const int64_t& id) const;
    TextSelection Select(const SelectionTask& task) const;
    QImage RenderTile(const TileTask& task) const;

    void AddBlankPage(const int64_t& id, unsigned index, int width, int height);
    void DeletePages(const DeletePagesTask& task);
    void MovePages(const MovePagesTask& task);
    void RotatePage(const RotationPageTask& task);
    void ImportPages(const ImportPageTask& task);
    void ImportAllPages(const ImportPageTask& task);
    bool ExportPages(const ExportTask& task);
    static bool EitherDocument(const ImportPageTask& task, int64_t id) {
        return task.sourceId == id || task.targetId == id;
    }

    // ---- members ----

    // Guards every queue below (each of their operations requires it), the
    // stop set, the registry and the two id counters. Held only to insert, to
    // take the first element, to look a document up or to edit the stop set;
    // never while a task runs, the engine is called or observers are notified.
    mutable Mutex queueMutex;

    // The queues, in the order the worker serves them (ServePass is that
    // order). Each enters this table as it is built: a queue declared here is
    // counted by the test for work, purged by a close (by its rule: which
    // records concern the closed document) and dropped at shutdown. A new
    // kind of task takes its record (above), its line here and its line in
    // ServePass; its operation is then one Enqueue in the facade.
    QueueTable queues;
    // clang-format off
    //       element type, name                                     table   purged on close by
    Requests<OpenDocumentTask, OpenDocInfo> openQueue               {queues, kKeptOnClose};
    WorkQueue<PageInfoRequest> pageInfoRequests                     {queues, SameDocument};
    Requests<PageTask, PageInfo> pageInfoQueue                      {queues, SameDocument};
    PendingImageQueue pendingDefaultView                            {queues, SameDocument};
    PendingImageQueue pendingOtherViews                             {queues, SameDocument};
    Requests<PageImageTask, QImage> pageImageQueue                  {queues, SameDocument};
    Requests<TileTask, QImage> tileQueue                            {queues, SameDocument};
    // Asynchronous tiles, oldest first; one pending request per tile.
    WorkQueue<TileTask> pendingTiles                                {queues, SameDocument};
    Requests<PagePositionTask, Rect> objectBoundsQueue              {queues, SameDocument};
    Requests<PageTask, std::shared_ptr<ITextObject>> textObjectQueue{queues, SameDocument};
    Requests<int64_t, std::vector<OutlineEntry>> outlineQueue       {queues, SameDocument};
    Requests<int64_t, std::vector<std::string>> pageLabelsQueue     {queues, SameDocument};
    Requests<LabelTask, int> pageByLabelQueue                       {queues, SameDocument};
    Requests<int64_t, DocumentInformation> informationQueue         {queues, SameDocument};
    Requests<SelectionTask, TextSelection> selectionQueue           {queues, SameDocument};
    Requests<RotationPageTask, void> rotationQueue                  {queues, SameDocument};
    // Annotation listing and changes, right after rotation.
    WorkQueue<DocumentWork> annotationQueue                         {queues, SameDocument};
    // Form queries and changes in one queue, so that each sees the ones before.
    WorkQueue<DocumentWork> formQueue                               {queues, SameDocument};
    WorkQueue<CallerWork> callerWorkQueue                           {queues, SameDocument};
    Requests<ImportPageTask, void> importQueue                      {queues, EitherDocument};
    Requests<SaveDocumentTask, bool> saveQueue                      {queues, SameDocument};
    Requests<ExportTask, bool> exportQueue                          {queues, SameDocument};
    Requests<MovePagesTask, void> moveQueue                         {queues, SameDocument};
    Requests<DeletePagesTask, void> deleteQueue                     {queues, SameDocument};
    Requests<int64_t, void> blankPageQueue                          {queues, SameDocument};
    Requests<PagePositionTask, bool> linkAreaQueue                  {queues, SameDocument};
    Requests<PagePositionTask, DestinationLinkInfo> linkQueue       {queues, SameDocument};
    // A close stops the search whose search id equals the document id, not
    // the document's own searches: those end at their next step.
    WorkQueue<SearchRequest> searches                               {queues, kKeptOnClose};
    // A second close of the same id stays queued: it finds nothing to close.
    Requests<int64_t, void> closeQueue                              {queues, kKeptOnClose};
    // clang-format on

    // Search ids to remove from searches in the pass's purge step. Not work:
    // stop requests alone never start a pass.
    std::set<int64_t> stoppedSearches GUARDED_BY(queueMutex);

    // Written only by the worker, under queueMutex; read by callers under it
    // and by the worker without it (FindDocument).
    std::map<int64_t, std::shared_ptr<IDocument>> documents GUARDED_BY(queueMutex);
    int64_t nextDocumentId GUARDED_BY(queueMutex) = 0;
    int64_t nextSearchId GUARDED_BY(queueMutex) = 0;

    std::atomic<bool> stop{false};
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
std::future<Result> Quirelle::Impl::Enqueue(Requests<Record, Result>& queue,
                                            typename Requests<Record, Result>::Record record, Body body) {
    std::packaged_task<Result(const Record&)> work(
        [this, body](const Record& task) { return std::invoke(body, *this, task); });
    std::future<Result> future = work.get_future();
    {
        MutexLock lock(queueMutex);
        queue.Add(queueMutex, {std::move(record), std::move(work)});
    }
    Wake();
    return future;
}

template <class Result, class Body>
std::future<Result> Quirelle::Impl::EnqueueDocumentWork(WorkQueue<DocumentWork>& queue, const int64_t& id, Body body) {
    std::packaged_task<Result(Impl&)> task([id, body = std::move(body)](Impl& impl) { return body(impl, id); });
    std::future<Result> future = task.get_future();
    {
        MutexLock lock(queueMutex);
        queue.Add(queueMutex, {id, std::packaged_task<void(Impl&)>(std::move(task))});
    }
    Wake();
    return future;
}

template <class Result, class Body>
std::future<Result> Quirelle::Impl::EnqueueWithDocument(WorkQueue<DocumentWork>& queue, const int64_t& id, Body body) {
    return EnqueueDocumentWork<Result>(queue, id, [body = std::move(body)](Impl& impl, int64_t doc) {
        const std::shared_ptr<IDocument> document = impl.OpenDocumentOf(doc);
        const Pdfium::SoleUse sole;
        return body(*document);
    });
}

template <class Query>
auto Quirelle::Impl::WithOpenDocument(const int64_t& id, Query&& query) {
    MutexLock lock(queueMutex);
    auto found = documents.find(id);
    if (found == documents.end() || !found->second) throw std::invalid_argument("Invalid doc handle");
    return std::invoke(std::forward<Query>(query), *found->second);
}

template <class Record, class Result>
void Quirelle::Impl::ServeOne(Requests<Record, Result>& queue) {
    std::optional<Queued<Record, Result>> item = TakeFirst(queue);
    if (!item) return;
    const Pdfium::RequestBudget budget;
    item->Run();
}

}  // namespace Orvane::PDF
