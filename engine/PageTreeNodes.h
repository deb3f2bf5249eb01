#pragma once

// A page-tree node and its kids read the way MuPDF's page lookup reads them,
// for the tree's walks (PageTree.cpp, PageTreeRepair.cpp). C only: they run
// inside guarded().

#include <mupdf/pdf.h>

namespace Orvane::PDF::Pdfium {

struct NodeInfo {
    pdf_obj* kids;
    int kidCount;
    int claimed;  // the node's /Count
};

inline NodeInfo readNode(fz_context* ctx, pdf_obj* node) {
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
inline KidInfo readKid(fz_context* ctx, pdf_obj* kids, int i) {
    KidInfo info;
    info.kid = pdf_array_get(ctx, kids, i);
    info.resolved = pdf_resolve_indirect(ctx, info.kid);
    pdf_obj* type = pdf_dict_get(ctx, info.kid, PDF_NAME(Type));
    info.isNode = type != NULL ? pdf_name_eq(ctx, type, PDF_NAME(Pages))
                               : pdf_is_array(ctx, pdf_dict_get(ctx, info.kid, PDF_NAME(Kids))) &&
                                     pdf_dict_get(ctx, info.kid, PDF_NAME(MediaBox)) == NULL;
    return info;
}

}  // namespace Orvane::PDF::Pdfium
