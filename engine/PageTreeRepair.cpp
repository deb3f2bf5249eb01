// Mending a freshly opened document's page tree so that it holds the pages
// the file holds (MendPageTree).

#include <glog/logging.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine/Context.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/PageTreeNodes.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Opening a sound file must not cost a walk of its tree (about 1.7 us a
// page, for loading every page's dictionary). A root whose count equals its
// number of children is taken for a flat list of pages when those name
// existing objects, none twice and not the root: that needs no object
// loaded. Other trees of at most kAlwaysWalkedPages pages are walked whole;
// larger ones when their count exceeds the file's objects or, for a root of
// at most kRootChildrenChecked children, differs from the sum of what the
// children claim. A lie below the root of a large tree, or in a root of
// more children, is not looked for.
constexpr int kAlwaysWalkedPages = 16;
constexpr int kRootChildrenChecked = 64;

// What rootLooksSound needs to know of the root. C only.
struct RootInfo {
    pdf_obj* kids;
    int children;
    int claimed;
    int rootNum;
    int objects;
    int dict;
};

RootInfo readRoot(fz_context* ctx, pdf_document* doc) {
    RootInfo info;
    pdf_obj* ref = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
    info.dict = pdf_is_dict(ctx, ref);
    info.kids = pdf_dict_get(ctx, ref, PDF_NAME(Kids));
    info.children = pdf_array_len(ctx, info.kids);
    info.claimed = pdf_dict_get_int(ctx, ref, PDF_NAME(Count));
    info.rootNum = pdf_to_num(ctx, ref);
    info.objects = pdf_xref_len(ctx, doc);
    return info;
}

// The object number of kids[i] when it refers to an object the file has,
// else 0; loads nothing. C only.
int childNumber(fz_context* ctx, pdf_document* doc, pdf_obj* kids, int i, int objects) {
    pdf_obj* kid = pdf_array_get(ctx, kids, i);
    if (!pdf_is_indirect(ctx, kid)) return 0;
    const int num = pdf_to_num(ctx, kid);
    if (num <= 0 || num >= objects) return 0;
    pdf_xref_entry* entry = pdf_get_xref_entry(ctx, doc, num);
    return entry != NULL && (entry->type == 'n' || entry->type == 'o') ? num : 0;
}

// The sum of what the root's children claim: 1 a page, /Count a node; -1
// when a child is no dictionary or a node claims nothing. C only.
int64_t childrenClaim(fz_context* ctx, pdf_obj* kids, int n) {
    int64_t held = 0;
    for (int i = 0; i < n; ++i) {
        KidInfo kid = readKid(ctx, kids, i);
        if (!pdf_is_dict(ctx, kid.resolved)) return -1;
        if (!kid.isNode) {
            ++held;
            continue;
        }
        const int count = pdf_dict_get_int(ctx, kid.kid, PDF_NAME(Count));
        if (count <= 0) return -1;
        held += count;
    }
    return held;
}

// Whether the root's /Count need not be checked by a whole walk.
bool rootLooksSound(fz_context* ctx, pdf_document* doc) {
    const RootInfo root = guarded(ctx, [&] { return readRoot(ctx, doc); });
    if (!root.dict || root.claimed <= 0 || root.claimed > root.objects) return false;
    if (root.claimed == root.children) {
        std::vector<char> seen(size_t(root.objects), 0);
        if (root.rootNum > 0 && root.rootNum < root.objects) seen[size_t(root.rootNum)] = 1;
        for (int i = 0; i < root.children; ++i) {
            const int num = guarded(ctx, [&] { return childNumber(ctx, doc, root.kids, i, root.objects); });
            if (num == 0 || seen[size_t(num)]) return false;
            seen[size_t(num)] = 1;
        }
        return true;
    }
    if (root.claimed <= kAlwaysWalkedPages) return false;
    if (root.children > kRootChildrenChecked) return true;
    return guarded(ctx, [&] { return childrenClaim(ctx, root.kids, root.children); }) == root.claimed;
}

