// Removing annotations that never show: which ones, and when something in
// the document could show them after all.

#include <glog/logging.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "engine/Annotations.h"
#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
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

// Whether annot, whose object number is num, is a never-visible annotation
// the pass may remove: not a widget, not a popup, not in kept (sorted object
// numbers of annotations a user made). C only.
int removable(fz_context* ctx, pdf_obj* annot, int num, const int* kept, size_t keptCount) {
    if (!pdf_is_dict(ctx, annot)) return 0;
    pdf_obj* subtype = pdf_dict_get(ctx, annot, PDF_NAME(Subtype));
    if (pdf_name_eq(ctx, subtype, PDF_NAME(Widget)) || pdf_name_eq(ctx, subtype, PDF_NAME(Popup))) return 0;
    if (num > 0 && keptCount > 0 && bsearch(&num, kept, keptCount, sizeof num, compareInts)) return 0;
    return neverVisible(pdf_dict_get_int(ctx, annot, PDF_NAME(F)));
}

// Counts the page's removable annotations and, with drop, removes them from
// its /Annots. C only: runs inside guarded().
int hiddenAnnotations(fz_context* ctx, pdf_obj* page, int drop, const int* kept, size_t keptCount) {
    pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
    int found = 0;
    for (int i = pdf_array_len(ctx, annots) - 1; i >= 0; --i) {
        pdf_obj* annot = pdf_array_get(ctx, annots, i);
        if (removable(ctx, annot, pdf_to_num(ctx, annot), kept, keptCount)) {
            if (drop) pdf_array_delete(ctx, annots, i);
            ++found;
        }
    }
    return found;
}

// Object numbers of the document's update: the objects changed since the
// open, which a save appended to the file writes. Reads the tables of the
// incremental sections only (nothing is loaded).
std::vector<int> updatedObjects(const pdf_document* doc) {
    std::vector<int> numbers;
    for (int s = 0; s < doc->num_incremental_sections; ++s) {
        for (const pdf_xref_subsec* sub = doc->xref_sections[s].subsec; sub != nullptr; sub = sub->next) {
            for (int i = 0; i < sub->len; ++i) {
                if (sub->table[i].type == 'n' && sub->table[i].obj != nullptr) numbers.push_back(sub->start + i);
            }
        }
    }
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

// What object num of the update asks the pass to look at: its own number
// when it is a page, its page's when it is a removable annotation, 0 for
// anything else, -1 for a removable annotation that names no page. C only.
int pageToExamine(fz_context* ctx, pdf_document* doc, int num, const int* kept, size_t keptCount) {
    pdf_obj* obj = pdf_load_object(ctx, doc, num);
    int page = 0;
    fz_try(ctx) {
        if (pdf_name_eq(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Type)), PDF_NAME(Page))) {
            page = num;
        } else if (pdf_dict_get(ctx, obj, PDF_NAME(Subtype)) && removable(ctx, obj, num, kept, keptCount)) {
            pdf_obj* parent = pdf_dict_get(ctx, obj, PDF_NAME(P));
            page = pdf_is_indirect(ctx, parent) && pdf_is_dict(ctx, parent) ? pdf_to_num(ctx, parent) : -1;
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, obj);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return page;
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

void RemoveHiddenAnnotations(DocumentCore& core, HiddenScope scope) {
    const RequestBudget budget;
    fz_context* ctx = core.ctx;
    pdf_document* doc = core.doc;
    core.Changed();
    std::vector<int> kept(core.userAnnotations.begin(), core.userAnnotations.end());
    std::sort(kept.begin(), kept.end());

    // The pages to look at: every page of the tree, or the pages the update
    // writes and the pages of hidden annotations it writes.
    std::function<void(const std::function<void(int, pdf_obj*)>&)> forEachPage;
    std::vector<int> pages;
    bool whole = scope == HiddenScope::Document || doc->num_incremental_sections == 0;
    if (!whole) {
        for (int num : updatedObjects(doc)) {
            const int page = guarded(ctx, [&] { return pageToExamine(ctx, doc, num, kept.data(), kept.size()); });
            if (page < 0) {
                whole = true;
                break;
            }
            if (page > 0) pages.push_back(page);
        }
        std::sort(pages.begin(), pages.end());
        pages.erase(std::unique(pages.begin(), pages.end()), pages.end());
    }
    if (whole) {
        forEachPage = [&, tree = ReadPageTree(ctx, doc)](const std::function<void(int, pdf_obj*)>& visit) {
            ForEachPage(ctx, doc, tree, "looking for hidden annotations", "look for hidden annotations on", visit);
        };
    } else {
        forEachPage = [&](const std::function<void(int, pdf_obj*)>& visit) {
            for (int num : pages) {
                const PdfObjHandle page(ctx, guarded(ctx, [&] { return pdf_new_indirect(ctx, doc, num, 0); }));
                visit(num, page.get());
            }
        };
    }
    core.hiddenUpdateOnly = whole ? 0 : core.generation;

    // Two passes: most documents hide nothing, and only those that do are
    // searched for what could show it.
    for (int drop = 0; drop <= 1; ++drop) {
        int found = 0;
        forEachPage([&](int i, pdf_obj* page) {
            const int hidden =
                guarded(ctx, [&] { return hiddenAnnotations(ctx, page, drop, kept.data(), kept.size()); });
            found += hidden;
            VLOG_IF(1, drop && hidden > 0) << "removed " << hidden << " hidden annotation(s) from page "
                                           << (whole ? i + 1 : i) << (whole ? "" : " (object number)");
        });
        if (found == 0) return;
        if (!drop && guarded(ctx, [&] { return mayShowHidden(ctx, doc); })) {
            VLOG(1) << "hidden annotations kept: an action or a script of the document may show them";
            return;
        }
    }
}

void PdfDocument::RemoveHiddenObjects() {
    RemoveHiddenAnnotations(*core_, HiddenScope::Document);
}

void PdfDocument::RemoveHiddenObjectsBeforeSave(const Orvane::ioPath& target) {
    const bool update = !target.empty() && CanAppendTo(*core_, target.path());
    RemoveHiddenAnnotations(*core_, update ? HiddenScope::Update : HiddenScope::Document);
}

}  // namespace Orvane::PDF::Pdfium
