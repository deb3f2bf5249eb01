#pragma once

// Plain value records shared by the interface, the engine and observers.
// Geometry is in page space: PDF points, origin at the bottom-left, y upward.

namespace Orvane::PDF {

struct Size {
    double width = 0.0;
    double height = 0.0;
};

struct Position {
    double x = 0.0;
    double y = 0.0;
};

// In page space top >= bottom.
struct Rect {
    double left = 0.0;
    double top = 0.0;
    double right = 0.0;
    double bottom = 0.0;
};

// One match of a text search on a page.
struct SearchResultInfo {
    int charIndex = 0;  // first character, counted in ITextObject::GetText()
    int charCount = 0;  // length in characters
    Rect bounds;        // box around all of the match's characters
};

}  // namespace Orvane::PDF
