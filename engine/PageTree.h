#pragma once

// The page tree read in one walk, and page-list edits that check the tree's
// structure before they change it. MuPDF finds a page by walking the tree
// from the root for every index, and its edits follow /Parent links without
// looking for loops: on a large or hostile tree that is quadratic or endless.
// Everything here is linear in the tree's size and refuses, with an
// Orvane::Exception, a tree whose nodes loop or nest absurdly deep.

#include <mupdf/pdf.h>

#include <functional>
#include <vector>

namespace Orvane::PDF::Pdfium {

// Deeper page trees are refused (a balanced tree of a million pages is about
// ten levels deep).
constexpr int kMaxPageTreeDepth = 64;

struct PageTree {
    struct Leaf {
        pdf_obj* page;    // borrowed from the document
        pdf_obj* parent;  // the node whose /Kids holds it
        int index;        // its place in that /Kids
    };
    std::vector<Leaf> leaves;
    // Whether every node's /Count matches the leaves below it, and the root's
    // matches MuPDF's page count: only then is leaves[i] page i for MuPDF too.
    bool consistent = true;
};

// What opening mended so that the page tree holds what the file holds. All
// zero for a sound tree, which is left untouched.
struct TreeRepair {
    bool xrefRebuilt = false;  // the cross-reference table was rebuilt from the objects
    bool treeRebuilt = false;  // a new tree lists the page objects found in the file
    int counts = 0;            // node /Count values set to the pages below them
    int dropped = 0;           // /Kids entries dropped: no object, a node met again, too deep
    int copies = 0;            // further listings of a page, each made a page object of its own
    int contents = 0;          // pages whose /Contents named no stream (cut short), left blank
    int pages = 0;             // pages after the repair
    bool Any() const { return xrefRebuilt || treeRebuilt || counts || dropped || copies || contents; }
};

// Makes the freshly opened document's page tree hold the pages it really
// has, so that MuPDF's page lookup (which trusts every /Count) finds each
// of them. A tree whose root count is larger than the file's object count
// or at odds with the root's children (see rootLooksSound), and every tree
// of a file MuPDF had to repair, is walked once; nodes that loop
// or repeat and entries that are no object are dropped, wrong counts set,
// and a page listed more than once becomes one page object per listing
// (copies sharing its content, so that an edit of one listing leaves the
// others alone). In a file MuPDF repaired, a page whose /Contents names no
// stream (one cut short) loses that entry, as nothing of it can be drawn. When the tree still leaves a page out for want of an
// object, or holds none, the cross-reference table is rebuilt from the
// file's objects; when it then holds none, the pages are the page objects
// found in the file, in file order, under a new tree. Throws
// Orvane::Exception only for engine failures (the budget, memory).
TreeRepair MendPageTree(fz_context* ctx, pdf_document* doc);

// Walks the document's page tree once. The objects stay valid while the
// tree is not edited.
PageTree ReadPageTree(fz_context* ctx, pdf_document* doc);

// The number of pages the document's tree holds: what every page count of
// the engine reads. MuPDF's count is the root node's /Count, or one it keeps
// from an earlier look (a page map, a linearised file's claim), and a
// damaged file can make either anything. It is taken as it is while it is
// the root's /Count and no larger than the file's objects (a page takes one
// at least); otherwise the tree is walked and its pages counted.
int PageCount(fz_context* ctx, pdf_document* doc);

// The pages a walk over every page visits: a count the tree's nodes claim is
// no bound, only the pages the tree holds are.
int PagesHeld(fz_context* ctx, pdf_document* doc, const PageTree& tree);

// Calls visit(i, page object) for every page the tree holds, ending with
// the request's budget (ThrowIfBudgetSpent(walk)). A page whose visit throws
// Orvane::Exception is logged ("cannot <failure> page N: ...") and passed
// over.
void ForEachPage(fz_context* ctx, pdf_document* doc, const PageTree& tree, const char* walk, const char* failure,
                 const std::function<void(int, pdf_obj*)>& visit);

// MuPDF finds a loaded page by the number it was loaded under and does not
// renumber its open pages when pages are inserted or deleted: gives each open
// page of the document the number it has now (-1 once it left the tree), one
// walk of the tree answering for every open page.
void RenumberOpenPages(fz_context* ctx, pdf_document* doc);

// Page i of tree: the leaf when the tree is consistent, else MuPDF's lookup.
pdf_obj* PageObject(fz_context* ctx, pdf_document* doc, const PageTree& tree, int i);

// Inserts pages (indirect page dictionaries not yet in the tree, in order)
// before page `at`, or after the last page when at is the page count. More
// than one page go in as one new node under the insertion point's node. The
// /Parent links above it are checked first (no loop, and they reach the root).
void InsertPages(fz_context* ctx, pdf_document* doc, int at, const std::vector<pdf_obj*>& pages);

// Removes page `index` from the tree (std::out_of_range past the last page),
// with the same check. Returns the page's object number (0 for a direct one).
int RemovePage(fz_context* ctx, pdf_document* doc, int index);

}  // namespace Orvane::PDF::Pdfium
