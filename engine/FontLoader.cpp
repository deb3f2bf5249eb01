#include "engine/FontLoader.h"

#include <mupdf/fitz.h>

namespace Orvane::PDF::Pdfium {
namespace {
thread_local const IFontProvider* currentProvider = nullptr;
}

void installSystemFontLoader(fz_context*) {}

ScopedFontProvider::ScopedFontProvider(const IFontProvider* provider) : previous_(currentProvider) {
    currentProvider = provider;
}
ScopedFontProvider::~ScopedFontProvider() { currentProvider = previous_; }

}  // namespace Orvane::PDF::Pdfium
