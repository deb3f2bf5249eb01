#include "engine/DocumentParts.h"

#include <string.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/Handles.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Outline and field hierarchies nested deeper than this are cut there.
constexpr int kMaxHierarchyDepth = 64;

// ---- plain C below: it runs inside guarded() ----

struct Parts {
    GraftState* g;
    pdf_document* src;
    pdf_document* dst;
    int whole;
    const unsigned char* copiedPage;  // by source object number
    unsigned char* placed;            // by source object number: a widget put into a copied field
    unsigned char* seen;              // by source object number: an outline item or field already walked
};

int isName(fz_context* ctx, pdf_obj* name, const char* text) {
    return pdf_is_name(ctx, name) && strcmp(pdf_to_name(ctx, name), text) == 0;
}

pdf_obj* catalogOf(fz_context* ctx, pdf_document* doc) {
    return pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
}

int markSeen(fz_context* ctx, Parts* p, pdf_obj* obj) {
    const int num = pdf_to_num(ctx, obj);
    if (num <= 0 || num >= p->g->srcLen) return 1;
    if (p->seen[num]) return 0;
    p->seen[num] = 1;
    return 1;
}

pdf_obj* graft(fz_context* ctx, Parts* p, pdf_obj* value) {
    return GraftValue(ctx, p->g, value);
}

// The explicit destination (an array) that dest leads to in the source:
// names looked up, a destination dictionary opened. NULL when none.
pdf_obj* explicitDestination(fz_context* ctx, Parts* p, pdf_obj* dest) {
    if (pdf_is_name(ctx, dest) || pdf_is_string(ctx, dest)) dest = LookupNamedDestination(ctx, p->src, dest);
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    return pdf_is_array(ctx, dest) ? dest : NULL;
}

// An item's destination: its /Dest or the /D of a GoTo action. Returns 0
// when the item has neither; else 1, with *dest the explicit destination
// (NULL when it cannot be resolved) and *page 1 when it leads to a copied
// page, -1 to a page that was not copied, 0 to no page object.
int itemDestination(fz_context* ctx, Parts* p, pdf_obj* item, pdf_obj** dest, int* page) {
    pdf_obj* d = pdf_dict_get(ctx, item, PDF_NAME(Dest));
    if (d == NULL) {
        pdf_obj* action = pdf_dict_get(ctx, item, PDF_NAME(A));
        if (!pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(GoTo))) return 0;
        d = pdf_dict_get(ctx, action, PDF_NAME(D));
    }
    *dest = explicitDestination(ctx, p, d);
    const int num = *dest != NULL ? pdf_to_num(ctx, pdf_array_get(ctx, *dest, 0)) : 0;
    *page = 0;
    if (num > 0 && num < p->g->srcLen) {
        pdf_obj* target = pdf_array_get(ctx, *dest, 0);
        if (p->copiedPage[num])
            *page = 1;
        else if (pdf_name_eq(ctx, pdf_dict_get(ctx, target, PDF_NAME(Type)), PDF_NAME(Page)))
            *page = -1;
    }
    return 1;
}

// Makes the items of kids (new references) the children of parent, in order.
void linkChildren(fz_context* ctx, pdf_obj* parent, pdf_obj* kids) {
    const int n = pdf_array_len(ctx, kids);
    for (int i = 0; i < n; ++i) {
        pdf_obj* kid = pdf_resolve_indirect(ctx, pdf_array_get(ctx, kids, i));
        pdf_dict_put(ctx, kid, PDF_NAME(Parent), parent);
        if (i > 0) pdf_dict_put(ctx, kid, PDF_NAME(Prev), pdf_array_get(ctx, kids, i - 1));
        if (i + 1 < n) pdf_dict_put(ctx, kid, PDF_NAME(Next), pdf_array_get(ctx, kids, i + 1));
    }
    if (n > 0) {
        pdf_dict_put(ctx, parent, PDF_NAME(First), pdf_array_get(ctx, kids, 0));
        pdf_dict_put(ctx, parent, PDF_NAME(Last), pdf_array_get(ctx, kids, n - 1));
    }
}

