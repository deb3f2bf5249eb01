#pragma once

// A page of a PdfDocument. It holds the document's core, so the MuPDF document
// stays alive as long as the page does, and the page loaded from MuPDF's list
// of open pages. Made and used on the document's thread only.

#include <memory>
#include <optional>
#include <vector>

#include "engine/DocumentCore.h"
#include "engine/Handles.h"
#include "orvane/pdf/Document.h"

namespace Orvane::PDF::Pdfium {

// One entry of a page's object list: what was painted and where (page space).
struct ContentRun;

struct PageObjectInfo {
    IPageObject::Kind kind = IPageObject::Unknown;
    Rect bounds;
};

class PdfPage : public IPage {
public:
    PdfPage(std::shared_ptr<DocumentCore> core, PageHandle page);
    // On any thread, as the document (DocumentCore).
    ~PdfPage() override;
    PdfPage(const PdfPage&) = delete;
    PdfPage& operator=(const PdfPage&) = delete;

    Size GetSize() const override;
    Rect GetPageRect() const override;
    Rotation GetRotation() override;
    void SetRotation(Rotation rotation) override;
    std::vector<int> GetObjectIndices() override;
    int GetObjectCount() override;
    std::unique_ptr<IPageObject> GetObject(int index) override;
    std::shared_ptr<ITextObject> GetTextObject() override;
    std::vector<std::shared_ptr<IAnnotation>> GetAnnotations(int subtype) override;
    std::vector<std::shared_ptr<IAnnotation>> GetAllAnnotations() override;
    std::optional<Rect> GetObjectBoundsAt(double x, double y, int kind) override;

    // For the renderer and the text extraction.
    const std::shared_ptr<DocumentCore>& Core() const { return core_; }
    fz_context* Context() const { return core_->ctx; }
    pdf_page* Native() const { return reinterpret_cast<pdf_page*>(page_.get()); }

    // For a page whose content ran past the time budget before (same
    // document generation, budget not raised since): throws what that run
    // threw, at once.
    void ThrowIfPastBudget() const;
    // Throws for a run over the page's content (what: "rendering", ...) that
    // the limits cut short: past the time budget (remembered for the page,
    // as is work refused for being beyond any budget) or short of memory.
    enum class Cut { Time, Work, Memory };
    [[noreturn]] void FailRun(const char* what, Cut cut) const;
    // Fails the run when limits cut it short: the deadline expired, work was
    // refused, or an allocation was refused.
    void CheckRun(const char* what, const ContentRun& run) const;

private:
    struct Geometry {
        fz_rect box;  // crop box in page space, normalised
        int quarterTurns;
    };
    Geometry ReadGeometry() const;
    // The page's objects, gathered on first use and kept for this instance.
    const std::vector<PageObjectInfo>& Objects();
    std::vector<std::shared_ptr<IAnnotation>> ReadAnnotations(int subtype);
    int Number() const { return page_.get() ? page_.get()->number : -1; }

    // Declared first so that the page is dropped before the document.
    std::shared_ptr<DocumentCore> core_;
    PageHandle page_;
    std::optional<std::vector<PageObjectInfo>> objects_;
};

}  // namespace Orvane::PDF::Pdfium
