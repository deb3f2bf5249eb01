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
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "engine/Context.h"
#include "orvane/pdf/Document.h"

namespace Orvane::PDF::Pdfium {

// Drops the pages of the document recorded for drawing (DisplayListCache.cpp).
void DropRecordedPages(fz_context* ctx, uint64_t document) noexcept;

// A file as it stood on disk: where, which, how long, when last written.
struct DocumentCoreSource {
    bool known = false;
    std::string path;  // canonical
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = -1;
    int64_t modifiedNs = 0;
};

struct DocumentCore {
    DocumentCore(fz_context* context, pdf_document* document) : ctx(context), doc(document) {}
    // On any thread: the last holder may be the application, after the
    // thread that opened the document has gone.
    ~DocumentCore() {
        const ScopedContext scoped;
        DropRecordedPages(scoped.get(), serial);
        pdf_drop_document(scoped.get(), doc);
    }
    DocumentCore(const DocumentCore&) = delete;
    DocumentCore& operator=(const DocumentCore&) = delete;

    const EngineReference engine;  // first: outlives the document
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

    // Pages whose content ran past the time budget, by page object number,
    // with the generation and budget of that run and what it answered: the
    // same answer is given at once until the document changes or the budget
    // is raised. Document thread only.
    struct PastBudget {
        uint64_t generation;
        long long budgetMs;
        std::string message;
    };
    std::unordered_map<int, PastBudget> pastBudget;

    // The file the document was opened from as it was then, or as this
    // document last appended to it (IncrementalSave.cpp).
    DocumentCoreSource source;
    // Annotations made or changed through the service, by object number:
    // hidden or not, a save keeps them. Document thread only.
    std::unordered_set<int> userAnnotations;
    // The generation at which hidden annotations were last looked for in
    // the document's update alone (0: the last look took every page). A
    // save that rewrites the file at that generation looks at every page.
    uint64_t hiddenUpdateOnly = 0;

private:
    static inline std::atomic<uint64_t> nextSerial{1};
};

// How every save writes: streams compressed (images and fonts too), the
// document's encryption kept.
inline pdf_write_options SaveWriteOptions() {
    pdf_write_options options = pdf_default_write_options;
    options.do_compress = 1;
    options.do_compress_images = 1;
    options.do_compress_fonts = 1;
    options.do_encrypt = PDF_ENCRYPT_KEEP;
    return options;
}

// A named destination (name or string), looked up in the catalog's /Dests
// and, when not there, in the /Names tree, with bounded work. C only: call
// inside guarded().
pdf_obj* LookupNamedDestination(fz_context* ctx, pdf_document* doc, pdf_obj* name);

// Where a destination leads (an explicit array, a name or string naming one,
// or a dictionary holding it under /D), resolved as links resolve theirs:
// pageIndex -1 when it names no page of the document. pageIndices, when
// given, remembers the page index of each page object met (for many
// destinations resolved while the page list stays as it is).
LinkDestination ResolveDestination(const DocumentCore& core, pdf_obj* dest,
                                   std::unordered_map<int, int>* pageIndices = nullptr);

// The page at index (std::out_of_range when there is none).
std::shared_ptr<IPage> MakePage(const std::shared_ptr<DocumentCore>& core, unsigned index);

}  // namespace Orvane::PDF::Pdfium