pdf_obj* copyOutlineLevel(fz_context* ctx, Parts* p, pdf_obj* first, int depth, int* visible);

// The copy of one outline item (a new reference), or NULL when neither it
// nor any item below it leads into the copied pages. An item kept only for
// its children loses its destination.
// The keys of an outline item that its copy does not take over as they are:
// its links to other items are made anew, its destination is looked at.
int isOutlineLink(fz_context* ctx, pdf_obj* key) {
    pdf_obj* const skipped[] = {PDF_NAME(Parent), PDF_NAME(Prev),  PDF_NAME(Next), PDF_NAME(First),
                                PDF_NAME(Last),   PDF_NAME(Count), PDF_NAME(Dest), PDF_NAME(A)};
    // The names an item uses are the engine's own: compared as they are.
    for (size_t k = 0; k < sizeof skipped / sizeof *skipped; ++k) {
        if (key == skipped[k]) return 1;
    }
    if (key < PDF_LIMIT) return 0;
    for (size_t k = 0; k < sizeof skipped / sizeof *skipped; ++k) {
        if (pdf_name_eq(ctx, key, skipped[k])) return 1;
    }
    return 0;
}

// item: the source's outline item, resolved.
pdf_obj* copyOutlineItem(fz_context* ctx, Parts* p, pdf_obj* item, int depth) {
    pdf_obj* kids = NULL;
    pdf_obj* dict = NULL;
    pdf_obj* ref = NULL;
    fz_var(kids);
    fz_var(dict);
    fz_var(ref);
    fz_try(ctx) {
        int visible = 0;
        kids = copyOutlineLevel(ctx, p, pdf_dict_get(ctx, item, PDF_NAME(First)), depth + 1, &visible);
        pdf_obj* dest = NULL;
        int page = 0;
        const int hasDest = itemDestination(ctx, p, item, &dest, &page);
        // Within a whole copy only an item whose page stayed behind (a
        // deleted page) goes; a part keeps the items leading into it.
        const int self = p->whole ? !(hasDest && page < 0) : hasDest && page > 0;
        if (self || pdf_array_len(ctx, kids) > 0) {
            const int n = pdf_dict_len(ctx, item);
            dict = pdf_new_dict(ctx, p->dst, n);
            for (int i = 0; i < n; ++i) {
                pdf_obj* key = pdf_dict_get_key(ctx, item, i);
                if (!isOutlineLink(ctx, key)) pdf_dict_put_drop(ctx, dict, key, graft(ctx, p, pdf_dict_get_val(ctx, item, i)));
            }
            if (self && hasDest && !p->whole && dest != NULL) {
                // The target does not know the source's names: explicit.
                pdf_dict_put_drop(ctx, dict, PDF_NAME(Dest), graft(ctx, p, dest));
            } else if (self) {
                pdf_obj* d = pdf_dict_get(ctx, item, PDF_NAME(Dest));
                if (d != NULL) pdf_dict_put_drop(ctx, dict, PDF_NAME(Dest), graft(ctx, p, d));
                pdf_obj* a = pdf_dict_get(ctx, item, PDF_NAME(A));
                if (a != NULL) pdf_dict_put_drop(ctx, dict, PDF_NAME(A), graft(ctx, p, a));
            }
            if (pdf_array_len(ctx, kids) > 0) {
                const int open = pdf_dict_get_int(ctx, item, PDF_NAME(Count)) > 0;
                pdf_dict_put_int(ctx, dict, PDF_NAME(Count), open ? visible : -visible);
            }
            ref = pdf_add_object(ctx, p->dst, dict);
            linkChildren(ctx, ref, kids);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, kids);
        pdf_drop_obj(ctx, dict);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, ref);
        fz_rethrow(ctx);
    }
    return ref;
}

