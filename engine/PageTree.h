#pragma once

// The page tree read in one walk, and page-list edits that check the tree's
// structure before they change it. MuPDF finds a page by walking the tree
// from the root for every index, and its edits follow /Parent links without
// looking for loops: on a large or hostile tree that is quadratic or endless.
// Everything here is linear in the tree's size and refuses, with an
// Orvane::Exception, a tree whose nodes loop or nest absurdly deep.

#include <mupdf/pdf.h>

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

// Walks the document's page tree once. The objects stay valid while the
// tree is not edited.
PageTree ReadPageTree(fz_context* ctx, pdf_document* doc);

// Page i of tree: the leaf when the tree is consistent, else MuPDF's lookup.
pdf_obj* PageObject(fz_context* ctx, pdf_document* doc, const PageTree& tree, int i);

// Inserts pages (indirect page dictionaries not yet in the tree, in order)
// before page `at`, or after the last page when at is the page count. More
// than one page go in as one new node under the insertion point's node. The
// /Parent links above it are checked first (no loop, and they reach the root).
void InsertPages(fz_context* ctx, pdf_document* doc, int at, const std::vector<pdf_obj*>& pages);

// Removes page `index` from the tree (std::out_of_range past the last page),
// with the same check.
void RemovePage(fz_context* ctx, pdf_document* doc, int index);

}  // namespace Orvane::PDF::Pdfium
