#include "engine/TextObject.h"

#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <QChar>
#include <QString>
#include <QVector>
#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "engine/Geometry.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// A page claiming more characters than this is not text anyone reads; the
// rest is dropped so that a hostile page cannot make the copy unbounded.
constexpr size_t kMaxChars = size_t(1) << 22;

// Unites the boxes that have an area; any tells whether one was seen.
void unite(Rect& into, bool& any, const Rect& r) {
    if (IsEmptyBox(r)) return;
    if (!any) into = r;
    any = true;
    Unite(into, r);
}

// ---- character classes used by the matcher ----

bool isSpaceChar(wchar_t c) {
    return QChar::isSpace(static_cast<uint>(c));
}
bool isMarkChar(wchar_t c) {
    return QChar::isMark(static_cast<uint>(c));
}
bool isWordChar(wchar_t c) {
    const uint u = static_cast<uint>(c);
    return QChar::isLetterOrNumber(u) || QChar::isMark(u) || c == L'_';
}
bool isHyphen(wchar_t c) {
    return c == L'-' || c == 0x00AD || c == 0x2010;
}

// The base letter of a character whose canonical decomposition is that letter
// followed by combining marks only ("é" -> "e", "ǖ" -> "u").
char32_t withoutDiacritics(char32_t c) {
    for (int depth = 0; depth < 4; ++depth) {
        if (QChar::decompositionTag(c) != QChar::Canonical) break;
        const QVector<uint> parts = QChar::decomposition(c).toUcs4();
        if (parts.isEmpty()) break;
        for (int i = 1; i < parts.size(); ++i) {
            if (!QChar::isMark(parts[i])) return c;
        }
        c = parts[0];
    }
    return c;
}

char32_t normalise(wchar_t raw, int flags) {
    char32_t c = static_cast<char32_t>(raw);
    if (flags & ITextObject::IgnoreDiacritics) c = withoutDiacritics(c);
    if (!(flags & ITextObject::MatchCase)) c = QChar::toCaseFolded(static_cast<uint>(c));
    return c;
}

class Matcher {
public:
    Matcher(const std::wstring& text, const std::wstring& needle, int flags)
        : text_(text), n_(static_cast<int>(text.size())), ignoreMarks_(flags & ITextObject::IgnoreDiacritics) {
        for (wchar_t c : needle) {
            if (isSpaceChar(c)) {
                if (tokens_.empty() || !tokens_.back().space) tokens_.push_back({true, 0});
            } else if (ignoreMarks_ && isMarkChar(c)) {
                continue;
            } else {
                tokens_.push_back({false, normalise(c, flags)});
            }
        }
        norm_.reserve(text.size());
        for (wchar_t c : text) norm_.push_back(normalise(c, flags));
    }

    bool Empty() const { return tokens_.empty(); }

    // End (exclusive) of the match that begins at i, or -1.
    int MatchAt(int i) const {
        size_t t = 0;
        while (t < tokens_.size()) {
            const Token& token = tokens_[t];
            if (i >= n_) return -1;
            if (token.space) {
                if (!isSpaceChar(text_[i])) return -1;
                while (i < n_ && isSpaceChar(text_[i])) ++i;
                ++t;
                continue;
            }
            if (norm_[i] != token.c) {
                // "docu-\nment" reads as "document". The hyphen and the
                // letter after the break never match the same needle
                // character, so the two readings need no backtracking.
                const int next = t > 0 ? JoinedWordContinues(i) : -1;
                if (next < 0 || norm_[next] != token.c) return -1;
                i = next;
            }
            ++i;
            ++t;
            if (ignoreMarks_) {
                while (i < n_ && isMarkChar(text_[i])) ++i;
            }
        }
        return i;
    }

private:
    struct Token {
        bool space;
        char32_t c;
    };

    // Where a word hyphenated at a line end goes on, if i is such a hyphen.
    int JoinedWordContinues(int i) const {
        if (i <= 0 || !isHyphen(text_[i]) || !isWordChar(text_[i - 1])) return -1;
        int j = i + 1;
        bool lineBreak = false;
        while (j < n_ && isSpaceChar(text_[j])) {
            if (text_[j] == L'\n') lineBreak = true;
            ++j;
        }
        if (!lineBreak || j >= n_ || !isWordChar(text_[j])) return -1;
        return j;
    }