// The copies of first and its following siblings (an array of new
// references); *visible adds what they show when their parent is open.
pdf_obj* copyOutlineLevel(fz_context* ctx, Parts* p, pdf_obj* first, int depth, int* visible) {
    pdf_obj* kids = pdf_new_array(ctx, p->dst, 4);
    if (depth > kMaxHierarchyDepth) return kids;
    fz_try(ctx) {
        for (pdf_obj* item = first; pdf_is_dict(ctx, item) && markSeen(ctx, p, item);
             item = pdf_dict_get(ctx, item, PDF_NAME(Next))) {
            // Resolved once: every look at the item below reads the dictionary.
            item = pdf_resolve_indirect_chain(ctx, item);
            pdf_obj* copy = copyOutlineItem(ctx, p, item, depth);
            if (copy == NULL) continue;
            const int count = pdf_dict_get_int(ctx, copy, PDF_NAME(Count));
            *visible += 1 + (count > 0 ? count : 0);
            pdf_array_push_drop(ctx, kids, copy);
        }
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, kids);
        fz_rethrow(ctx);
    }
    return kids;
}

// The target's outline root, made when it has none.
pdf_obj* outlineRoot(fz_context* ctx, pdf_document* dst) {
    pdf_obj* catalog = catalogOf(ctx, dst);
    pdf_obj* root = pdf_dict_get(ctx, catalog, PDF_NAME(Outlines));
    if (pdf_is_dict(ctx, root)) return root;
    root = pdf_add_new_dict(ctx, dst, 4);
    pdf_dict_put(ctx, root, PDF_NAME(Type), PDF_NAME(Outlines));
    pdf_dict_put_drop(ctx, catalog, PDF_NAME(Outlines), root);
    return pdf_dict_get(ctx, catalog, PDF_NAME(Outlines));
}

