#include "engine/PageTree.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "engine/Context.h"
#include "engine/Guarded.h"
#include "orvane/Exception.h"

// MuPDF's own page lookup with the node it found the page in; exported by
// its library, declared only in its private headers.
extern "C" pdf_obj* pdf_lookup_page_loc(fz_context* ctx, pdf_document* doc, int needle, pdf_obj** parentp,
                                        int* indexp);

namespace Orvane::PDF::Pdfium {
namespace {

// ---- plain C helpers (they run inside guarded()) ----

struct NodeInfo {
    pdf_obj* kids;
    int kidCount;
    int claimed;  // the node's /Count
};

NodeInfo readNode(fz_context* ctx, pdf_obj* node) {
    NodeInfo info;
    info.kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
    info.kidCount = pdf_array_len(ctx, info.kids);
    info.claimed = pdf_dict_get_int(ctx, node, PDF_NAME(Count));
    return info;
}

struct KidInfo {
    pdf_obj* kid;
    pdf_obj* resolved;
    int isNode;
};

// A kid is a node the way MuPDF's own page lookup decides it: /Type /Pages,
// or without /Type a /Kids array and no /MediaBox. Anything else is a page.
KidInfo readKid(fz_context* ctx, pdf_obj* kids, int i) {
    KidInfo info;
    info.kid = pdf_array_get(ctx, kids, i);
    info.resolved = pdf_resolve_indirect(ctx, info.kid);
    pdf_obj* type = pdf_dict_get(ctx, info.kid, PDF_NAME(Type));
    info.isNode = type != NULL ? pdf_name_eq(ctx, type, PDF_NAME(Pages))
                               : pdf_is_array(ctx, pdf_dict_get(ctx, info.kid, PDF_NAME(Kids))) &&
                                     pdf_dict_get(ctx, info.kid, PDF_NAME(MediaBox)) == NULL;
    return info;
}

// Adds delta to the /Count of every node in chain.
void adjustCounts(fz_context* ctx, pdf_obj* const* chain, size_t length, int delta) {
    for (size_t i = 0; i < length; ++i) {
        pdf_dict_put_int(ctx, chain[i], PDF_NAME(Count), pdf_dict_get_int(ctx, chain[i], PDF_NAME(Count)) + delta);
    }
}

void insertKids(fz_context* ctx, pdf_document* doc, pdf_obj* parent, int index, pdf_obj* const* pages, size_t n) {
    pdf_obj* kids = pdf_dict_get(ctx, parent, PDF_NAME(Kids));
    if (!pdf_is_array(ctx, kids)) kids = pdf_dict_put_array(ctx, parent, PDF_NAME(Kids), 1);
    if (n == 1) {
        pdf_array_insert(ctx, kids, pages[0], index);
        pdf_dict_put(ctx, pages[0], PDF_NAME(Parent), parent);
        return;
    }
    pdf_obj* node = pdf_add_new_dict(ctx, doc, 4);
    fz_try(ctx) {
        pdf_dict_put(ctx, node, PDF_NAME(Type), PDF_NAME(Pages));
        pdf_dict_put_int(ctx, node, PDF_NAME(Count), (int64_t)n);
        pdf_dict_put(ctx, node, PDF_NAME(Parent), parent);
        pdf_obj* nodeKids = pdf_dict_put_array(ctx, node, PDF_NAME(Kids), (int)n);
        for (size_t i = 0; i < n; ++i) {
            pdf_array_push(ctx, nodeKids, pages[i]);
            pdf_dict_put(ctx, pages[i], PDF_NAME(Parent), node);
        }
        pdf_array_insert(ctx, kids, node, index);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// ---- mending on open ----

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

// ---- checks ----

pdf_obj* rootNode(fz_context* ctx, pdf_document* doc) {
    return guarded(ctx, [&] { return pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages"); });
}

// The nodes from parent up to the root along /Parent, parent first. Throws
// when the links loop, run too long or end anywhere but at the root.
std::vector<pdf_obj*> parentChain(fz_context* ctx, pdf_document* doc, pdf_obj* parent) {
    pdf_obj* root = guarded(ctx, [&] { return pdf_resolve_indirect(ctx, rootNode(ctx, doc)); });
    std::vector<pdf_obj*> chain;
    std::unordered_set<pdf_obj*> seen;
    for (pdf_obj* node = parent; node != nullptr;) {
        pdf_obj* resolved = guarded(ctx, [&] { return pdf_resolve_indirect(ctx, node); });
        if (!seen.insert(resolved).second) throw Orvane::Exception("the page tree's /Parent links loop");
        if (chain.size() > size_t(kMaxPageTreeDepth)) {
            throw Orvane::Exception("the page tree's /Parent links run deeper than the tree may be");
        }
        chain.push_back(node);
        if (resolved == root) return chain;
        node = guarded(ctx, [&] { return pdf_dict_get(ctx, node, PDF_NAME(Parent)); });
    }
    throw Orvane::Exception("a page tree node's /Parent links do not lead to the root");
}

struct Place {
    pdf_obj* parent;
    int index;
};

// The node holding page i and its place in that node's /Kids, found the
// way MuPDF finds a page (its lookup stops at loops in /Kids).
Place locate(fz_context* ctx, pdf_document* doc, int i) {
    return guarded(ctx, [&] {
        Place place{NULL, 0};
        pdf_lookup_page_loc(ctx, doc, i, &place.parent, &place.index);
        return place;
    });
}

}  // namespace

PageTree ReadPageTree(fz_context* ctx, pdf_document* doc) {
    struct Start {
        pdf_obj* root;
        int count;
        int objects;
    };
    const Start start = guarded(ctx, [&] {
        Start s;
        s.root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        s.count = pdf_count_pages(ctx, doc);
        s.objects = pdf_xref_len(ctx, doc);
        return s;
    });
    PageTree tree;
    if (start.root == nullptr) {
        tree.consistent = start.count == 0;
        return tree;
    }

    struct Frame {
        pdf_obj* node;
        pdf_obj* resolved;
        NodeInfo info;
        int next;
        size_t firstLeaf;
    };
    std::vector<Frame> path;
    std::unordered_set<pdf_obj*> onPath;
    auto enter = [&](pdf_obj* node, pdf_obj* resolved) {
        if (!onPath.insert(resolved).second) throw Orvane::Exception("the page tree loops");
        if (path.size() >= size_t(kMaxPageTreeDepth)) {
            throw Orvane::Exception("the page tree is nested deeper than " + std::to_string(kMaxPageTreeDepth) +
                                    " levels");
        }
        path.push_back({node, resolved, guarded(ctx, [&] { return readNode(ctx, node); }), 0, tree.leaves.size()});
    };
    enter(start.root, guarded(ctx, [&] { return pdf_resolve_indirect(ctx, start.root); }));
    while (!path.empty()) {
        Frame& frame = path.back();
        if (frame.next == frame.info.kidCount) {
            if (tree.leaves.size() - frame.firstLeaf != size_t(std::max(frame.info.claimed, 0))) {
                tree.consistent = false;
            }
            onPath.erase(frame.resolved);
            path.pop_back();
            continue;
        }
        const int i = frame.next++;
        pdf_obj* const kids = frame.info.kids;
        pdf_obj* const parent = frame.node;
        const KidInfo kid = guarded(ctx, [&] { return readKid(ctx, kids, i); });
        if (kid.isNode) {
            enter(kid.kid, kid.resolved);
            continue;
        }
        tree.leaves.push_back({kid.kid, parent, i});
        // Nodes shared between branches could multiply the pages without end.
        if (tree.leaves.size() > size_t(std::max(start.objects, 0))) {
            throw Orvane::Exception("the page tree holds more pages than the file has objects");
        }
    }
    if (tree.leaves.size() != size_t(std::max(start.count, 0))) tree.consistent = false;
    return tree;
}

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

int PageCount(fz_context* ctx, pdf_document* doc) {
    struct Claims {
        int count;
        int root;
        int objects;
    };
    const Claims claims = guarded(ctx, [&] {
        Claims c;
        c.count = pdf_count_pages(ctx, doc);
        c.root = pdf_to_int(ctx, pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages/Count"));
        c.objects = pdf_xref_len(ctx, doc);
        return c;
    });
    if (claims.count >= 0 && claims.count == claims.root && claims.count <= claims.objects) return claims.count;
    return std::min(std::max(claims.count, 0), static_cast<int>(ReadPageTree(ctx, doc).leaves.size()));
}

int PagesHeld(fz_context* ctx, pdf_document* doc, const PageTree& tree) {
    return std::min(PageCount(ctx, doc), static_cast<int>(tree.leaves.size()));
}

void RenumberOpenPages(fz_context* ctx, pdf_document* doc) {
    if (doc->super.open == nullptr) return;
    const PageTree tree = ReadPageTree(ctx, doc);
    std::unordered_map<pdf_obj*, int> numbers;
    if (tree.consistent) {
        for (size_t i = 0; i < tree.leaves.size(); ++i) {
            pdf_obj* leaf = tree.leaves[i].page;
            numbers.emplace(guarded(ctx, [&] { return pdf_resolve_indirect(ctx, leaf); }), int(i));
        }
    }
    for (fz_page* page = doc->super.open; page != nullptr; page = page->next) {
        pdf_obj* obj = reinterpret_cast<pdf_page*>(page)->obj;
        int number = -1;
        try {
            if (tree.consistent) {
                const auto found = numbers.find(guarded(ctx, [&] { return pdf_resolve_indirect(ctx, obj); }));
                if (found != numbers.end()) number = found->second;
            } else {
                number = guarded(ctx, [&] { return pdf_lookup_page_number(ctx, doc, obj); });
            }
        } catch (const Orvane::Exception& e) {
            VLOG(1) << "an open page is no longer in the page tree: " << e.what();
        }
        page->number = number;
    }
}

pdf_obj* PageObject(fz_context* ctx, pdf_document* doc, const PageTree& tree, int i) {
    if (tree.consistent) return tree.leaves.at(size_t(i)).page;
    return guarded(ctx, [&] { return pdf_lookup_page_obj(ctx, doc, i); });
}

void InsertPages(fz_context* ctx, pdf_document* doc, int at, const std::vector<pdf_obj*>& pages) {
    if (pages.empty()) return;
    const int count = PageCount(ctx, doc);
    Place place;
    if (count <= 0) {
        place.parent = rootNode(ctx, doc);
        if (place.parent == nullptr) throw Orvane::Exception("cannot insert pages: the document has no page tree");
        place.index = guarded(ctx, [&] { return pdf_array_len(ctx, pdf_dict_get(ctx, place.parent, PDF_NAME(Kids))); });
    } else if (at >= 0 && at < count) {
        place = locate(ctx, doc, at);
    } else {
        place = locate(ctx, doc, count - 1);
        ++place.index;
    }
    const std::vector<pdf_obj*> chain = parentChain(ctx, doc, place.parent);
    guarded(ctx, [&] {
        insertKids(ctx, doc, place.parent, place.index, pages.data(), pages.size());
        adjustCounts(ctx, chain.data(), chain.size(), int(pages.size()));
    });
}

void RemovePage(fz_context* ctx, pdf_document* doc, int index) {
    const int count = PageCount(ctx, doc);
    if (index < 0 || index >= count) {
        throw std::out_of_range("no page " + std::to_string(index) + " in a document of " + std::to_string(count) +
                                " pages");
    }
    const Place place = locate(ctx, doc, index);
    const std::vector<pdf_obj*> chain = parentChain(ctx, doc, place.parent);
    guarded(ctx, [&] {
        pdf_array_delete(ctx, pdf_dict_get(ctx, place.parent, PDF_NAME(Kids)), place.index);
        adjustCounts(ctx, chain.data(), chain.size(), -1);
    });
}

}  // namespace Orvane::PDF::Pdfium
