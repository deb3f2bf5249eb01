#pragma once

#include <mupdf/fitz.h>

#include <algorithm>

#include "orvane/pdf/Records.h"

namespace Orvane::PDF::Pdfium {

// An fz_rect in page space (y upward), where its y0 is the bottom.
inline Rect ToRect(fz_rect r) {
    return Rect{r.x0, r.y1, r.x1, r.y0};
}

inline bool Holds(const Rect& r, double x, double y) {
    return x >= r.left && x <= r.right && y >= r.bottom && y <= r.top;
}

// A box with no area (a line break's box, a path that paints nothing).
inline bool IsEmptyBox(const Rect& r) {
    return r.right <= r.left && r.top <= r.bottom;
}

// Grows into (page space, top >= bottom) to enclose r; an empty into takes r.
inline void Unite(Rect& into, const Rect& r) {
    if (IsEmptyBox(into)) {
        into = r;
        return;
    }
    into.left = std::min(into.left, r.left);
    into.right = std::max(into.right, r.right);
    into.top = std::max(into.top, r.top);
    into.bottom = std::min(into.bottom, r.bottom);
}

}  // namespace Orvane::PDF::Pdfium
