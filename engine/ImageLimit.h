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

// Tiling patterns: MuPDF's draw device paints a pattern cell by cell over
// the area it fills, in one call that neither allocates nor looks at any
// abort flag, so a cell far smaller than a pixel over a page holds it for
// hours. Beyond this many cells, and more than kMaxCellsPerPixel a pixel
// of the area filled, a pattern is refused before it is drawn (the picture
// is then incomplete: see RequestBudget::NoteRefusedWork).
constexpr double kFreeTileCells = 4.0 * 1024 * 1024;
constexpr double kMaxCellsPerPixel = 4;

// Wraps the tiling call of a draw device that draws the rows of area (device
// space): refuses a pattern whose cells are too many, and any pattern once
// the request's budget is spent. The device is used on the calling thread.
void LimitTiling(fz_device* drawDevice, fz_rect area);

// Paths: MuPDF flattens a path and scan-converts it in single calls, which
// neither allocate much nor look at any abort flag; their time grows with the
// flattened segments and the device rows each spans, so a few megabytes of
// huge curves hold a render for minutes. Every path is walked once before it
// is drawn and its work estimated at a rate well above this machine's; a
// path whose estimate exceeds kFreePathSeconds and what is left of the
// request's budget is left out (the picture is then incomplete: see
// RequestBudget::NoteRefusedWork). A clip so refused clips everything away.
constexpr double kFreePathSeconds = 0.05;

// Wraps the path calls of a draw device that draws the rows of area (device
// space, as for LimitTiling). The device is used on the calling thread.
void LimitPaths(fz_device* drawDevice, fz_rect area);

}  // namespace Orvane::PDF::Pdfium
