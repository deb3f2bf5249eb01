#include "engine/RemovedPages.h"

#include <algorithm>
#include <vector>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Outline and field hierarchies nested deeper than this are left as they are.
constexpr int kMaxDepth = 64;

// ---- plain C below: it runs inside guarded() ----

struct Removal {
    pdf_document* doc;
    int page;                    // the removed page's object number
    std::vector<char>* seen;     // by object number: an outline item or field already walked
};

int firstVisit(fz_context* ctx, Removal* r, pdf_obj* obj) {
    const int num = pdf_to_num(ctx, obj);
    if (num <= 0 || size_t(num) >= r->seen->size()) return 1;
    if ((*r->seen)[num]) return 0;
    (*r->seen)[num] = 1;
    return 1;
}

// Whether the outline item leads to the removed page: its /Dest or the /D of
// a GoTo action, names looked up.
int leadsToRemovedPage(fz_context* ctx, Removal* r, pdf_obj* item) {
    pdf_obj* dest = pdf_dict_get(ctx, item, PDF_NAME(Dest));
    if (dest == NULL) {
        pdf_obj* action = pdf_dict_get(ctx, item, PDF_NAME(A));
        if (!pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(GoTo))) return 0;
        dest = pdf_dict_get(ctx, action, PDF_NAME(D));
    }
    if (pdf_is_name(ctx, dest) || pdf_is_string(ctx, dest)) dest = LookupNamedDestination(ctx, r->doc, dest);
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    pdf_obj* target = pdf_array_get(ctx, dest, 0);
    return pdf_is_indirect(ctx, target) && pdf_to_num(ctx, target) == r->page;
}

// What an open item shows of its descendants: each child and what the open
// ones among them show.
int visibleBelow(fz_context* ctx, pdf_obj* parent) {
    int visible = 0;
    int steps = 0;
    for (pdf_obj* kid = pdf_dict_get(ctx, parent, PDF_NAME(First)); pdf_is_dict(ctx, kid) && steps++ < 1000000;
         kid = pdf_dict_get(ctx, kid, PDF_NAME(Next))) {
        const int count = pdf_dict_get_int(ctx, kid, PDF_NAME(Count));
        visible += 1 + (count > 0 ? count : 0);
    }
    return visible;
}

// Makes neighbour's key (the parent's end key when there is no neighbour)
// name other, or nothing.
void relink(fz_context* ctx, pdf_obj* parent, pdf_obj* neighbour, pdf_obj* key, pdf_obj* end, pdf_obj* other) {
    const bool inList = pdf_is_dict(ctx, neighbour);
    pdf_obj* holder = inList ? neighbour : parent;
    pdf_obj* name = inList ? key : end;
    if (other != NULL) {
        pdf_dict_put(ctx, holder, name, other);
    } else {
        pdf_dict_del(ctx, holder, name);
    }
}

void unlink(fz_context* ctx, pdf_obj* parent, pdf_obj* item) {
    pdf_obj* prev = pdf_dict_get(ctx, item, PDF_NAME(Prev));
    pdf_obj* next = pdf_dict_get(ctx, item, PDF_NAME(Next));
    relink(ctx, parent, prev, PDF_NAME(Next), PDF_NAME(First), next);
    relink(ctx, parent, next, PDF_NAME(Prev), PDF_NAME(Last), prev);
}

// Drops the items below parent that lead to the removed page; an item
// that keeps children keeps its place without a destination. Returns
// whether anything below parent changed; the counts of changed levels
// are made again (an open item's positive, a closed one's negative).
int pruneLevel(fz_context* ctx, Removal* r, pdf_obj* parent, int depth) {
    if (depth > kMaxDepth) return 0;
    int changed = 0;
    pdf_obj* item = pdf_dict_get(ctx, parent, PDF_NAME(First));
    while (pdf_is_dict(ctx, item) && firstVisit(ctx, r, item)) {
        pdf_obj* next = pdf_dict_get(ctx, item, PDF_NAME(Next));
        changed |= pruneLevel(ctx, r, item, depth + 1);
        if (leadsToRemovedPage(ctx, r, item)) {
            changed = 1;
            if (pdf_is_dict(ctx, pdf_dict_get(ctx, item, PDF_NAME(First)))) {
                pdf_dict_del(ctx, item, PDF_NAME(Dest));
                pdf_dict_del(ctx, item, PDF_NAME(A));
            } else {
                unlink(ctx, parent, item);
            }
        }
        item = next;
    }
    if (changed) {
        const int visible = visibleBelow(ctx, parent);
        const int open = depth == 0 || pdf_dict_get_int(ctx, parent, PDF_NAME(Count)) > 0;
        if (visible > 0) pdf_dict_put_int(ctx, parent, PDF_NAME(Count), open ? visible : -visible);
        else pdf_dict_del(ctx, parent, PDF_NAME(Count));
    }
    return changed;
}

