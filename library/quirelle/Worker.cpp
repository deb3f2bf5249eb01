// The worker thread: its start, its passes over the queues and its shutdown.
//
// One pass serves every queue once, in the fixed order of ServePass, taking at
// most one task from each: every kind of work advances by one task a pass and
// none can starve another. The worker sleeps only when every queue of Impl's
// table is empty (the two pending-image sets among them); stop requests alone
// never start a pass.

#include <chrono>
#include <system_error>
#include <thread>

#include "Log.h"
#include "QuirelleImpl.h"
#include "engine/Context.h"
#include "orvane/pdf/SystemFontProviderFactory.h"

namespace Orvane::PDF {
namespace {

constexpr auto kSpinBeforeSleep = std::chrono::microseconds(100);

}  // namespace

Quirelle::Impl::Impl(const std::shared_ptr<IFontProviderFactory>& factory)
    : fontProviderFactory(factory ? factory : std::make_shared<SystemFontProviderFactory>()) {
    thread = std::thread([this] { WorkerLoop(); });
}

Quirelle::Impl::~Impl() {
    {
        // Set under the lock so the worker cannot miss it between its test
        // for work and its wait.
        MutexLock lock(queueMutex);
        stop.exchange(true);
    }
    Wake();
    thread.join();
    DropQueuedWork();
}

void Quirelle::Impl::WorkerLoop() {
    StartEngine();
    while (!stop.load()) {
        if (WaitForWork()) ServePass();
    }
    ShutDown();
}

void Quirelle::Impl::StartEngine() {
    try {
        fontProvider = fontProviderFactory->CreateFontProvider();
        Pdfium::PdfiumInitializer::Instance().InitLibrary();
    } catch (const std::exception& e) {
        // Tasks still run and report the engine's absence through their own answers.
        QUIRELLE_LOG(ERROR) << "Orvane::PDF::Quirelle::Impl::WorkerLoop: cannot start the PDF engine: " << e.what();
    } catch (...) {
        QUIRELLE_LOG(ERROR) << "Orvane::PDF::Quirelle::Impl::WorkerLoop: cannot start the PDF engine";
    }
}

// True when there is work to serve; otherwise waits for a wake-up and answers
// false. A viewer asks in bursts (a page's info, then its picture, then the
// next page), so before sleeping the worker stays awake for a moment: the next
// request of a burst is then served without paying for waking the thread.
bool Quirelle::Impl::WaitForWork() {
    MutexLock lock(queueMutex);
    if (HasWork()) return true;
    if (stop.load()) return false;
    const uint64_t seen = wakeups.load(std::memory_order_acquire);
    lock.Unlock();
    const auto until = std::chrono::steady_clock::now() + kSpinBeforeSleep;
    while (wakeups.load(std::memory_order_acquire) == seen && std::chrono::steady_clock::now() < until) {
        std::this_thread::yield();
    }
    lock.Lock();
    if (HasWork()) return true;
    if (!stop.load()) lock.Wait(queueCondition);
    return false;
}

// The order of service: one task from each queue, in this order. Opening
// comes first, so a document is open before any request made after the open
// is served; closing comes last, after everything already queued for the
// document in this pass.
void Quirelle::Impl::ServePass() {
    ServeOne(openQueue);                    //  1 open / create
    ServePageInfoRequest();                 //  2 asynchronous page information
    ServeOne(pageInfoQueue);                //  3 page information
    ServePendingImage(pendingDefaultView);  //  4 asynchronous images, default view
    ServePendingImage(pendingOtherViews);   //    asynchronous images, other views
    ServeOne(pageImageQueue);               //  5 page images
    ServeOne(tileQueue);                    //    tiles
    ServePendingTile();                     //    asynchronous tiles
    ServeOne(objectBoundsQueue);            //  6 object bounds
    ServeOne(textObjectQueue);              //  7 text objects
    ServeOne(outlineQueue);                 //    outline
    ServeOne(pageLabelsQueue);              //    page labels
    ServeOne(pageByLabelQueue);             //    page by label
    ServeOne(informationQueue);             //    document information
    ServeOne(selectionQueue);               //    selection
    ServeOne(rotationQueue);                //  8 rotation
    ServeDocumentWork(annotationQueue);     //    annotations: listing and changes
    ServeDocumentWork(formQueue);           //    form fields
    ServeCallerWork();                      //  9 caller's work
    ServeOne(importQueue);                  // 10 import
    ServeOne(saveQueue);                    // 11 save, save as
    ServeOne(exportQueue);                  // 12 export
    ServeOne(moveQueue);                    // 13 move
    ServeOne(deleteQueue);                  // 14 delete
    ServeOne(blankPageQueue);               // 15 blank page
    ServeOne(linkAreaQueue);                // 16 link area
    ServeOne(linkQueue);                    // 17 link
    ServeSearchStep();                      // 18 one page of one search
    PurgeStoppedSearches();                 // 19 stopped searches
    ServeOne(closeQueue);                   // 20 close
}

void Quirelle::Impl::ServeCallerWork() {
    std::optional<CallerWork> item = TakeFirst(callerWorkQueue);
    if (!item) return;
    std::shared_ptr<IDocument> document = FindDocument(item->id);
    const Pdfium::RequestBudget budget;
    try {
        item->work(document);
    } catch (const std::future_error& e) {
        // A task the caller had already run: nothing to answer.
        QUIRELLE_LOG(ERROR) << "ExecuteWithDocument: the task cannot run: " << e.what();
    }
}

void Quirelle::Impl::ShutDown() {
    decltype(documents) released;
    {
        MutexLock lock(queueMutex);
        released.swap(documents);
    }
    released.clear();  // every document goes on the thread that made it
    Pdfium::PdfiumInitializer::Instance().Uninitialize();
    fontProvider.reset();
}

// After the worker has stopped: what is still queued is destroyed unrun, on
// the destroying thread. Its futures report broken promise; pending
// asynchronous requests go unanswered.
void Quirelle::Impl::DropQueuedWork() {
    Discarded dropped;
    MutexLock lock(queueMutex);
    queues.Drop(queueMutex, dropped);
    lock.Unlock();
}

void Quirelle::Impl::EnqueueCallerWork(const int64_t& id,
                                       std::packaged_task<void(std::shared_ptr<IDocument>&)>&& work) {
    {
        MutexLock lock(queueMutex);
        callerWorkQueue.Add(queueMutex, {id, std::move(work)});
    }
    Wake();
}

// Reads the registry without the lock: only the worker writes it, and this
// runs on the worker.
std::shared_ptr<IDocument> Quirelle::Impl::FindDocument(int64_t id) const {
    auto found = documents.find(id);
    return found == documents.end() ? nullptr : found->second;
}

std::shared_ptr<IDocument> Quirelle::Impl::OpenDocumentOf(int64_t id) const {
    std::shared_ptr<IDocument> document = FindDocument(id);
    if (!document) throw std::invalid_argument("Invalid doc handle");
    return document;
}

void Quirelle::Impl::ServeDocumentWork(WorkQueue<DocumentWork>& queue) {
    std::optional<DocumentWork> item = TakeFirst(queue);
    if (!item) return;
    const Pdfium::RequestBudget budget;
    item->work(*this);
}

int64_t Quirelle::Impl::RegisterDocument(std::shared_ptr<IDocument> document) {
    MutexLock lock(queueMutex);
    const int64_t id = nextDocumentId++;
    documents[id] = std::move(document);
    return id;
}

}  // namespace Orvane::PDF
