// Removing annotations that never show: which ones, and when something in
// the document could show them after all.

#include <glog/logging.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// An annotation that neither shows nor prints, whatever the viewer does with
// the mouse: Hidden (bit 2), or NoView (bit 6) without Print (bit 3) and
// without ToggleNoView (bit 9).
bool neverVisible(int flags) {
    if (flags & 2) return true;
    return (flags & 32) && !(flags & 4) && !(flags & 256);
}

int compareInts(const void* a, const void* b) {
    const int x = *static_cast<const int*>(a), y = *static_cast<const int*>(b);
    return (x > y) - (x < y);
}

// Counts the page's never-visible annotations (not widgets, not popups, not
// those in kept, sorted object numbers of annotations a user made) and,
// with drop, removes them from its /Annots. C only: runs inside guarded().
int hiddenAnnotations(fz_context* ctx, pdf_obj* page, int drop, const int* kept, size_t keptCount) {
    pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
    int found = 0;
    for (int i = pdf_array_len(ctx, annots) - 1; i >= 0; --i) {
        pdf_obj* annot = pdf_array_get(ctx, annots, i);
        if (!pdf_is_dict(ctx, annot)) continue;
        pdf_obj* subtype = pdf_dict_get(ctx, annot, PDF_NAME(Subtype));
        if (pdf_name_eq(ctx, subtype, PDF_NAME(Widget)) || pdf_name_eq(ctx, subtype, PDF_NAME(Popup))) continue;
        const int num = pdf_to_num(ctx, pdf_array_get(ctx, annots, i));
        if (num > 0 && keptCount > 0 && bsearch(&num, kept, keptCount, sizeof num, compareInts)) continue;
        if (neverVisible(pdf_dict_get_int(ctx, annot, PDF_NAME(F)))) {
            if (drop) pdf_array_delete(ctx, annots, i);
            ++found;
        }
    }
    return found;
}

// Whether value, or what it holds directly, is an action that can show a
// hidden annotation: a Hide action, or a script. C only.
int showsAnnotations(fz_context* ctx, pdf_obj* value, int depth) {
    if (depth > 32) return 0;
    if (pdf_is_dict(ctx, value)) {
        const char* kind = pdf_to_name(ctx, pdf_dict_get(ctx, value, PDF_NAME(S)));
        if (strcmp(kind, "Hide") == 0 || strcmp(kind, "JavaScript") == 0 || pdf_dict_get(ctx, value, PDF_NAME(JS)))
            return 1;
        for (int i = 0, n = pdf_dict_len(ctx, value); i < n; ++i) {
            pdf_obj* entry = pdf_dict_get_val(ctx, value, i);
            if (!pdf_is_indirect(ctx, entry) && showsAnnotations(ctx, entry, depth + 1)) return 1;
        }
    } else if (pdf_is_array(ctx, value)) {
        for (int i = 0, n = pdf_array_len(ctx, value); i < n; ++i) {
            pdf_obj* entry = pdf_array_get(ctx, value, i);
            if (!pdf_is_indirect(ctx, entry) && showsAnnotations(ctx, entry, depth + 1)) return 1;
        }
    }
    return 0;
}

// Whether anything in the document can show an annotation that its flags
// hide. An object that cannot be read is skipped; running out of memory or
// time answers yes (nothing is removed on a guess). C only.
int mayShowHidden(fz_context* ctx, pdf_document* doc) {
    const int count = pdf_xref_len(ctx, doc);
    for (int num = 1; num < count; ++num) {
        pdf_obj* obj = NULL;
        int shows = 0;
        fz_try(ctx) {
            obj = pdf_load_object(ctx, doc, num);
            shows = showsAnnotations(ctx, obj, 0);
        }
        fz_always(ctx) {
            pdf_drop_obj(ctx, obj);
        }
        fz_catch(ctx) {
            shows = fz_caught(ctx) == FZ_ERROR_MEMORY || fz_caught(ctx) == FZ_ERROR_ABORT || RequestBudget::Expired();
        }
        if (shows) return 1;
    }
    return 0;
}

}  // namespace

void PdfDocument::RemoveHiddenObjects() {
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    core_->Changed();
    const PageTree tree = ReadPageTree(ctx, doc);
    std::vector<int> kept(core_->userAnnotations.begin(), core_->userAnnotations.end());
    std::sort(kept.begin(), kept.end());
    // Two passes: most documents hide nothing, and only those that do are
    // searched for what could show it.
    for (int drop = 0; drop <= 1; ++drop) {
        int found = 0;
        ForEachPage(ctx, doc, tree, "looking for hidden annotations", "look for hidden annotations on",
                    [&](int i, pdf_obj* page) {
                        const int hidden = guarded(ctx, [&] { return hiddenAnnotations(ctx, page, drop, kept.data(), kept.size()); });
                        found += hidden;
                        VLOG_IF(1, drop && hidden > 0)
                            << "removed " << hidden << " hidden annotation(s) from page " << i + 1;
                    });
        if (found == 0) return;
        if (!drop && guarded(ctx, [&] { return mayShowHidden(ctx, doc); })) {
            VLOG(1) << "hidden annotations kept: an action or a script of the document may show them";
            return;
        }
    }
}

}  // namespace Orvane::PDF::Pdfium
