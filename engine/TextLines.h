#pragma once

// A page's text usually reaches the devices as a few large text objects (a
// paragraph, often a whole page). A recording keeps each as one item whose
// box covers all its lines, so every band of a banded drawing would look up
// every glyph of the object in the glyph cache and draw only its own lines:
// each band paying for the whole page's text, the bands fighting over the
// glyph cache's lock. While a page is recorded, horizontal text objects are
// handed to the recording one line at a time instead, each line with its
// own box, which a band outside it skips. The glyphs, their order and their
// colours stay as they were, so the pixels do not change; text inside a
// knockout group (where each object would knock out the one before) and
// text used as a clip (where several objects would intersect) stay whole.

#include <mupdf/fitz.h>

namespace Orvane::PDF::Pdfium {

// For its lifetime, the list device takes horizontal text one line at a
// time. On the thread that records, one at a time per thread.
class TextLineSplitting {
public:
    explicit TextLineSplitting(fz_device* listDevice);
    ~TextLineSplitting();
    TextLineSplitting(const TextLineSplitting&) = delete;
    TextLineSplitting& operator=(const TextLineSplitting&) = delete;

private:
    fz_device* device_;
};

}  // namespace Orvane::PDF::Pdfium
