#pragma once

// Fonts a PDF names without embedding them are resolved through the font
// provider of the document the calling thread is working on: an engine call
// that may load fonts (opening, running a page) holds a ScopedFontProvider.
// Without a provider, or when it finds nothing, MuPDF's built-in fonts serve.

#include "orvane/pdf/Document.h"

struct fz_context;

namespace Orvane::PDF::Pdfium {

// Installs the system-font callbacks on a base context. May throw MuPDF errors
// (called inside fz_try).
void installSystemFontLoader(fz_context* ctx);

class ScopedFontProvider {
public:
    explicit ScopedFontProvider(const IFontProvider* provider);
    ~ScopedFontProvider();
    ScopedFontProvider(const ScopedFontProvider&) = delete;
    ScopedFontProvider& operator=(const ScopedFontProvider&) = delete;

private:
    const IFontProvider* previous_;
};

}  // namespace Orvane::PDF::Pdfium
