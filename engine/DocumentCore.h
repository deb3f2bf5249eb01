#pragma once

// What a document shares with its pages: the MuPDF document and the context
// of the thread that opened it. Pages hold it, so a page stays usable while
// anyone holds it; the last holder drops the document.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "orvane/pdf/Document.h"

namespace Orvane::PDF::Pdfium {

// Drops the pages of the document recorded for drawing (DisplayListCache.cpp).
void DropRecordedPages(fz_context* ctx, uint64_t document) noexcept;

struct DocumentCore {
    DocumentCore(fz_context* context, pdf_document* document) : ctx(context), doc(document) {}
    ~DocumentCore() {
        DropRecordedPages(ctx, serial);
        pdf_drop_document(ctx, doc);
    }
    DocumentCore(const DocumentCore&) = delete;
    DocumentCore& operator=(const DocumentCore&) = delete;

    fz_context* const ctx;
    pdf_document* const doc;
    // Called after the page list or a page's rotation changed (keeps the
    // document's metadata current). Set by the owning PdfDocument.
    std::function<void()> onPagesChanged;
    // Font provider of the owning document, for ScopedFontProvider.
    std::shared_ptr<IFontProvider> fonts;

    // Names the document in the cache of recorded pages, unique in the process.
    const uint64_t serial = nextSerial++;
    // Counts the document's changes: every change of what a page shows
    // (content, annotations, rotation, the page list) calls Changed(), so a
    // page recorded before it is never drawn again. Document thread only.
    uint64_t generation = 0;
    void Changed() { ++generation; }

private:
    static inline std::atomic<uint64_t> nextSerial{1};
};

// The page at index (std::out_of_range when there is none).
std::shared_ptr<IPage> MakePage(const std::shared_ptr<DocumentCore>& core, unsigned index);

}  // namespace Orvane::PDF::Pdfium
