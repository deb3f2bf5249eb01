// Finding text in a page's text, and the text object's geometry. Plain
// data and ICU: nothing here touches the engine.

#include "engine/TextObject.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

#include "engine/Geometry.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Unites the boxes that have an area; any tells whether one was seen.
void unite(Rect& into, bool& any, const Rect& r) {
    if (IsEmptyBox(r)) return;
    if (!any) into = r;
    any = true;
    Unite(into, r);
}

// ---- the form in which page text and needle are compared ----
//
// Both sides are brought into one form before they are compared: soft hyphens
// are dropped (they are invisible), ligatures are spelt out ("ﬁ" -> "fi"),
// characters are decomposed canonically ("é" -> "e" + U+0301), then folded
// fully unless case matters ("ß" -> "ss"), and combining marks are dropped
// when diacritics do not matter. A page character thus becomes zero, one or
// several code points ("units"), each remembering the character it came from.

constexpr char32_t kSoftHyphen = 0x00AD;

bool isSpaceUnit(char32_t c) {
    if (c < 0x80) return c == ' ' || (c >= '\t' && c <= '\r');
    return u_isUWhiteSpace(static_cast<UChar32>(c));
}
bool isMarkUnit(char32_t c) {
    return c >= 0x300 && (U_GET_GC_MASK(static_cast<UChar32>(c)) & U_GC_M_MASK) != 0;
}
bool isWordUnit(char32_t c) {
    if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    return (U_GET_GC_MASK(static_cast<UChar32>(c)) & (U_GC_L_MASK | U_GC_N_MASK | U_GC_M_MASK)) != 0;
}
bool isHyphenUnit(char32_t c) {
    return c == '-' || c == 0x2010;
}

const icu::Normalizer2& normaliser(bool compatibility) {
    static const auto instances = [] {
        UErrorCode status = U_ZERO_ERROR;
        const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
        const icu::Normalizer2* nfkd = icu::Normalizer2::getNFKDInstance(status);
        if (U_FAILURE(status))
            throw Orvane::Exception(std::string("Unicode normalisation unavailable: ") + u_errorName(status));
        return std::make_pair(nfd, nfkd);
    }();
    return compatibility ? *instances.second : *instances.first;
}

// A ligature: a compatibility decomposition into letters (and marks) only, so
// "ﬁ", "Ĳ" or "ŉ" but not "…", "½" or a spacing accent.
bool ligatureParts(char32_t c, icu::UnicodeString& parts) {
    if (u_getIntPropertyValue(static_cast<UChar32>(c), UCHAR_DECOMPOSITION_TYPE) != U_DT_COMPAT) return false;
    if (!normaliser(true).getDecomposition(static_cast<UChar32>(c), parts)) return false;
    for (int32_t i = 0; i < parts.length(); i = parts.moveIndex32(i, 1)) {
        if (!(U_GET_GC_MASK(parts.char32At(i)) & (U_GC_L_MASK | U_GC_M_MASK))) return false;
    }
    return true;
}

class Normaliser {
public:
    explicit Normaliser(int flags)
        : matchCase_(flags & ITextObject::MatchCase), ignoreMarks_(flags & ITextObject::IgnoreDiacritics) {}

    bool IgnoresMarks() const { return ignoreMarks_; }