    const std::wstring& text_;
    const int n_;
    const bool ignoreMarks_;
    std::vector<Token> tokens_;
    std::vector<char32_t> norm_;
};

Rect toRect(fz_rect r) {
    return Rect{r.x0, r.y1, r.x1, r.y0};
}

wchar_t sanitise(int c) {
    if (c < 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return static_cast<wchar_t>(0xFFFD);
    if (c < 0x20 && c != '\t') return L' ';
    return static_cast<wchar_t>(c);
}

}  // namespace

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

    const int n = GetCharCount();
    const bool wholeWords = flags & WholeWords;
    const bool overlapping = flags & Overlapping;
    int start = 0;
    while (start < n) {
        const int end = matcher.MatchAt(start);
        const bool found = end > start;
        const bool whole =
            !wholeWords || (found && (start == 0 || !isWordChar(text_[static_cast<size_t>(start - 1)])) &&
                            (end == n || !isWordChar(text_[static_cast<size_t>(end)])));
        if (found && whole) {
            hits.push_back({start, end - start, BoundsOf(start, end)});
            start = overlapping ? start + 1 : end;
        } else {
            ++start;
        }
    }
    return hits;
}

std::shared_ptr<ITextObject> ExtractText(fz_context* ctx, pdf_page* page) {
    struct Frame {
        fz_rect bounds;    // the page as displayed, MuPDF's space
        fz_matrix toPage;  // MuPDF's space -> page space
    };
    const Frame frame = guarded(ctx, [&] {
        fz_rect box;
        fz_matrix ctm;
        pdf_page_transform(ctx, page, &box, &ctm);
        return Frame{fz_transform_rect(box, ctm), fz_invert_matrix(ctm)};
    });

    StextPageHandle stext(ctx, guarded(ctx, [&] { return fz_new_stext_page(ctx, frame.bounds); }));
    // Keep white space as the file has it, expand ligatures (so "fi" is two
    // searchable letters), and leave hyphenated words alone: the matcher joins
    // them itself and GetText() must show the page as it is.
    fz_stext_options options{};
    options.flags = FZ_STEXT_PRESERVE_WHITESPACE | FZ_STEXT_MEDIABOX_CLIP;
    DeviceHandle device(ctx, guarded(ctx, [&] { return fz_new_stext_device(ctx, stext.get(), &options); }));
    fz_cookie cookie{};  // a failing operator ends the page instead of throwing
    const Deadline deadline(cookie, PageTimeBudget());
    guarded(ctx, [&] {
        fz_run_page_contents(ctx, &page->super, device.get(), fz_identity, &cookie);
        fz_close_device(ctx, device.get());
    });
    device.reset();
    if (deadline.Expired()) {
        throw Orvane::Exception("page " + std::to_string(page->super.number) + ": reading its text took longer than " +
                                std::to_string(PageTimeBudget().count()) + " ms");
    }
    if (cookie.errors > 0) {
        LOG(WARNING) << "page " << page->super.number << ": text read with " << cookie.errors << " error(s)";
    }

    std::wstring text;
    std::vector<Rect> boxes;
    std::vector<int> lineStarts;
    bool truncated = false;
    for (fz_stext_block* block = stext.get()->first_block; block && !truncated; block = block->next) {
        if (block->type != FZ_STEXT_BLOCK_TEXT) continue;
        for (fz_stext_line* line = block->u.t.first_line; line && !truncated; line = line->next) {
            if (line->first_char == nullptr) continue;
            lineStarts.push_back(static_cast<int>(text.size()));
            for (fz_stext_char* ch = line->first_char; ch; ch = ch->next) {
                if (text.size() + 1 >= kMaxChars) {
                    truncated = true;
                    break;
                }
                text.push_back(sanitise(ch->c));
                boxes.push_back(toRect(fz_transform_rect(fz_rect_from_quad(ch->quad), frame.toPage)));
            }
            text.push_back(L'\n');
            boxes.push_back(Rect{});
        }
    }
    if (truncated) {
        LOG(WARNING) << "page " << page->super.number << ": text cut after " << kMaxChars << " characters";
    }
    return std::make_shared<TextObject>(std::move(text), std::move(boxes), std::move(lineStarts));
}

}  // namespace Orvane::PDF::Pdfium
