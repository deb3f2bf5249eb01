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
#include "engine/PageTreeNodes.h"
#include "orvane/Exception.h"

// MuPDF's own page lookup with the node it found the page in; exported by
// its library, declared only in its private headers.
extern "C" pdf_obj* pdf_lookup_page_loc(fz_context* ctx, pdf_document* doc, int needle, pdf_obj** parentp,
                                        int* indexp);

namespace Orvane::PDF::Pdfium {
namespace {

// ---- plain C helpers (they run inside guarded()) ----

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

void ForEachPage(fz_context* ctx, pdf_document* doc, const PageTree& tree, const char* walk, const char* failure,
                 const std::function<void(int, pdf_obj*)>& visit) {
    const int count = PagesHeld(ctx, doc, tree);
    for (int i = 0; i < count; ++i) {
        ThrowIfBudgetSpent(walk);
        try {
            visit(i, PageObject(ctx, doc, tree, i));
        } catch (const Orvane::Exception& e) {
            LOG(WARNING) << "cannot " << failure << " page " << i + 1 << ": " << e.what();
        }
    }
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

int RemovePage(fz_context* ctx, pdf_document* doc, int index) {
    const int count = PageCount(ctx, doc);
    if (index < 0 || index >= count) {
        throw std::out_of_range("no page " + std::to_string(index) + " in a document of " + std::to_string(count) +
                                " pages");
    }
    const Place place = locate(ctx, doc, index);
    const std::vector<pdf_obj*> chain = parentChain(ctx, doc, place.parent);
    return guarded(ctx, [&] {
        pdf_obj* kids = pdf_dict_get(ctx, place.parent, PDF_NAME(Kids));
        const int page = pdf_to_num(ctx, pdf_array_get(ctx, kids, place.index));
        pdf_array_delete(ctx, kids, place.index);
        adjustCounts(ctx, chain.data(), chain.size(), -1);
        return page;
    });
}

}  // namespace Orvane::PDF::Pdfium
