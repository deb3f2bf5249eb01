// A document's life: open or create (registered under a fresh id), save and
// save as, close (queued work purged, registry entry erased). All task bodies
// run on the worker.

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "Log.h"
#include "QuirelleImpl.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"

namespace Orvane::PDF {
namespace {

bool IsImageExtension(const Orvane::ioPath& path) {
    std::string extension = path.extension().utf8string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* image : {".png", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff"}) {
        if (extension == image) return true;
    }
    return false;
}

// Removes from queue every element that matches, keeping the order of the
// others; the removed work moves to discarded, to be destroyed unlocked.
template <class List, class Matches>
void PurgeFrom(List& queue, Matches&& matches, std::vector<std::shared_ptr<void>>& discarded) {
    for (auto it = queue.begin(); it != queue.end();) {
        if (matches(*it)) {
            discarded.push_back(std::make_shared<typename List::value_type>(std::move(*it)));
            it = queue.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace

IPDFProvider::OpenDocInfo Quirelle::Impl::OpenDocument(const OpenDocumentTask& task) {
    Orvane::ioPath path = task.path;
    if (!path.empty()) path.make_preferred();
    std::shared_ptr<IDocument> document;
    const Pdfium::SoleUse sole;
    try {
        if (IsImageExtension(path)) {
            document = CreateImageDocument(path);
        } else if (path.empty()) {
            document = std::make_shared<Pdfium::PdfDocument>(fontProvider);
        } else {
            document = std::make_shared<Pdfium::PdfDocument>(fontProvider, path, task.password);
        }
    } catch (const std::runtime_error& e) {
        if (QUIRELLE_VERBOSE(10)) {
            QUIRELLE_LOG(INFO) << "Orvane::PDF::Quirelle::Impl::OpenDocument: Cannot create new document. Error: "
                               << e.what();
        }
        return {-1, false};
    } catch (const std::logic_error& e) {
        return {-1, std::string(e.what()) == "PASSWORD_ERROR"};
    } catch (const Orvane::Exception& e) {
        QUIRELLE_LOG(ERROR) << "Orvane::PDF::Quirelle::Impl::OpenDocument: " << e.what();
        return {-1, false};
    }
    return {RegisterDocument(std::move(document)), false};
}

bool Quirelle::Impl::SaveDocument(const SaveDocumentTask& task) {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) {
        QUIRELLE_LOG(ERROR) << "Orvane::PDF::Quirelle::Impl::SaveDocument: Cannot find document with id: " << task.id;
        return false;
    }
    const Orvane::ioPath target = task.path.empty() ? document->GetDocumentPath() : task.path;
    if (target.empty()) {
        QUIRELLE_LOG(ERROR) << "Failed to save a document with empty path";
        return false;
    }
    QUIRELLE_LOG(INFO) << "Save document: " << document->GetDocumentPath();
    document->RemoveHiddenObjects();
    if (task.path.empty()) {
        document->Save(target, 0);
        return true;
    }
    // Save as writes a fresh copy; the open document only takes the new path.
    auto copy = std::make_shared<Pdfium::PdfDocument>(fontProvider);
    if (document->GetPageCount() > 0) {
        std::unique_ptr<IPageImporter> importer = Pdfium::CreatePageImporter();
        importer->ImportAllPages(document, copy, 0);
    }
    copy->Save(target, 0);
    if (copy->GetDocumentPath().empty()) copy->SetDocumentPath(target);
    document->SetDocumentPath(target);
    return true;
}

std::future<void> Quirelle::Impl::EnqueueClose(const int64_t& id) {
    std::packaged_task<void(const int64_t&)> work([this](const int64_t& doc) { CloseDocument(doc); });
    std::future<void> future = work.get_future();
    std::list<SearchRequest> stopped;  // destroyed after the lock is released
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        // Stops the search whose search id equals the document id (the two
        // counters are separate, so not necessarily a search of this
        // document); the document's own searches end at their next step.
        StopSearchLocked(id, stopped);
        closeQueue.push_back({id, std::move(work)});
    }
    Wake();
    return future;
}

void Quirelle::Impl::CloseDocument(const int64_t& id) {
    std::vector<std::shared_ptr<void>> discarded;
    std::shared_ptr<IDocument> closing;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        PurgeQueuedWork(id, discarded);
        auto found = documents.find(id);
        if (found != documents.end()) {
            closing = std::move(found->second);
            documents.erase(found);
        }
    }
    // Unlocked: purged tasks break their promises, and the document goes
    // here unless a task elsewhere still holds it.
    discarded.clear();
    closing.reset();
}

void Quirelle::Impl::PurgeQueuedWork(const int64_t& id, std::vector<std::shared_ptr<void>>& discarded) {
    auto byId = [id](const auto& item) { return item.record.id == id; };
    auto byIdField = [id](const auto& item) { return item.id == id; };
    auto byPlainId = [id](const auto& item) { return item.record == id; };
    PurgeFrom(pageInfoRequests, byIdField, discarded);
    PurgeFrom(pageInfoQueue, byId, discarded);
    for (PendingImages& pending : pendingImages) {
        for (auto it = pending.begin(); it != pending.end();) it = it->id == id ? pending.erase(it) : std::next(it);
    }
    PurgeFrom(pageImageQueue, byId, discarded);
    PurgeFrom(objectBoundsQueue, byId, discarded);
    PurgeFrom(textObjectQueue, byId, discarded);
    PurgeFrom(tileQueue, byId, discarded);
    pendingTiles.remove_if(byIdField);
    PurgeFrom(readingQueue, byIdField, discarded);
    PurgeFrom(rotationQueue, byId, discarded);
    PurgeFrom(callerWorkQueue, byIdField, discarded);
    PurgeFrom(
        importQueue, [id](const auto& item) { return item.record.sourceId == id || item.record.targetId == id; },
        discarded);
    PurgeFrom(saveQueue, byId, discarded);
    PurgeFrom(exportQueue, byId, discarded);
    PurgeFrom(moveQueue, byId, discarded);
    PurgeFrom(deleteQueue, byId, discarded);
    PurgeFrom(blankPageQueue, byPlainId, discarded);
    PurgeFrom(linkAreaQueue, byId, discarded);
    PurgeFrom(linkQueue, byId, discarded);
    // Opens are never purged, and a second close of the same id stays queued:
    // it finds nothing to close and completes normally.
}

}  // namespace Orvane::PDF