// The source's outline entries that lead into the copied pages: the
// target's outline (a whole copy, or a target that had neither pages nor
// outline), else one new last top-level entry named title holding them.
void copyOutline(fz_context* ctx, Parts* p, int intoNew, const char* title, pdf_obj* firstPage) {
    pdf_obj* srcRoot = pdf_dict_get(ctx, catalogOf(ctx, p->src), PDF_NAME(Outlines));
    if (!pdf_is_dict(ctx, srcRoot)) return;
    int visible = 0;
    pdf_obj* kids = copyOutlineLevel(ctx, p, pdf_dict_get(ctx, srcRoot, PDF_NAME(First)), 0, &visible);
    pdf_obj* entry = NULL;
    fz_var(entry);
    fz_try(ctx) {
        if (pdf_array_len(ctx, kids) > 0) {
            pdf_obj* root = outlineRoot(ctx, p->dst);
            if (intoNew || pdf_dict_get(ctx, root, PDF_NAME(First)) == NULL) {
                linkChildren(ctx, root, kids);
                pdf_dict_put_int(ctx, root, PDF_NAME(Count), visible);
            } else {
                entry = pdf_add_new_dict(ctx, p->dst, 8);
                pdf_dict_put_text_string(ctx, entry, PDF_NAME(Title), title);
                pdf_obj* dest = pdf_dict_put_array(ctx, entry, PDF_NAME(Dest), 2);
                pdf_array_push(ctx, dest, firstPage);
                pdf_array_push(ctx, dest, PDF_NAME(Fit));
                linkChildren(ctx, entry, kids);
                pdf_dict_put_int(ctx, entry, PDF_NAME(Count), visible);
                pdf_dict_put(ctx, entry, PDF_NAME(Parent), root);
                pdf_obj* last = pdf_dict_get(ctx, root, PDF_NAME(Last));
                if (pdf_is_dict(ctx, last)) {
                    pdf_dict_put(ctx, last, PDF_NAME(Next), entry);
                    pdf_dict_put(ctx, entry, PDF_NAME(Prev), last);
                } else {
                    pdf_dict_put(ctx, root, PDF_NAME(First), entry);
                }
                pdf_dict_put(ctx, root, PDF_NAME(Last), entry);
                const int count = pdf_dict_get_int(ctx, root, PDF_NAME(Count));
                pdf_dict_put_int(ctx, root, PDF_NAME(Count), (count > 0 ? count : 0) + 1 + visible);
            }
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, entry);
        pdf_drop_obj(ctx, kids);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// The copy of a field (a new reference) with the kids that have widgets on
// the copied pages, or NULL when it has none. A widget's copy was made with
// its page; a field above widgets is made here and mapped in the grafter.
pdf_obj* copyField(fz_context* ctx, Parts* p, pdf_obj* field, int depth) {
    if (!pdf_is_dict(ctx, field) || depth > kMaxHierarchyDepth || !markSeen(ctx, p, field)) return NULL;
    const int num = pdf_to_num(ctx, field);
    pdf_obj* kids = pdf_dict_get(ctx, field, PDF_NAME(Kids));
    if (pdf_array_len(ctx, kids) == 0) {
        const int inRange = num > 0 && num < p->g->srcLen;
        const int widget = pdf_name_eq(ctx, pdf_dict_get(ctx, field, PDF_NAME(Subtype)), PDF_NAME(Widget));
        if (widget && inRange && p->g->dstFromSrc[num] > 0) {
            p->placed[num] = 1;
            return pdf_new_indirect(ctx, p->dst, p->g->dstFromSrc[num], 0);
        }
        // A whole copy keeps the fields that have no widget at all; a widget
        // whose page stayed behind goes with it.
        if (widget || !p->whole) return NULL;
    }
    pdf_obj* newKids = pdf_new_array(ctx, p->dst, pdf_array_len(ctx, kids));
    pdf_obj* dict = NULL;
    pdf_obj* ref = NULL;
    fz_var(dict);
    fz_var(ref);
    fz_try(ctx) {
        const int n = pdf_array_len(ctx, kids);
        for (int i = 0; i < n; ++i) {
            pdf_obj* kid = copyField(ctx, p, pdf_array_get(ctx, kids, i), depth + 1);
            if (kid != NULL) pdf_array_push_drop(ctx, newKids, kid);
        }
        if (pdf_array_len(ctx, newKids) > 0 || (p->whole && n == 0)) {
            const int len = pdf_dict_len(ctx, field);
            dict = pdf_new_dict(ctx, p->dst, len);
            for (int i = 0; i < len; ++i) {
                pdf_obj* key = pdf_dict_get_key(ctx, field, i);
                if (pdf_name_eq(ctx, key, PDF_NAME(Kids)) || pdf_name_eq(ctx, key, PDF_NAME(Parent)) ||
                    pdf_name_eq(ctx, key, PDF_NAME(P)))
                    continue;
                pdf_dict_put_drop(ctx, dict, key, graft(ctx, p, pdf_dict_get_val(ctx, field, i)));
            }
            if (n > 0) pdf_dict_put(ctx, dict, PDF_NAME(Kids), newKids);
            ref = pdf_add_object(ctx, p->dst, dict);
            if (num > 0 && num < p->g->srcLen && p->g->dstFromSrc[num] == 0) p->g->dstFromSrc[num] = pdf_to_num(ctx, ref);
            const int kidCount = pdf_array_len(ctx, newKids);
            for (int i = 0; i < kidCount; ++i) pdf_dict_put(ctx, pdf_array_get(ctx, newKids, i), PDF_NAME(Parent), ref);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, newKids);
        pdf_drop_obj(ctx, dict);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, ref);
        fz_rethrow(ctx);
    }
    return ref;
}

int hasTopLevelField(fz_context* ctx, pdf_obj* fields, const char* name) {
    const int n = pdf_array_len(ctx, fields);
    for (int i = 0; i < n; ++i) {
        if (strcmp(pdf_dict_get_text_string(ctx, pdf_array_get(ctx, fields, i), PDF_NAME(T)), name) == 0) return 1;
    }
    return 0;
}

// Appends the copied fields to the target's form (made when it has none);
// a top-level name the target already has gets a suffix ("_2", "_3"...).
void copyForm(fz_context* ctx, Parts* p) {
    pdf_obj* srcForm = pdf_dict_get(ctx, catalogOf(ctx, p->src), PDF_NAME(AcroForm));
    pdf_obj* srcFields = pdf_dict_get(ctx, srcForm, PDF_NAME(Fields));
    if (!pdf_is_dict(ctx, srcForm)) return;
    pdf_obj* top = pdf_new_array(ctx, p->dst, 8);
    fz_try(ctx) {
        const int n = pdf_array_len(ctx, srcFields);
        for (int i = 0; i < n; ++i) {
            pdf_obj* field = copyField(ctx, p, pdf_array_get(ctx, srcFields, i), 0);
            if (field != NULL) pdf_array_push_drop(ctx, top, field);
        }
        pdf_obj* catalog = catalogOf(ctx, p->dst);
        pdf_obj* form = pdf_dict_get(ctx, catalog, PDF_NAME(AcroForm));
        if (pdf_array_len(ctx, top) > 0 || p->whole) {
            if (!pdf_is_dict(ctx, form)) {
                pdf_dict_put_drop(ctx, catalog, PDF_NAME(AcroForm), pdf_add_new_dict(ctx, p->dst, 8));
                form = pdf_dict_get(ctx, catalog, PDF_NAME(AcroForm));
            }
            // The form's own settings: all of them into a new form, the
            // defaults a merged field needs into an existing one.
            const int len = pdf_dict_len(ctx, srcForm);
            for (int i = 0; i < len; ++i) {
                pdf_obj* key = pdf_dict_get_key(ctx, srcForm, i);
                if (pdf_name_eq(ctx, key, PDF_NAME(Fields)) || isName(ctx, key, "CO")) continue;
                if (pdf_dict_get(ctx, form, key) != NULL) {
                    if (!pdf_name_eq(ctx, key, PDF_NAME(DR))) continue;
                    // Resources: the names the target's form lacks.
                    pdf_obj* to = pdf_dict_get(ctx, form, PDF_NAME(DR));
                    pdf_obj* from = pdf_dict_get_val(ctx, srcForm, i);
                    const int kinds = pdf_dict_len(ctx, from);
                    for (int k = 0; k < kinds; ++k) {
                        pdf_obj* kind = pdf_dict_get_key(ctx, from, k);
                        pdf_obj* entries = pdf_dict_get_val(ctx, from, k);
                        pdf_obj* have = pdf_dict_get(ctx, to, kind);
                        if (!pdf_is_dict(ctx, entries)) continue;
                        if (!pdf_is_dict(ctx, have)) {
                            pdf_dict_put_drop(ctx, to, kind, graft(ctx, p, entries));
                            continue;
                        }
                        const int m = pdf_dict_len(ctx, entries);
                        for (int e = 0; e < m; ++e) {
                            pdf_obj* name = pdf_dict_get_key(ctx, entries, e);
                            if (pdf_dict_get(ctx, have, name) == NULL)
                                pdf_dict_put_drop(ctx, have, name, graft(ctx, p, pdf_dict_get_val(ctx, entries, e)));
                        }
                    }
                    continue;
                }
                pdf_dict_put_drop(ctx, form, key, graft(ctx, p, pdf_dict_get_val(ctx, srcForm, i)));
            }
            pdf_obj* fields = pdf_dict_get(ctx, form, PDF_NAME(Fields));
            if (!pdf_is_array(ctx, fields)) fields = pdf_dict_put_array(ctx, form, PDF_NAME(Fields), 8);
            const int count = pdf_array_len(ctx, top);
            for (int i = 0; i < count; ++i) {
                pdf_obj* field = pdf_array_get(ctx, top, i);
                const char* name = pdf_dict_get_text_string(ctx, field, PDF_NAME(T));
                if (*name != '\0' && hasTopLevelField(ctx, fields, name)) {
                    char renamed[512];
                    for (int k = 2;; ++k) {
                        fz_snprintf(renamed, sizeof renamed, "%s_%d", name, k);
                        if (!hasTopLevelField(ctx, fields, renamed)) break;
                    }
                    pdf_dict_put_text_string(ctx, field, PDF_NAME(T), renamed);
                }
                pdf_array_push(ctx, fields, field);
            }
            // The calculation order, for the fields that came along.
            pdf_obj* order = pdf_dict_gets(ctx, srcForm, "CO");
            const int steps = pdf_array_len(ctx, order);
            pdf_obj* newOrder = pdf_dict_gets(ctx, form, "CO");
            for (int i = 0; i < steps; ++i) {
                const int num = pdf_to_num(ctx, pdf_array_get(ctx, order, i));
                if (num <= 0 || num >= p->g->srcLen || p->g->dstFromSrc[num] <= 0) continue;
                if (!pdf_is_array(ctx, newOrder)) {
                    pdf_dict_puts_drop(ctx, form, "CO", pdf_new_array(ctx, p->dst, steps));
                    newOrder = pdf_dict_gets(ctx, form, "CO");
                }
                pdf_array_push_drop(ctx, newOrder, pdf_new_indirect(ctx, p->dst, p->g->dstFromSrc[num], 0));
            }
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, top);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// A whole copy: every catalog entry but the page tree (and what was copied
// apart) and the document information.
void copyCatalog(fz_context* ctx, Parts* p) {
    pdf_obj* from = catalogOf(ctx, p->src);
    pdf_obj* to = catalogOf(ctx, p->dst);
    const int n = pdf_dict_len(ctx, from);
    for (int i = 0; i < n; ++i) {
        pdf_obj* key = pdf_dict_get_key(ctx, from, i);
        if (pdf_name_eq(ctx, key, PDF_NAME(Type)) || pdf_name_eq(ctx, key, PDF_NAME(Pages)) ||
            pdf_name_eq(ctx, key, PDF_NAME(Outlines)) || pdf_name_eq(ctx, key, PDF_NAME(AcroForm)))
            continue;
        pdf_dict_put_drop(ctx, to, key, graft(ctx, p, pdf_dict_get_val(ctx, from, i)));
    }
    pdf_obj* info = pdf_dict_get(ctx, pdf_trailer(ctx, p->src), PDF_NAME(Info));
    if (pdf_is_dict(ctx, info)) {
        pdf_obj* trailer = pdf_trailer(ctx, p->dst);
        pdf_dict_put_drop(ctx, trailer, PDF_NAME(Info), graft(ctx, p, info));
        pdf_obj* copy = pdf_dict_get(ctx, trailer, PDF_NAME(Info));
        if (!pdf_is_indirect(ctx, copy)) pdf_dict_put_drop(ctx, trailer, PDF_NAME(Info), pdf_add_object(ctx, p->dst, copy));
    }
}

}  // namespace

void CopyDocumentParts(fz_context* ctx, Grafter& grafter, const PartsCopy& copy, std::vector<unsigned char>& placed) {
    GraftState* g = grafter.State();
    const size_t len = size_t(std::max(g->srcLen, 1));
    std::vector<unsigned char> copiedPage(len, 0), seen(len, 0);
    placed.assign(len, 0);
    PdfObjHandle firstPage;
    for (size_t i = 0; i < copy.pageObjects.size(); ++i) {
        const int num = copy.pageObjects[i];
        if (num > 0 && size_t(num) < len) copiedPage[size_t(num)] = 1;
        if (i == 0 && grafter.Mapped(num) > 0) {
            firstPage = PdfObjHandle(ctx, guarded(ctx, [&] { return pdf_new_indirect(ctx, g->dst, grafter.Mapped(num), 0); }));
        }
    }
    Parts parts{g, g->src, g->dst, copy.whole, copiedPage.data(), placed.data(), seen.data()};
    guarded(ctx, [&] { copyForm(ctx, &parts); });
    if (copy.whole) {
        guarded(ctx, [&] { copyOutline(ctx, &parts, 1, "", NULL); });
        guarded(ctx, [&] { copyCatalog(ctx, &parts); });
        return;
    }
    std::string title = guarded(ctx, [&] {
        pdf_obj* info = pdf_dict_get(ctx, pdf_trailer(ctx, g->src), PDF_NAME(Info));
        return pdf_dict_get_text_string(ctx, info, PDF_NAME(Title));
    });
    if (title.empty()) title = copy.sourceName;
    guarded(ctx, [&] { copyOutline(ctx, &parts, copy.targetPages == 0, title.c_str(), firstPage.get()); });
    CopyPageLabels(ctx, g->src, g->dst, copy);
}

}  // namespace Orvane::PDF::Pdfium
