// Text selection over a page's text object: what a drag, a double click, a
// triple click or "select all" chooses, in the text's reading order.

#include <unicode/uchar.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "engine/Geometry.h"
#include "engine/Reading.h"
#include "engine/TextObject.h"

namespace Orvane::PDF::Pdfium {
namespace {

constexpr wchar_t kSoftHyphen = 0x00AD;

bool isWordChar(wchar_t c) {
    if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (c == kSoftHyphen) return true;
    return (U_GET_GC_MASK(static_cast<UChar32>(c)) & (U_GC_L_MASK | U_GC_N_MASK | U_GC_M_MASK)) != 0;
}

bool isHyphen(wchar_t c) {
    return c == '-' || c == 0x2010;
}

bool isSpace(wchar_t c) {
    return c == ' ' || c == '\t' || c == 0xA0;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

double distance(const Rect& box, const Position& p) {
    const double dx = p.x < box.left ? box.left - p.x : (p.x > box.right ? p.x - box.right : 0.0);
    const double dy = p.y < box.bottom ? box.bottom - p.y : (p.y > box.top ? p.y - box.top : 0.0);
    return std::hypot(dx, dy);
}

// The page text split into its lines, each with the box around its characters.
class Lines {
public:
    explicit Lines(const ITextObject& text) : text_(text.GetText()) {
        int start = 0;
        for (int i = 0; i < static_cast<int>(text_.size()); ++i) {
            if (text_[static_cast<size_t>(i)] != L'\n') continue;
            Line line{start, i, Rect{}, {}};
            for (int c = start; c < i; ++c) {
                const Rect box = text.GetCharBox(c);
                line.boxes.push_back(box);
                if (!IsEmptyBox(box)) Unite(line.box, box);
            }
            lines_.push_back(std::move(line));
            start = i + 1;
        }
    }

    bool Empty() const { return lines_.empty(); }
    const std::wstring& Text() const { return text_; }

    // The line under the point, or failing that the nearest one.
    size_t LineAt(const Position& p) const {
        size_t best = 0;
        double bestDistance = std::numeric_limits<double>::infinity();
        for (size_t i = 0; i < lines_.size(); ++i) {
            if (IsEmptyBox(lines_[i].box)) continue;
            const double d = distance(lines_[i].box, p);
            if (d < bestDistance) {
                best = i;
                bestDistance = d;
                if (d == 0) break;
            }
        }
        return best;
    }

    // Where a drag through the point puts the caret: before the first
    // character of its line whose middle lies right of the point, else at
    // the line's end.
    int CaretAt(const Position& p) const {
        const Line& line = lines_[LineAt(p)];
        for (int c = line.start; c < line.end; ++c) {
            const Rect& box = line.boxes[static_cast<size_t>(c - line.start)];
            if (IsEmptyBox(box)) continue;
            if (p.x < (box.left + box.right) / 2) return c;
        }
        return line.end;
    }

    // The character under the point, or the nearest of its line; -1 for an
    // empty line.
    int CharAt(const Position& p) const {
        const Line& line = lines_[LineAt(p)];
        int best = -1;
        double bestDistance = std::numeric_limits<double>::infinity();
        for (int c = line.start; c < line.end; ++c) {
            const Rect& box = line.boxes[static_cast<size_t>(c - line.start)];
            if (IsEmptyBox(box)) continue;
            const double d = distance(box, p);
            if (d < bestDistance) {
                best = c;
                bestDistance = d;
            }
        }
        return best;
    }

    std::pair<int, int> LineSpan(const Position& p) const {
        const Line& line = lines_[LineAt(p)];
        return {line.start, line.end};
    }

private:
    struct Line {
        int start;  // first character
        int end;    // its line break
        Rect box;
        std::vector<Rect> boxes;
    };

    std::wstring text_;
    std::vector<Line> lines_;
};

TextSelection makeSelection(const ITextObject& text, int first, int end) {
    TextSelection selection;
    if (end <= first) {
        selection.charIndex = std::max(first, 0);
        return selection;
    }
    selection.charIndex = first;
    selection.charCount = end - first;
    selection.text = CopyText(text, first, end - first);
    selection.rects = text.GetTextRects(first, end - first);
    return selection;
}

}  // namespace

std::string CopyText(const ITextObject& object, int first, int count) {
    const std::wstring text = object.GetText();
    const int n = static_cast<int>(text.size());
    first = std::clamp(first, 0, n);
    const int end = static_cast<int>(std::clamp<long long>(static_cast<long long>(first) + std::max(count, 0), first, n));
    std::wstring out;
    for (int i = first; i < end; ++i) {
        const wchar_t c = text[static_cast<size_t>(i)];
        if (c == kSoftHyphen) continue;
        if (c != L'\n') {
            out += SpellLigature(c);
            continue;
        }
        // A word broken at the line end ("docu-" | "ment", or after a soft
        // hyphen) reads as one word, as the search reads it.
        size_t k = out.size();
        while (k > 0 && isSpace(out[k - 1])) --k;
        int next = i + 1;
        while (next < end && isSpace(text[static_cast<size_t>(next)])) ++next;
        const bool wordGoesOn = next < end && isWordChar(text[static_cast<size_t>(next)]);
        int before = i - 1;
        while (before >= first && isSpace(text[static_cast<size_t>(before)])) --before;
        const bool softBreak = before >= first && text[static_cast<size_t>(before)] == kSoftHyphen;
        const bool hyphenBreak = k >= 2 && isHyphen(out[k - 1]) && isWordChar(out[k - 2]);
        if (wordGoesOn && (softBreak || hyphenBreak)) {
            out.resize(hyphenBreak ? k - 1 : k);
            i = next - 1;
            continue;
        }
        out += L'\n';
    }
    while (!out.empty() && out.back() == L'\n') out.pop_back();
    std::string utf8;
    utf8.reserve(out.size());
    for (wchar_t c : out) appendUtf8(utf8, static_cast<char32_t>(c));
    return utf8;
}

TextSelection SelectBetween(const ITextObject& text, const Position& from, const Position& to) {
    const Lines lines(text);
    if (lines.Empty()) return {};
    const int a = lines.CaretAt(from);
    const int b = lines.CaretAt(to);
    return makeSelection(text, std::min(a, b), std::max(a, b));
}

TextSelection SelectWordAt(const ITextObject& text, const Position& at) {
    const Lines lines(text);
    if (lines.Empty()) return {};
    const int c = lines.CharAt(at);
    if (c < 0) return {};
    const std::wstring& chars = lines.Text();
    if (!isWordChar(chars[static_cast<size_t>(c)])) return makeSelection(text, c, c + 1);
    int first = c, end = c + 1;
    while (first > 0 && isWordChar(chars[static_cast<size_t>(first - 1)])) --first;
    while (end < static_cast<int>(chars.size()) && isWordChar(chars[static_cast<size_t>(end)])) ++end;
    return makeSelection(text, first, end);
}

TextSelection SelectLineAt(const ITextObject& text, const Position& at) {
    const Lines lines(text);
    if (lines.Empty()) return {};
    const auto [first, end] = lines.LineSpan(at);
    return makeSelection(text, first, end);
}

TextSelection SelectAllText(const ITextObject& text) {
    return makeSelection(text, 0, text.GetCharCount());
}

}  // namespace Orvane::PDF::Pdfium
