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
#include "orvane/pdf/ImageFiles.h"

namespace Orvane::PDF {

IPDFProvider::OpenDocInfo Quirelle::Impl::OpenDocument(const OpenDocumentTask& task) {
    Orvane::ioPath path = task.path;
    if (!path.empty()) path.make_preferred();
    std::shared_ptr<IDocument> document;
    const Pdfium::SoleUse sole;
    try {
        if (IsImageFileExtension(path.extension().utf8string())) {
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
    // The document is the worker's alone while it is saved, and so is a copy
    // made of it: no engine locks while no other thread holds a context.
    const Pdfium::SoleUse sole;
    auto* source = dynamic_cast<Pdfium::PdfDocument*>(document.get());
    if (task.path.empty()) {
        if (source != nullptr) {
            source->RemoveHiddenObjectsBeforeSave(target);
        } else {
            document->RemoveHiddenObjects();
        }
        document->Save(target, 0);
        return true;
    }
    document->RemoveHiddenObjects();
    // Save as writes a fresh copy; the open document only takes the new path.
    // The copy is encrypted as the document is, unless the owner asked for
    // a copy without encryption.
    if (task.decrypt && source != nullptr && !source->HasOwnerAccess()) {
        QUIRELLE_LOG(ERROR) << "Orvane::PDF::Quirelle::Impl::SaveDocument: "
                            << "a copy without encryption needs the document opened with its owner password";
        return false;
    }
    auto copy = std::make_shared<Pdfium::PdfDocument>(fontProvider);
    if (document->GetPageCount() > 0) {
        std::unique_ptr<IPageImporter> importer = Pdfium::CreatePageImporter();
        importer->ImportAllPages(document, copy, 0);
    }
    if (source != nullptr && !task.decrypt) copy->KeepEncryptionOf(*source);
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
        MutexLock lock(queueMutex);
        // Stops the search whose search id equals the document id (the two
        // counters are separate, so not necessarily a search of this
        // document); the document's own searches end at their next step.
        StopSearchLocked(id, stopped);
        closeQueue.Add(queueMutex, {id, std::move(work)});
    }
    Wake();
    return future;
}

void Quirelle::Impl::CloseDocument(const int64_t& id) {
    Discarded discarded;
    std::shared_ptr<IDocument> closing;
    {
        MutexLock lock(queueMutex);
        // Every queue, each by its own rule (see the table of queues).
        queues.Purge(queueMutex, id, discarded);
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

}  // namespace Orvane::PDF
