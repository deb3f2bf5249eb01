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

// The listed pages move, as they are, before the page that stood at
// destination: whatever refers to them follows.
void Quirelle::Impl::MovePages(const MovePagesTask& task) {
    std::shared_ptr<IDocument> document = FindDocument(task.id);
    if (!document || task.pages.empty()) return;
    document->RemoveHiddenObjects();
    document->FixupDocument();
    Pdfium::MovePages(document, task.pages, task.destination);
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