// Rebuilds the cross-reference table from the objects found in the file, as
// MuPDF does when it cannot read the table. Answers 0 when that fails for
// the file's sake; running out of memory or time is thrown.
int rebuildXref(fz_context* ctx, pdf_document* doc) {
    int rebuilt = 1;
    fz_try(ctx) {
        // Look-ups start at the section this index names: after the rebuild
        // there is one section, so every look-up starts at the first.
        if (doc->xref_index) memset(doc->xref_index, 0, sizeof(int) * (size_t)doc->max_xref_len);
        pdf_repair_xref(ctx, doc);
        if (doc->xref_index) memset(doc->xref_index, 0, sizeof(int) * (size_t)doc->max_xref_len);
        pdf_repair_obj_stms(ctx, doc);
        pdf_repair_trailer(ctx, doc);
    }
    fz_catch(ctx) {
        if (fz_caught(ctx) == FZ_ERROR_MEMORY || fz_caught(ctx) == FZ_ERROR_ABORT) fz_rethrow(ctx);
        fz_warn(ctx, "cannot rebuild the cross-reference table: %s", fz_caught_message(ctx));
        rebuilt = 0;
    }
    return rebuilt;
}

// Whether object num is a page dictionary; 0 for an object that cannot be
// read. Running out of memory or time is thrown. C only.
int isPageObject(fz_context* ctx, pdf_document* doc, int num) {
    pdf_obj* obj = NULL;
    int page = 0;
    fz_var(page);
    fz_var(obj);
    fz_try(ctx) {
        obj = pdf_load_object(ctx, doc, num);
        page = pdf_is_dict(ctx, obj) && pdf_name_eq(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Type)), PDF_NAME(Page));
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, obj);
    }
    fz_catch(ctx) {
        if (fz_caught(ctx) == FZ_ERROR_MEMORY || fz_caught(ctx) == FZ_ERROR_ABORT) fz_rethrow(ctx);
        page = 0;
    }
    return page;
}

// dict[key] = a reference of its own to the object ref refers to (MuPDF's
// 16-bit reference counts pin an object shared by many, see copyUnshared).
// C only.
void putReference(fz_context* ctx, pdf_document* doc, pdf_obj* dict, pdf_obj* key, pdf_obj* ref) {
    pdf_dict_put_drop(ctx, dict, key, pdf_new_indirect(ctx, doc, pdf_to_num(ctx, ref), pdf_to_gen(ctx, ref)));
}