    // Calls emit for each unit of c.
    template <class Emit>
    void Units(char32_t c, Emit&& emit) {
        if (c < 0x80) {
            emit(!matchCase_ && c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
            return;
        }
        if (c == kSoftHyphen) return;
        auto known = cache_.find(c);
        if (known == cache_.end()) known = cache_.emplace(c, Compute(c)).first;
        for (char32_t unit : known->second) emit(unit);
    }

private:
    std::u32string Compute(char32_t c) const {
        const icu::Normalizer2& nfd = normaliser(false);
        icu::UnicodeString s;
        if (!ligatureParts(c, s) && !nfd.getDecomposition(static_cast<UChar32>(c), s)) s.setTo(static_cast<UChar32>(c));
        if (!matchCase_) {
            s.foldCase();
            UErrorCode status = U_ZERO_ERROR;
            s = nfd.normalize(s, status);  // folding may compose again
            if (U_FAILURE(status))
                throw Orvane::Exception(std::string("Unicode normalisation: ") + u_errorName(status));
        }
        std::u32string units;
        for (int32_t i = 0; i < s.length(); i = s.moveIndex32(i, 1)) {
            const char32_t unit = static_cast<char32_t>(s.char32At(i));
            if (!(ignoreMarks_ && isMarkUnit(unit)) && unit != kSoftHyphen) units.push_back(unit);
        }
        return units;
    }

    const bool matchCase_;
    const bool ignoreMarks_;
    std::unordered_map<char32_t, std::u32string> cache_;
};

// Finds the needle in the units of the page text. Positions are unit indices;
// a match begins and ends on the boundaries of page characters.
class Matcher {
public:
    Matcher(const std::wstring& text, const std::wstring& needle, int flags) : text_(text), normaliser_(flags) {
        for (wchar_t raw : needle) {
            const auto c = static_cast<char32_t>(TextChar(static_cast<int>(raw)));
            if (isSpaceUnit(c)) {
                if (tokens_.empty() || !tokens_.back().space) tokens_.push_back({true, 0});
                continue;
            }
            normaliser_.Units(c, [&](char32_t unit) { tokens_.push_back({false, unit}); });
        }
        units_.reserve(text.size());
        origins_.reserve(text.size());
        for (size_t i = 0; i < text.size(); ++i) {
            normaliser_.Units(static_cast<char32_t>(text[i]), [&](char32_t unit) {
                units_.push_back(unit);
                origins_.push_back(static_cast<int>(i));
            });
        }
        count_ = static_cast<int>(units_.size());
    }

    bool Empty() const { return tokens_.empty(); }
    int Count() const { return count_; }
    // Whether unit i is the first of its page character.
    bool StartsChar(int i) const { return i == 0 || origins_[i] != origins_[i - 1]; }
    int FirstChar(int i) const { return origins_[i]; }
    // The page character after the match that ends before unit end, past the
    // combining marks that were dropped with it.
    int EndChar(int end) const {
        int c = origins_[end - 1] + 1;
        const int n = static_cast<int>(text_.size());
        if (normaliser_.IgnoresMarks()) {
            while (c < n && isMarkUnit(static_cast<char32_t>(text_[c]))) ++c;
        }
        return c;
    }
    bool WholeWord(int first, int end) const {
        return (first == 0 || !isWordUnit(units_[first - 1])) && (end == count_ || !isWordUnit(units_[end]));
    }

    // End (exclusive) of the match that begins at unit i, or -1.
    int MatchAt(int i) const {
        for (size_t t = 0; t < tokens_.size(); ++t) {
            const Token& token = tokens_[t];
            if (i >= count_) return -1;
            if (token.space) {
                if (!isSpaceUnit(units_[i])) return -1;
                while (i < count_ && isSpaceUnit(units_[i])) ++i;
                continue;
            }
            if (units_[i] == token.c) {
                // A hyphen typed where the page breaks the line after one
                // ("e-" | "mail") goes on with the next line.
                const bool goesOn = isHyphenUnit(token.c) && t + 1 < tokens_.size() && !tokens_[t + 1].space;
                const int next = goesOn ? JoinedWordContinues(i) : -1;
                i = next >= 0 ? next : i + 1;
                continue;
            }
            // "docu-\nment" reads as "document". The hyphen and the letter
            // after the break never match the same needle character, so the
            // two readings need no backtracking.
            const int next = t > 0 ? JoinedWordContinues(i) : -1;
            if (next < 0 || units_[next] != token.c) return -1;
            i = next + 1;
        }
        // Not inside a page character, and not before a mark that changes the
        // last letter ("e" does not match "é").
        if (i < count_ && (origins_[i] == origins_[i - 1] || isMarkUnit(units_[i]))) return -1;
        return i;
    }

private:
    struct Token {
        bool space;
        char32_t c;
    };

