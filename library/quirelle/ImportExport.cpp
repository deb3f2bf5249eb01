// Copies of pages between open documents (import) and into a new file
// (export). The engine's importer copies resources the pages share once per
// call.

#include "Log.h"
#include "QuirelleImpl.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {
namespace {

bool EitherUndefined(const Quirelle::Impl::ImportPageTask& task) {
    if (task.targetId == -1 || task.sourceId == -1) {
        QUIRELLE_LOG(ERROR) << "One of documents for copy/paste is undefined";
        return true;
    }
    return false;
}

}  // namespace

// Looks both ids up with insert-on-miss: an id that names no open document
// gains an empty entry, and the importer gets that empty handle (and throws).
Quirelle::Impl::ImportHandles Quirelle::Impl::LookUpForImport(const ImportPageTask& task) {
    MutexLock lock(queueMutex);
    std::shared_ptr<IDocument>* target = &documents[task.targetId];
    std::shared_ptr<IDocument>* source = &documents[task.sourceId];
    // Map nodes stay put until the worker itself erases them.
    return {target, source};
}

void Quirelle::Impl::ImportPages(const ImportPageTask& task) {
    if (EitherUndefined(task)) return;
    std::unique_ptr<IPageImporter> importer = Pdfium::CreatePageImporter();
    const ImportHandles handles = LookUpForImport(task);
    importer->ImportPages(*handles.source, task.pages, *handles.target, task.position);
}

void Quirelle::Impl::ImportAllPages(const ImportPageTask& task) {
    if (EitherUndefined(task)) return;
    std::unique_ptr<IPageImporter> importer = Pdfium::CreatePageImporter();
    const ImportHandles handles = LookUpForImport(task);
    importer->ImportAllPages(*handles.source, *handles.target, task.position);
}

bool Quirelle::Impl::ExportPages(const ExportTask& task) {
    std::shared_ptr<IDocument> source = FindDocument(task.id);
    if (!source) return false;
    try {
        if (QUIRELLE_VERBOSE(30)) {
            QUIRELLE_LOG(INFO) << "Save " << task.pages.size() << " page(s) to document " << task.path.utf8string();
        }
        source->RemoveHiddenObjects();
        auto exported = std::make_shared<Pdfium::PdfDocument>(fontProvider);
        std::unique_ptr<IPageImporter> importer = Pdfium::CreatePageImporter();
        importer->ImportPages(source, task.pages, exported, 0);
        // Written through a temporary file: a failure leaves no new file behind.
        exported->Save(task.path, 0);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace Orvane::PDF
