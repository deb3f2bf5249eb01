#pragma once

// Decoded-image limits for drawing. MuPDF decodes a picture in full (or
// subsampled by powers of two) however small it is drawn, so a few kilobytes
// of compressed zeros declaring 40000 x 40000 pixels hold a render for many
// seconds. LimitImageDecoding() makes a draw device leave out any image
// whose pixels exceed what it covers on the bitmap by far.

#include <mupdf/fitz.h>

namespace Orvane::PDF::Pdfium {

// Images up to this many pixels are always drawn.
constexpr double kFreeImagePixels = 64.0 * 1024 * 1024;
// Beyond that, at most this many image pixels per pixel of the bitmap.
constexpr double kMaxImageOversampling = 1024;

// Wraps the image calls of a draw device (made by fz_new_draw_device).
void LimitImageDecoding(fz_device* drawDevice);

}  // namespace Orvane::PDF::Pdfium
