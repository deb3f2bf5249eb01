#include "engine/PdfPage.h"

#include <glog/logging.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

#include "engine/ContentRun.h"
#include "engine/Context.h"
#include "engine/FontLoader.h"
#include "engine/Geometry.h"
#include "engine/Watchdog.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/TextObject.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// /Rotate snapped to a quarter turn the way MuPDF draws it.
int quarterTurns(int degrees) {
    if (degrees < 0) degrees = 360 - ((-(degrees + 1)) % 360) - 1;  // no overflow at INT_MIN
    degrees %= 360;
    degrees = 90 * ((degrees + 45) / 90);
    return degrees >= 360 ? 0 : degrees / 90;
}

PageHandle loadPage(fz_context* ctx, pdf_document* doc, int index) {
    return PageHandle(ctx, guarded(ctx, [&] { return fz_load_page(ctx, &doc->super, index); }));
}

bool isPageAt(fz_context* ctx, pdf_document* doc, const PageHandle& page, int index) {
    return guarded(ctx, [&] {
        pdf_obj* loaded = pdf_resolve_indirect(ctx, reinterpret_cast<pdf_page*>(page.get())->obj);
        return int(loaded == pdf_resolve_indirect(ctx, pdf_lookup_page_obj(ctx, doc, index)));
    });
}

}  // namespace

// ---- PdfPage ----

PdfPage::PdfPage(std::shared_ptr<DocumentCore> core, PageHandle page) : core_(std::move(core)), page_(std::move(page)) {
    if (!core_ || !page_) throw std::invalid_argument("PdfPage needs a document and a page");
}

PdfPage::~PdfPage() {
    const ScopedContext scoped;
    fz_drop_page(scoped.get(), page_.release());
}

PdfPage::Geometry PdfPage::ReadGeometry() const {
    fz_context* ctx = Context();
    pdf_page* page = Native();
    return guarded(ctx, [&] {
        Geometry g;
        fz_matrix ctm;
        pdf_page_transform(ctx, page, &g.box, &ctm);
        g.quarterTurns = quarterTurns(pdf_to_int(ctx, pdf_dict_get_inheritable(ctx, page->obj, PDF_NAME(Rotate))));
        return g;
    });
}

void PdfPage::ThrowIfPastBudget() const {
    if (core_->pastBudget.empty()) return;
    const auto found = core_->pastBudget.find(pdf_to_num(Context(), Native()->obj));
    if (found == core_->pastBudget.end()) return;
    const DocumentCore::PastBudget& past = found->second;
    if (past.generation != core_->generation || TimeBudget().count() > past.budgetMs) {
        core_->pastBudget.erase(found);
        return;
    }
    throw Orvane::Exception(past.message);
}

void PdfPage::FailRun(const char* what, Cut cut) const {
    const long long budget = TimeBudget().count();
    std::string message = "page " + std::to_string(Number()) + ": " + what;
    switch (cut) {
        case Cut::Time:
            message += " ran past the time budget of " + std::to_string(budget) + " ms";
            break;
        case Cut::Work:
            message += " refused: the page asks for more work than the time budget of " + std::to_string(budget) +
                       " ms allows";
            break;
        case Cut::Memory:
            message += " ran out of memory (engine memory limit " + std::to_string(MemoryLimit() >> 20) + " MiB)";
            break;
    }
    if (cut != Cut::Memory) {
        const int object = pdf_to_num(Context(), Native()->obj);
        if (object > 0) core_->pastBudget[object] = DocumentCore::PastBudget{core_->generation, budget, message};
    }
    throw Orvane::Exception(message);
}

void PdfPage::CheckRun(const char* what, const ContentRun& run) const {
    if (run.expired) FailRun(what, Cut::Time);
    if (run.workRefused) FailRun(what, Cut::Work);
    // Past the budget every allocation is refused: the budget is the cause.
    if (run.shortOfMemory) FailRun(what, RequestBudget::Expired() ? Cut::Time : Cut::Memory);
}

Size PdfPage::GetSize() const {
    const Geometry g = ReadGeometry();
    const double width = g.box.x1 - g.box.x0;
    const double height = g.box.y1 - g.box.y0;
    return g.quarterTurns % 2 ? Size{height, width} : Size{width, height};
}

Rect PdfPage::GetPageRect() const {
    return ToRect(ReadGeometry().box);
}

IPage::Rotation PdfPage::GetRotation() {
    return static_cast<Rotation>(ReadGeometry().quarterTurns);
}

void PdfPage::SetRotation(Rotation rotation) {
    if (rotation < Rotate0 || rotation > Rotate270) throw std::invalid_argument("rotation out of range");
    fz_context* ctx = Context();
    pdf_obj* obj = Native()->obj;
    guarded(ctx, [&] { pdf_dict_put_int(ctx, obj, PDF_NAME(Rotate), 90 * static_cast<int>(rotation)); });
    core_->Changed();
    if (core_->onPagesChanged) core_->onPagesChanged();
}

std::shared_ptr<ITextObject> PdfPage::GetTextObject() {
    ThrowIfPastBudget();
    const RequestBudget budget;
    ScopedFontProvider fonts(core_->fonts.get());
    return ExtractText(*this);
}

// ---- MakePage ----

std::shared_ptr<IPage> MakePage(const std::shared_ptr<DocumentCore>& core, unsigned index) {
    if (!core) throw std::invalid_argument("MakePage: no document");
    const RequestBudget budget;
    fz_context* ctx = core->ctx;
    pdf_document* doc = core->doc;
    const int count = PageCount(ctx, doc);
    if (count < 0 || index >= static_cast<unsigned>(count)) {
        throw std::out_of_range("page index " + std::to_string(index) + " out of range (" + std::to_string(count) +
                                " pages)");
    }
    const int number = static_cast<int>(index);
    PageHandle page = loadPage(ctx, doc, number);
    if (!isPageAt(ctx, doc, page, number)) {
        // A page loaded before pages were inserted or deleted answered for
        // its old number.
        page.reset();
        RenumberOpenPages(ctx, doc);
        page = loadPage(ctx, doc, number);
    }
    return std::make_shared<PdfPage>(core, std::move(page));
}

}  // namespace Orvane::PDF::Pdfium