// A new root node listing the given objects, hung from the catalog (a new
// catalog when the trailer has none). C only.
void plantTree(fz_context* ctx, pdf_document* doc, const int* nums, int n) {
    pdf_obj* trailer = pdf_trailer(ctx, doc);
    pdf_obj* node = pdf_add_new_dict(ctx, doc, 3);
    fz_try(ctx) {
        pdf_dict_put(ctx, node, PDF_NAME(Type), PDF_NAME(Pages));
        pdf_dict_put_int(ctx, node, PDF_NAME(Count), n);
        pdf_obj* kids = pdf_dict_put_array(ctx, node, PDF_NAME(Kids), n);
        for (int i = 0; i < n; ++i) {
            pdf_array_push_drop(ctx, kids, pdf_new_indirect(ctx, doc, nums[i], 0));
            putReference(ctx, doc, pdf_array_get(ctx, kids, i), PDF_NAME(Parent), node);
        }
        if (!pdf_is_dict(ctx, pdf_dict_get(ctx, trailer, PDF_NAME(Root)))) {
            pdf_obj* catalog = pdf_add_new_dict(ctx, doc, 2);
            pdf_dict_put_drop(ctx, trailer, PDF_NAME(Root), catalog);
            pdf_dict_put(ctx, catalog, PDF_NAME(Type), PDF_NAME(Catalog));
        }
        pdf_dict_put(ctx, pdf_dict_get(ctx, trailer, PDF_NAME(Root)), PDF_NAME(Pages), node);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Makes room for n new objects at once and answers the first one's number.
// MuPDF grows its tables by one entry for every object it adds, and a
// reallocation that moves them makes thousands of additions quadratic. C only.
int reserveObjects(fz_context* ctx, pdf_document* doc, int n) {
    const int first = pdf_xref_len(ctx, doc);
    if (n > 0) pdf_get_populating_xref_entry(ctx, doc, first + n - 1);
    return first;
}

pdf_obj* copyUnshared(fz_context* ctx, pdf_document* doc, pdf_obj* obj, int depth);

// Puts copies of key and value into dict. C only.
void copyEntry(fz_context* ctx, pdf_document* doc, pdf_obj* dict, pdf_obj* key, pdf_obj* value, int depth) {
    pdf_obj* fresh = pdf_new_name(ctx, pdf_to_name(ctx, key));
    fz_try(ctx) {
        pdf_dict_put_drop(ctx, dict, fresh, copyUnshared(ctx, doc, value, depth));
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, fresh);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// A copy of obj that shares no object with it. MuPDF counts references in
// 16 bits and never frees an object whose count reached the top: thousands
// of copies sharing their numbers and references (as pdf_deep_copy_obj
// shares them) would pin those for good. Nesting past 32 levels is shared.
// C only.
pdf_obj* copyUnshared(fz_context* ctx, pdf_document* doc, pdf_obj* obj, int depth) {
    if (pdf_is_indirect(ctx, obj)) return pdf_new_indirect(ctx, doc, pdf_to_num(ctx, obj), pdf_to_gen(ctx, obj));
    if (pdf_is_int(ctx, obj)) return pdf_new_int(ctx, pdf_to_int64(ctx, obj));
    if (pdf_is_real(ctx, obj)) return pdf_new_real(ctx, pdf_to_real(ctx, obj));
    if (pdf_is_string(ctx, obj)) return pdf_new_string(ctx, pdf_to_str_buf(ctx, obj), pdf_to_str_len(ctx, obj));
    if (pdf_is_name(ctx, obj)) return pdf_new_name(ctx, pdf_to_name(ctx, obj));
    if (depth > 32 || !(pdf_is_array(ctx, obj) || pdf_is_dict(ctx, obj))) return pdf_keep_obj(ctx, obj);
    const int dict = pdf_is_dict(ctx, obj);
    const int n = dict ? pdf_dict_len(ctx, obj) : pdf_array_len(ctx, obj);
    pdf_obj* copy = dict ? pdf_new_dict(ctx, doc, n) : pdf_new_array(ctx, doc, n);
    fz_try(ctx) {
        for (int i = 0; i < n; ++i) {
            if (dict) {
                copyEntry(ctx, doc, copy, pdf_dict_get_key(ctx, obj, i), pdf_dict_get_val(ctx, obj, i), depth + 1);
            } else {
                pdf_array_push_drop(ctx, copy, copyUnshared(ctx, doc, pdf_array_get(ctx, obj, i), depth + 1));
            }
        }
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, copy);
        fz_rethrow(ctx);
    }
    return copy;
}

// Replaces the listing kids[index] of a page listed before by a copy of the
// page whose /Parent is node, as object num (reserved; filled from the
// highest number down, the incremental table grows once). C only.
void copyListing(fz_context* ctx, pdf_document* doc, pdf_obj* node, pdf_obj* kids, int index, int num) {
    pdf_obj* page = pdf_resolve_indirect(ctx, pdf_array_get(ctx, kids, index));
    pdf_obj* copy = copyUnshared(ctx, doc, page, 0);
    pdf_obj* ref = NULL;
    fz_var(ref);
    fz_try(ctx) {
        pdf_update_object(ctx, doc, num, copy);
        ref = pdf_new_indirect(ctx, doc, num, 0);
        if (pdf_is_indirect(ctx, node)) putReference(ctx, doc, copy, PDF_NAME(Parent), node);
        pdf_array_put(ctx, kids, index, ref);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, ref);
        pdf_drop_obj(ctx, copy);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// What a forgiving walk of the tree found: the pages it holds, and what
// must change for MuPDF to find exactly those.
struct Walk {
    struct Mend {
        pdf_obj* node;  // as its parent lists it (what a /Parent refers to)
        pdf_obj* kids;
        int index;
        bool drop;  // else a further listing of a page, to be copied
    };
    struct Count {
        pdf_obj* node;
        int pages;
    };
    int pages = 0;
    int missing = 0;  // entries that are no object (perhaps lost with the xref)
    std::vector<Mend> mends;
    std::vector<Count> counts;
    std::vector<pdf_obj*> brokenContents;  // pages whose /Contents holds no stream
};

// Whether the page's /Contents names something that is not a stream (a
// stream cut short in a truncated file reads as a bare dictionary), alone
// or in its array. C only.
int contentsBroken(fz_context* ctx, pdf_obj* page) {
    pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
    if (contents == NULL || pdf_is_stream(ctx, contents)) return 0;
    if (!pdf_is_array(ctx, contents)) return 1;
    for (int i = 0, n = pdf_array_len(ctx, contents); i < n; ++i) {
        if (!pdf_is_stream(ctx, pdf_array_get(ctx, contents, i))) return 1;
    }
    return 0;
}

// Leaves out of the page's /Contents what is not a stream. C only.
void dropBrokenContents(fz_context* ctx, pdf_obj* page) {
    pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
    if (!pdf_is_array(ctx, contents)) {
        pdf_dict_del(ctx, page, PDF_NAME(Contents));
        return;
    }
    for (int i = pdf_array_len(ctx, contents) - 1; i >= 0; --i) {
        if (!pdf_is_stream(ctx, pdf_array_get(ctx, contents, i))) pdf_array_delete(ctx, contents, i);
    }
}

// Walks the tree once, each node at most once: a node met again (a loop or
// a node shared between branches), one nested too deep and an entry that is
// no dictionary are left out; pages count once per listing.
Walk walkForgivingly(fz_context* ctx, pdf_document* doc, bool checkContents) {
    Walk walk;
    struct Frame {
        pdf_obj* node;
        NodeInfo info;
        int next;
        int firstPage;
    };
    std::vector<Frame> path;
    std::unordered_set<pdf_obj*> nodes, pages;
    pdf_obj* const root = guarded(ctx, [&] {
        pdf_obj* r = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        return pdf_is_dict(ctx, r) ? r : NULL;
    });
    if (root == nullptr) return walk;
    nodes.insert(guarded(ctx, [&] { return pdf_resolve_indirect(ctx, root); }));
    path.push_back({root, guarded(ctx, [&] { return readNode(ctx, root); }), 0, 0});
    while (!path.empty()) {
        Frame& frame = path.back();
        if (frame.next >= frame.info.kidCount) {
            const int held = walk.pages - frame.firstPage;
            if (held != frame.info.claimed) walk.counts.push_back({frame.node, held});
            path.pop_back();
            continue;
        }
        const int i = frame.next++;
        pdf_obj* const kids = frame.info.kids;
        struct Kid {
            KidInfo info;
            int isDict;
        };
        const Kid kid = guarded(ctx, [&] {
            Kid k;
            k.info = readKid(ctx, kids, i);
            k.isDict = pdf_is_dict(ctx, k.info.resolved);
            return k;
        });
        if (!kid.isDict) {
            walk.mends.push_back({frame.node, kids, i, true});
            ++walk.missing;
        } else if (kid.info.isNode) {
            if (path.size() >= size_t(kMaxPageTreeDepth) || !nodes.insert(kid.info.resolved).second) {
                walk.mends.push_back({frame.node, kids, i, true});
            } else {
                pdf_obj* const node = kid.info.kid;
                path.push_back({node, guarded(ctx, [&] { return readNode(ctx, node); }), 0, walk.pages});
            }
        } else {
            if (!pages.insert(kid.info.resolved).second) {
                walk.mends.push_back({frame.node, kids, i, false});
            } else if (checkContents) {
                pdf_obj* const page = kid.info.resolved;
                if (guarded(ctx, [&] { return contentsBroken(ctx, page); })) walk.brokenContents.push_back(page);
            }
            ++walk.pages;
        }
    }
    return walk;
}

// The page objects among the file's objects, in the order the file holds
// them (objects of an object stream at the stream's place).
std::vector<int> findPageObjects(fz_context* ctx, pdf_document* doc) {
    struct Found {
        int64_t offset;
        int index;
        int num;
    };
    std::vector<Found> found;
    const int objects = guarded(ctx, [&] { return pdf_xref_len(ctx, doc); });
    for (int num = 1; num < objects; ++num) {
        const Found place = guarded(ctx, [&] {
            Found f{-1, 0, num};
            pdf_xref_entry* entry = pdf_get_xref_entry(ctx, doc, num);
            if (entry == NULL) return f;
            if (entry->type == 'n') {
                f.offset = entry->ofs;
            } else if (entry->type == 'o' && entry->ofs > 0 && entry->ofs < objects) {
                pdf_xref_entry* stream = pdf_get_xref_entry(ctx, doc, (int)entry->ofs);
                f.offset = stream != NULL ? stream->ofs : 0;
                f.index = entry->gen;
            }
            return f;
        });
        if (place.offset < 0) continue;
        if (guarded(ctx, [&] { return isPageObject(ctx, doc, num); })) found.push_back(place);
    }
    std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return a.offset != b.offset ? a.offset < b.offset : a.index < b.index;
    });
    std::vector<int> nums;
    nums.reserve(found.size());
    for (const Found& f : found) nums.push_back(f.num);
    return nums;
}

}  // namespace