    // Where a word hyphenated at a line end goes on, if unit i is its hyphen,
    // or the line break after a soft hyphen.
    int JoinedWordContinues(int i) const {
        if (i <= 0 || !isWordUnit(units_[i - 1])) return -1;
        int j = i;
        if (isHyphenUnit(units_[i])) {
            ++j;
        } else if (std::find(text_.begin() + origins_[i - 1], text_.begin() + origins_[i],
                             static_cast<wchar_t>(kSoftHyphen)) == text_.begin() + origins_[i]) {
            return -1;
        }
        bool lineBreak = false;
        while (j < count_ && isSpaceUnit(units_[j])) {
            lineBreak = lineBreak || units_[j] == '\n';
            ++j;
        }
        if (!lineBreak || j >= count_ || !isWordUnit(units_[j])) return -1;
        return j;
    }

    const std::wstring& text_;
    Normaliser normaliser_;
    std::vector<Token> tokens_;
    std::vector<char32_t> units_;
    std::vector<int> origins_;  // the page character of each unit
    int count_ = 0;
};

}  // namespace

wchar_t TextChar(int c) {
    if (c < 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return static_cast<wchar_t>(0xFFFD);
    if (c < 0x20 && c != '\t') return L' ';
    return static_cast<wchar_t>(c);
}

TextObject::TextObject(std::wstring text, std::vector<Rect> boxes, std::vector<int> lineStarts)
    : text_(std::move(text)), boxes_(std::move(boxes)), lineStarts_(std::move(lineStarts)) {
    if (boxes_.size() != text_.size()) throw std::invalid_argument("TextObject: one box per character expected");
}

Rect TextObject::GetCharBox(int charIndex) const {
    if (charIndex < 0 || charIndex >= GetCharCount()) throw std::out_of_range("character index out of range");
    return boxes_[static_cast<size_t>(charIndex)];
}

Rect TextObject::BoundsOf(int first, int end) const {
    Rect bounds;
    bool any = false;
    for (int i = first; i < end; ++i) unite(bounds, any, boxes_[static_cast<size_t>(i)]);
    return bounds;
}

std::vector<Rect> TextObject::GetTextRects(int charIndex, int charCount) const {
    std::vector<Rect> rects;
    const int n = GetCharCount();
    const long long endWanted = static_cast<long long>(charIndex) + std::max(charCount, 0);
    const int first = std::clamp(charIndex, 0, n);
    const int end = static_cast<int>(std::clamp<long long>(endWanted, first, n));
    if (first >= end) return rects;

    // The line holding first, then line by line to end.
    auto line = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), first);
    int from = first;
    while (from < end) {
        const int lineEnd = line == lineStarts_.end() ? n : *line;
        const int to = std::min(end, lineEnd);
        Rect r;
        bool any = false;
        for (int i = from; i < to; ++i) unite(r, any, boxes_[static_cast<size_t>(i)]);
        if (any) rects.push_back(r);
        from = to;
        if (line != lineStarts_.end()) ++line;
    }
    return rects;
}

std::vector<SearchResultInfo> TextObject::FindText(const std::wstring& needle, int flags) const {
    std::vector<SearchResultInfo> hits;
    const Matcher matcher(text_, needle, flags);
    if (matcher.Empty()) return hits;

    const int count = matcher.Count();
    const bool wholeWords = flags & WholeWords;
    const bool overlapping = flags & Overlapping;
    int start = 0;
    while (start < count) {
        const int end = matcher.StartsChar(start) ? matcher.MatchAt(start) : -1;
        if (end > start && (!wholeWords || matcher.WholeWord(start, end))) {
            const int first = matcher.FirstChar(start);
            const int last = matcher.EndChar(end);
            hits.push_back({first, last - first, BoundsOf(first, last)});
            start = overlapping ? start + 1 : end;
        } else {
            ++start;
        }
    }
    return hits;
}

std::wstring SpellLigature(wchar_t c) {
    const auto code = static_cast<char32_t>(TextChar(static_cast<int>(c)));
    icu::UnicodeString parts;
    if (code < 0x80 || !ligatureParts(code, parts)) return std::wstring(1, static_cast<wchar_t>(code));
    std::wstring spelt;
    for (int32_t i = 0; i < parts.length(); i = parts.moveIndex32(i, 1)) {
        spelt.push_back(static_cast<wchar_t>(parts.char32At(i)));
    }
    return spelt;
}

}  // namespace Orvane::PDF::Pdfium
