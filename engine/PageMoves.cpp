// Moving pages within a document.

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/Engine.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF::Pdfium {

void MovePages(const std::shared_ptr<IDocument>& document, const std::vector<unsigned>& pages, unsigned destination) {
    PdfDocument& engineDoc = EngineDocument(document, "edited");
    const RequestBudget budget;
    fz_context* ctx = engineDoc.Core()->ctx;
    pdf_document* doc = engineDoc.Core()->doc;
    const int count = PageCount(ctx, doc);
    std::vector<unsigned> moved;
    for (unsigned page : pages) {
        if (page >= unsigned(std::max(count, 0))) {
            throw std::out_of_range("no page " + std::to_string(page) + " in a document of " + std::to_string(count) +
                                    " pages");
        }
        if (std::find(moved.begin(), moved.end(), page) == moved.end()) moved.push_back(page);
    }
    if (moved.empty()) return;
    const PageTree tree = ReadPageTree(ctx, doc);
    std::vector<PdfObjHandle> objects;
    for (unsigned page : moved) {
        pdf_obj* obj = PageObject(ctx, doc, tree, int(page));
        objects.emplace_back(ctx, guarded(ctx, [&] { return pdf_keep_obj(ctx, obj); }));
    }
    std::vector<unsigned> descending = moved;
    std::sort(descending.rbegin(), descending.rend());
    engineDoc.Core()->Changed();
    for (unsigned page : descending) RemovePage(ctx, doc, int(page));
    // Only the last listed page is compared: for an ascending list every
    // moved page stood before the destination exactly when the last one did.
    const int left = count - int(moved.size());
    const unsigned insertion = destination > pages.back() ? destination - unsigned(moved.size()) : destination;
    const int at = int(std::min(insertion, unsigned(left)));
    std::vector<pdf_obj*> inserted;
    for (const PdfObjHandle& obj : objects) inserted.push_back(obj.get());
    InsertPages(ctx, doc, at, inserted);
    engineDoc.RefreshPageCount();
}

}  // namespace Orvane::PDF::Pdfium
