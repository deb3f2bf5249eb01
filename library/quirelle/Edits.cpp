// Edits of a document's page list: blank pages, deletion, moves, rotation.
// An unknown id makes an edit do nothing. Nothing is caught: an engine
// failure reaches the caller's future, and the steps done before it stay done.

#include "QuirelleImpl.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {

void Quirelle::Impl::AddBlankPage(const int64_t& id, unsigned index, int width, int height) {
    std::shared_ptr<IDocument> document = FindDocument(id);
    if (!document) return;
    document->CreatePage(index, static_cast<double>(width), static_cast<double>(height));
}

void Quirelle::Impl::DeletePages(const DeletePagesTask& task) {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return;
    // In the caller's order: each deletion renumbers the pages behind it.
    for (unsigned page : task.pages) document->DeletePage(page);
}

// The listed pages (ascending) are copied aside, deleted, and copied back in
// before the page that stood at destination.
void Quirelle::Impl::MovePages(const MovePagesTask& task) {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document || task.pages.empty()) return;
    document->RemoveHiddenObjects();
    document->FixupDocument();
    std::shared_ptr<IDocument> moved = std::make_shared<Pdfium::PdfDocument>(fontProvider);
    std::unique_ptr<IPageImporter> importer = Pdfium::CreatePageImporter();
    importer->ImportPages(document, task.pages, moved, 0);
    for (auto page = task.pages.rbegin(); page != task.pages.rend(); ++page) document->DeletePage(*page);
    // Only the last entry is compared: for an ascending list every moved page
    // stood before the destination exactly when the last one did.
    const unsigned insertion = task.destination > task.pages.back()
                                   ? task.destination - static_cast<unsigned>(task.pages.size())
                                   : task.destination;
    importer->ImportAllPages(moved, document, static_cast<int>(insertion));
}

void Quirelle::Impl::RotatePage(const RotationPageTask& task) {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document) return;
    document->RemoveHiddenObjects();
    std::shared_ptr<IPage> page = document->GetPage(task.page);
    const int current = page->GetRotation();
    if (current < 0 || current > 3) return;
    int quarterTurns;
    switch (task.rotation) {
        case IPDFProvider::RotateClockwise:
            quarterTurns = 1;
            break;
        case IPDFProvider::RotateCounterClockwise:
            quarterTurns = 3;
            break;
        case IPDFProvider::RotateHalfTurn:
            quarterTurns = 2;
            break;
        default:
            return;
    }
    page->SetRotation(static_cast<IPage::Rotation>((current + quarterTurns) % 4));
}

}  // namespace Orvane::PDF
