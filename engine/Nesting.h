#pragma once

// How deep objects nest, found without recursion before MuPDF recurses over
// them. MuPDF copies (grafts) and marks (when saving) objects by following
// their references recursively: a chain of a hundred thousand arrays, each
// holding a reference to the next, overflows its stack.

#include <mupdf/pdf.h>

#include <memory>
#include <vector>

namespace Orvane::PDF::Pdfium {

// One frame of the walk: a container and the next of its elements.
struct NestingFrame {
    pdf_obj* container;
    int next;
    int length;
    int isDict;
    int num;   // the indirect object this frame opened, 0 for a direct container
    int best;  // the largest height among the elements seen so far
};

// The walk's state, kept over several checks so that every object of the
// document is walked once. heights[num]: 0 not seen, -1 on the current path,
// -2 refused, else the object's height in indirect levels.
struct NestingCheck {
    int* heights;
    int objects;
    NestingFrame* frames;
    int capacity;
    int maxDepth;     // indirect levels
    int refusePages;  // a page or a page-tree node may not be reached
};

// Walks what value reaches, loading every object it passes, and throws
// (fz_throw: call inside guarded()) when that goes deeper than maxDepth
// indirect objects or, with refusePages, reaches a page or a page-tree node.
void CheckNesting(fz_context* ctx, NestingCheck* check, pdf_obj* value);

// Owns a check's memory for the objects of doc.
class Nesting {
public:
    Nesting(fz_context* ctx, pdf_document* doc, int maxDepth, bool refusePages);
    NestingCheck* State() { return &check_; }

private:
    std::vector<int> heights_;
    // Room for the deepest walk, left uninitialised: a walk fills each frame
    // as it enters it, and most walks use a few of them.
    std::unique_ptr<NestingFrame[]> frames_;
    NestingCheck check_{};
};

}  // namespace Orvane::PDF::Pdfium