int isWidgetOfRemovedPage(fz_context* ctx, Removal* r, pdf_obj* node) {
    pdf_obj* page = pdf_dict_get(ctx, node, PDF_NAME(P));
    return pdf_name_eq(ctx, pdf_dict_get(ctx, node, PDF_NAME(Subtype)), PDF_NAME(Widget)) &&
           pdf_is_indirect(ctx, page) && pdf_to_num(ctx, page) == r->page;
}

// Takes the removed page's widgets out of the field array `kids` (a /Kids
// or the form's /Fields), and the fields left without widgets. Returns
// whether kids changed.
int pruneFields(fz_context* ctx, Removal* r, pdf_obj* kids, int depth) {
    if (depth > kMaxDepth || !pdf_is_array(ctx, kids)) return 0;
    int changed = 0;
    for (int i = pdf_array_len(ctx, kids) - 1; i >= 0; --i) {
        pdf_obj* node = pdf_array_get(ctx, kids, i);
        if (!pdf_is_dict(ctx, node) || !firstVisit(ctx, r, node)) continue;
        pdf_obj* below = pdf_dict_get(ctx, node, PDF_NAME(Kids));
        const int hadKids = pdf_array_len(ctx, below) > 0;
        if (pruneFields(ctx, r, below, depth + 1)) changed = 1;
        if (isWidgetOfRemovedPage(ctx, r, node) || (hadKids && pdf_array_len(ctx, below) == 0)) {
            pdf_array_delete(ctx, kids, i);
            changed = 1;
        }
    }
    return changed;
}

void forgetPage(fz_context* ctx, Removal* r) {
    pdf_obj* catalog = pdf_dict_get(ctx, pdf_trailer(ctx, r->doc), PDF_NAME(Root));
    pdf_obj* outlines = pdf_dict_get(ctx, catalog, PDF_NAME(Outlines));
    if (pdf_is_dict(ctx, outlines)) pruneLevel(ctx, r, outlines, 0);
    pdf_obj* form = pdf_dict_get(ctx, catalog, PDF_NAME(AcroForm));
    if (!pruneFields(ctx, r, pdf_dict_get(ctx, form, PDF_NAME(Fields)), 0)) return;
    // The calculation order names fields only while they are in the form.
    pdf_obj* order = pdf_dict_gets(ctx, form, "CO");
    for (int i = pdf_array_len(ctx, order) - 1; i >= 0; --i) {
        pdf_obj* field = pdf_array_get(ctx, order, i);
        const int num = pdf_to_num(ctx, field);
        const int gone = isWidgetOfRemovedPage(ctx, r, field) ||
                         (pdf_array_len(ctx, pdf_dict_get(ctx, field, PDF_NAME(Kids))) == 0 &&
                          pdf_dict_get(ctx, field, PDF_NAME(Kids)) != NULL);
        if (gone && num > 0) pdf_array_delete(ctx, order, i);
    }
}

}  // namespace

void ForgetRemovedPage(fz_context* ctx, pdf_document* doc, int pageObject) {
    if (pageObject <= 0) return;
    std::vector<char> seen(size_t(std::max(pdf_xref_len(ctx, doc), 0)), 0);
    Removal removal{doc, pageObject, &seen};
    guarded(ctx, [&] { forgetPage(ctx, &removal); });
}

}  // namespace Orvane::PDF::Pdfium
