#pragma once

// What a document keeps pointing at a page after the page left its page
// tree: outline entries leading to it and its form widgets.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

namespace Orvane::PDF::Pdfium {

// Drops the outline entries that lead to the page object pageObject (an
// entry that has entries below it stays, without a destination; counts of
// the changed levels made again) and takes the page's widgets out of the
// form (fields left without widgets too, and from the calculation order).
// Objects that do not refer to the page are not touched.
void ForgetRemovedPage(fz_context* ctx, pdf_document* doc, int pageObject);

}  // namespace Orvane::PDF::Pdfium
