#include "engine/FontLoader.h"

#include <glog/logging.h>
#include <mupdf/fitz.h>

#include <exception>
#include <string>

#include "engine/Guarded.h"
#include "engine/Handles.h"

namespace Orvane::PDF::Pdfium {
namespace {

thread_local const IFontProvider* currentProvider = nullptr;

// Logging must not throw out of the callback either; a log line that cannot
// be written is lost.
void warnNotLoaded(const char* name, const char* reason) noexcept {
    try {
        LOG(WARNING) << "cannot load a system font for " << name << ": " << reason;
    } catch (...) {
    }
}

// MuPDF asks for a font that a PDF names without embedding it. NULL lets
// MuPDF fall back to its built-in fonts. No exception may leave: the caller
// is MuPDF's C code.
fz_font* loadSystemFont(fz_context* ctx, const char* name, int bold, int italic, int /*needsExactMetrics*/) {
    const IFontProvider* provider = currentProvider;
    if (provider == nullptr || name == nullptr || *name == '\0') return nullptr;
    try {
        const std::string file = provider->FindFontFile(name, bold != 0, italic != 0);
        if (file.empty()) return nullptr;
        FontHandle font(ctx, guarded(ctx, [&] { return fz_new_font_from_file(ctx, name, file.c_str(), 0, 0); }));
        VLOG(2) << "font " << name << (bold ? " bold" : "") << (italic ? " italic" : "") << " from " << file;
        return font.release();
    } catch (const std::exception& e) {
        warnNotLoaded(name, e.what());
    } catch (...) {
        warnNotLoaded(name, "unknown error");
    }
    return nullptr;
}

}  // namespace

void installSystemFontLoader(fz_context* ctx) {
    fz_install_load_system_font_funcs(ctx, loadSystemFont, NULL, NULL);
}

ScopedFontProvider::ScopedFontProvider(const IFontProvider* provider) : previous_(currentProvider) {
    currentProvider = provider;
}
ScopedFontProvider::~ScopedFontProvider() {
    currentProvider = previous_;
}

}  // namespace Orvane::PDF::Pdfium
