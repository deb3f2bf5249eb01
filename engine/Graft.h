#pragma once

// Copies objects of one document into another, every source object once.
//
// Unlike MuPDF's graft map, the copy can be told in advance what an object
// becomes (a page of the source becomes the page copied from it, a widget the
// widget copied with its page), and it never follows a reference into the
// source's page tree: a page or page-tree node nobody mapped becomes null, so
// whatever leads to a page that was not copied ends there. References are
// followed from a work list, not by recursion, so long chains (an outline of
// thousands of siblings) cost no stack.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <vector>

#include "engine/Handles.h"

namespace Orvane::PDF::Pdfium {

// The copy's state; plain C, read by the helpers below.
struct GraftState {
    pdf_document* src;
    pdf_document* dst;
    int srcLen;
    int* dstFromSrc;  // 0: not copied yet; -1: refused (becomes null); else the target's object number
    int* pending;     // source objects mapped but not yet filled in
    int pendingCount;
};

// The target's copy of value (a new reference; direct values are copied,
// references mapped). The objects it names are filled in by GraftDrain.
// C only: call inside guarded().
pdf_obj* GraftValue(fz_context* ctx, GraftState* state, pdf_obj* value);
// Fills in every object mapped by GraftValue so far, with what it reaches.
// C only: call inside guarded().
void GraftDrain(fz_context* ctx, GraftState* state);

class Grafter {
public:
    Grafter(fz_context* ctx, pdf_document* src, pdf_document* dst);
    Grafter(const Grafter&) = delete;
    Grafter& operator=(const Grafter&) = delete;

    GraftState* State() { return &state_; }
    // Source object num is the target's dstNum from now on.
    void Map(int srcNum, int dstNum);
    // The target's object for source object num, 0 when none.
    int Mapped(int srcNum) const {
        return srcNum > 0 && srcNum < state_.srcLen && dstFromSrc_[size_t(srcNum)] > 0 ? dstFromSrc_[size_t(srcNum)] : 0;
    }
    PdfObjHandle Copy(pdf_obj* value);
    void Drain();

private:
    fz_context* ctx_;
    std::vector<int> dstFromSrc_;
    std::vector<int> pending_;
    GraftState state_{};
};

}  // namespace Orvane::PDF::Pdfium
