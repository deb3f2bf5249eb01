#include <fontconfig/fontconfig.h>
#include <glog/logging.h>

#include <cctype>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>

#include "orvane/pdf/SystemFontProviderFactory.h"

namespace Orvane::PDF {
namespace {

std::string lower(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (char c : text) {
        if (c != ' ' && c != '_') result.push_back(char(std::tolower(static_cast<unsigned char>(c))));
    }
    return result;
}

bool endsWith(const std::string& text, std::string_view suffix) {
    return text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A font name as PDFs write it ("ABCDEF+Arial,Bold", "TimesNewRomanPS-BoldMT",
// "DejaVu Sans") reduced to its family for comparison: subset tag and style
// suffix gone, no spaces, lower case, without the vendors' "MT"/"PS" marks.
struct FontName {
    std::string family;  // as a fontconfig query
    std::string key;     // normalised, for comparison
    bool bold = false;
    bool italic = false;
};

FontName parseFontName(std::string_view name) {
    FontName result;
    if (name.size() > 7 && name[6] == '+') {
        bool tag = true;
        for (size_t i = 0; i < 6; ++i) tag = tag && name[i] >= 'A' && name[i] <= 'Z';
        if (tag) name.remove_prefix(7);
    }
    std::string_view style;
    const size_t cut = name.find_first_of(",-");
    if (cut != std::string_view::npos) {
        style = name.substr(cut + 1);
        name = name.substr(0, cut);
    }
    const std::string styleKey = lower(style);
    result.bold = styleKey.find("bold") != std::string::npos || styleKey.find("black") != std::string::npos ||
                  styleKey.find("heavy") != std::string::npos;
    result.italic = styleKey.find("italic") != std::string::npos || styleKey.find("oblique") != std::string::npos;

    std::string key = lower(name);
    for (bool trimmed = true; trimmed;) {
        trimmed = false;
        for (std::string_view mark : {"mt", "ps"}) {
            if (endsWith(key, mark)) {
                key.resize(key.size() - mark.size());
                trimmed = true;
            }
        }
    }
    result.key = key;
    result.family = std::string(name);
    if (lower(result.family) != key) result.family = key;  // fontconfig ignores case and blanks
    return result;
}

std::string normalise(const char* family) {
    return parseFontName(family == nullptr ? "" : family).key;
}

struct PatternDeleter {
    void operator()(FcPattern* pattern) const { FcPatternDestroy(pattern); }
};
using Pattern = std::unique_ptr<FcPattern, PatternDeleter>;

// The families of the standard 14 fonts. MuPDF's own fonts for them have
// exactly their metrics, so the system is not asked (a look-alike it offers
// would be refused anyway).
bool isStandardFamily(const std::string& key) {
    for (std::string_view family : {"times", "helvetica", "courier", "symbol", "zapfdingbats"}) {
        if (key == family) return true;
    }
    return false;
}

// Finds fonts through fontconfig. A match counts only when one of its family
// names (or its PostScript name) is the requested family: fontconfig always
// answers with something, and a look-alike substitute would be worse than
// MuPDF's own metric-compatible fonts.
//
// One catalog serves the whole process: its configuration is loaded on the
// first look-up (several milliseconds) and every answer is kept, so no
// document, page or service pays for a look-up made before.
class FontCatalog {
public:
    static std::shared_ptr<FontCatalog> Shared() {
        // Providers hold it too, so it outlives this variable at exit.
        static const std::shared_ptr<FontCatalog> catalog = std::make_shared<FontCatalog>();
        return catalog;
    }

    FontCatalog() = default;
    ~FontCatalog() {
        if (config_ != nullptr) FcConfigDestroy(config_);
    }
    FontCatalog(const FontCatalog&) = delete;
    FontCatalog& operator=(const FontCatalog&) = delete;

    std::string Find(const std::string& family, const FontName& name, bool bold, bool italic) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto key = std::make_tuple(name.key, bold, italic);
        const auto cached = cache_.find(key);
        if (cached != cache_.end()) return cached->second;
        // A configuration of its own: fontconfig's process-wide default is
        // never released.
        if (config_ == nullptr && !configFailed_) {
            config_ = FcInitLoadConfigAndFonts();
            configFailed_ = config_ == nullptr;
            LOG_IF(WARNING, configFailed_) << "cannot load the fontconfig configuration; no system fonts";
        }
        std::string file = config_ != nullptr ? Lookup(config_, name, bold, italic) : std::string();
        VLOG(2) << "system font for " << family << (bold ? " bold" : "") << (italic ? " italic" : "") << ": "
                << (file.empty() ? "none" : file);
        cache_.emplace(key, file);
        return file;
    }

private:
    static std::string Lookup(FcConfig* config, const FontName& name, bool bold, bool italic) {
        Pattern query(FcPatternCreate());
        if (!query) return {};
        FcPatternAddString(query.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(name.family.c_str()));
        FcPatternAddInteger(query.get(), FC_WEIGHT, bold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
        FcPatternAddInteger(query.get(), FC_SLANT, italic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
        if (!FcConfigSubstitute(config, query.get(), FcMatchPattern)) return {};
        FcDefaultSubstitute(query.get());
        FcResult result = FcResultNoMatch;
        Pattern match(FcFontMatch(config, query.get(), &result));
        if (!match || result != FcResultMatch) return {};

        bool sameFamily = false;
        FcChar8* value = nullptr;
        for (int i = 0; !sameFamily && FcPatternGetString(match.get(), FC_FAMILY, i, &value) == FcResultMatch; ++i) {
            sameFamily = normalise(reinterpret_cast<const char*>(value)) == name.key;
        }
        if (!sameFamily && FcPatternGetString(match.get(), FC_POSTSCRIPT_NAME, 0, &value) == FcResultMatch) {
            sameFamily = normalise(reinterpret_cast<const char*>(value)) == name.key;
        }
        if (!sameFamily) return {};

        // The engine loads the first face of a file; a later face of a
        // collection would be the wrong font.
        int index = 0;
        if (FcPatternGetInteger(match.get(), FC_INDEX, 0, &index) == FcResultMatch && index != 0) return {};
        if (FcPatternGetString(match.get(), FC_FILE, 0, &value) != FcResultMatch) return {};
        return reinterpret_cast<const char*>(value);
    }

    std::mutex mutex_;
    FcConfig* config_ = nullptr;                                        // guarded by mutex_
    bool configFailed_ = false;                                         // guarded by mutex_
    std::map<std::tuple<std::string, bool, bool>, std::string> cache_;  // guarded by mutex_
};

class SystemFontProvider : public IFontProvider {
public:
    std::string FindFontFile(const std::string& family, bool bold, bool italic) const override {
        const FontName name = parseFontName(family);
        if (name.key.empty() || isStandardFamily(name.key)) return {};
        return catalog_->Find(family, name, bold || name.bold, italic || name.italic);
    }

private:
    const std::shared_ptr<FontCatalog> catalog_ = FontCatalog::Shared();
};

}  // namespace

SystemFontProviderFactory::SystemFontProviderFactory() = default;
SystemFontProviderFactory::~SystemFontProviderFactory() = default;

std::shared_ptr<IFontProvider> SystemFontProviderFactory::CreateFontProvider() {
    return std::make_shared<SystemFontProvider>();
}

}  // namespace Orvane::PDF