TreeRepair MendPageTree(fz_context* ctx, pdf_document* doc) {
    TreeRepair repair;
    // A file MuPDF had to repair is walked whole whatever its size: what
    // it cut short may be anywhere.
    if (!doc->repair_attempted && rootLooksSound(ctx, doc)) return repair;
    Walk walk = walkForgivingly(ctx, doc, doc->repair_attempted);
    if ((walk.pages == 0 || walk.missing > 0) && !doc->repair_attempted) {
        repair.xrefRebuilt = guarded(ctx, [&] { return rebuildXref(ctx, doc); }) != 0;
        walk = walkForgivingly(ctx, doc, true);
    }
    if (walk.pages == 0) {
        const std::vector<int> pages = findPageObjects(ctx, doc);
        if (pages.empty()) return repair;
        // The pages keep what they inherited from the nodes that held them.
        for (const int num : pages) {
            try {
                guarded(ctx, [&] {
                    pdf_obj* page = pdf_load_object(ctx, doc, num);
                    fz_try(ctx) {
                        pdf_flatten_inheritable_page_items(ctx, page);
                    }
                    fz_always(ctx) {
                        pdf_drop_obj(ctx, page);
                    }
                    fz_catch(ctx) {
                        fz_rethrow(ctx);
                    }
                });
            } catch (const Orvane::Exception&) {
                if (RequestBudget::Expired()) throw;
            }
        }
        guarded(ctx, [&] { plantTree(ctx, doc, pages.data(), int(pages.size())); });
        repair.treeRebuilt = true;
        repair.pages = int(pages.size());
        return repair;
    }
    int copies = 0;
    for (const Walk::Mend& mend : walk.mends) copies += !mend.drop;
    const int firstCopy = guarded(ctx, [&] { return reserveObjects(ctx, doc, copies); });
    // Last entries first: a dropped entry moves only those after it.
    for (auto mend = walk.mends.rbegin(); mend != walk.mends.rend(); ++mend) {
        const int num = firstCopy + copies - 1 - repair.copies;
        guarded(ctx, [&] {
            if (mend->drop) {
                pdf_array_delete(ctx, mend->kids, mend->index);
            } else {
                copyListing(ctx, doc, mend->node, mend->kids, mend->index, num);
            }
        });
        ++(mend->drop ? repair.dropped : repair.copies);
    }
    for (pdf_obj* page : walk.brokenContents) guarded(ctx, [&] { dropBrokenContents(ctx, page); });
    repair.contents = int(walk.brokenContents.size());
    for (const Walk::Count& count : walk.counts) {
        guarded(ctx, [&] { pdf_dict_put_int(ctx, count.node, PDF_NAME(Count), count.pages); });
    }
    repair.counts = int(walk.counts.size());
    repair.pages = walk.pages;
    return repair;
}

}  // namespace Orvane::PDF::Pdfium
