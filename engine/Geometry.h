#pragma once

#include <algorithm>

#include "orvane/pdf/Records.h"

namespace Orvane::PDF::Pdfium {

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
