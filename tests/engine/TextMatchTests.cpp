// The matcher on plain strings: case folding, white space across line
// breaks, hyphenation at a line end, whole words, overlapping hits,
// diacritics, ligatures and soft hyphens; hit bounds against the
// highlighting rectangles. No engine: a text object is plain data.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "engine/TextObject.h"

namespace {

using Orvane::PDF::ITextObject;
using Orvane::PDF::Rect;
using Orvane::PDF::SearchResultInfo;

// One line per string, as text extraction lays them out: each line's
// characters and a line break, a box for every character (6 points wide,
// lines 20 points apart from y = 720 down) and an empty one for the break.
std::shared_ptr<ITextObject> Lines(const std::vector<std::wstring>& lines) {
    std::wstring text;
    std::vector<Rect> boxes;
    std::vector<int> starts;
    for (size_t l = 0; l < lines.size(); ++l) {
        starts.push_back(int(text.size()));
        const double bottom = 720.0 - 20 * double(l);
        for (size_t i = 0; i < lines[l].size(); ++i) {
            text.push_back(lines[l][i]);
            boxes.push_back({72 + 6.0 * double(i), bottom + 10, 78 + 6.0 * double(i), bottom});
        }
        text.push_back(L'\n');
        boxes.push_back(Rect{});
    }
    return std::make_shared<Orvane::PDF::Pdfium::TextObject>(text, boxes, starts);
}

std::shared_ptr<ITextObject> Sample() {
    return Lines({L"\u00C9COLE \u00E9t\u00E9 Hello", L"the quick brown", L"fox jumps a docu-",
                  L"ment and a well-known one", L"cat concatenate cat. aaaa"});
}

std::wstring Covered(const ITextObject& text, const SearchResultInfo& hit) {
    return text.GetText().substr(size_t(hit.charIndex), size_t(hit.charCount));
}

TEST(TextMatch, Rules) {
    auto text = Sample();
    ASSERT_EQ(text->GetText().substr(0, 16), L"\u00C9COLE \u00E9t\u00E9 Hello\n");
    const int brown = 26, docu = 44, cat = 76, aaaa = 97;
    struct Case {
        std::wstring needle;
        int flags;
        std::vector<int> starts;
        std::wstring covered;  // by every hit
    } cases[] = {
        {L"\u00E9cole", 0, {0}, L"\u00C9COLE"},  // a non-ASCII capital folds
        {L"\u00C9T\u00C9", 0, {6}, L"\u00E9t\u00E9"},
        {L"hello", ITextObject::MatchCase, {}, L""},
        {L"Hello", ITextObject::MatchCase, {10}, L"Hello"},
        {L"ecole", 0, {}, L""},
        {L"ecole", ITextObject::IgnoreDiacritics, {0}, L"\u00C9COLE"},
        {L"brown fox", 0, {brown}, L"brown\nfox"},  // white space matches a line break
        {L"brown   fox", 0, {brown}, L"brown\nfox"},
        {L"Brown\nFox", 0, {brown}, L"brown\nfox"},
        {L"brownfox", 0, {}, L""},
        {L"document", ITextObject::WholeWords, {docu}, L"docu-\nment"},  // hyphenated at the line end
        {L"docu- ment", 0, {docu}, L"docu-\nment"},                      // as printed
        {L"well-known", 0, {61}, L"well-known"},
        {L"wellknown", 0, {}, L""},  // a hyphen within a line stays
        {L"cat", 0, {cat, cat + 7, cat + 16}, L"cat"},
        {L"cat", ITextObject::WholeWords, {cat, cat + 16}, L"cat"},
        {L"aa", 0, {aaaa, aaaa + 2}, L"aa"},
        {L"aa", ITextObject::Overlapping, {aaaa, aaaa + 1, aaaa + 2}, L"aa"},
        {L"aa", ITextObject::WholeWords, {}, L""},
        {L"zebra", 0, {}, L""},
        {L"", 0, {}, L""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.needle.begin(), c.needle.end()) + " flags " + std::to_string(c.flags));
        std::vector<int> starts;
        for (const SearchResultInfo& hit : text->FindText(c.needle, c.flags)) {
            starts.push_back(hit.charIndex);
            EXPECT_EQ(Covered(*text, hit), c.covered);
        }
        EXPECT_EQ(starts, c.starts);
    }
}

// Text as people type it: folding, ligatures, soft hyphens, combining marks
// and a typed hyphen at a line end, on the page and in the needle. Every hit
// covers exactly the page characters (which GetText shows unchanged) and
// their boxes.
TEST(TextMatch, AsTyped) {
    auto text =
        Lines({L"Stra\u00DFe STRASSE find caf\u00E9 e-", L"mail to the infor\u00ADmation desk infor\u00AD", L"mation"});
    const std::wstring sharpS = L"Stra\u00DFe", shy = L"infor\u00ADmation", shyBreak = L"infor\u00AD\nmation";
    struct Case {
        std::wstring needle;
        int flags;
        std::vector<std::wstring> covered;  // by each hit in turn
    } cases[] = {
        {L"STRASSE", 0, {sharpS, L"STRASSE"}},  // "ß" folds to "ss"
        {L"stra\u00DFe", 0, {sharpS, L"STRASSE"}},
        {L"Stra\u00DF", 0, {L"Stra\u00DF", L"STRASS"}},
        {L"strasse", ITextObject::MatchCase, {}},
        {L"strase", 0, {}},
        {L"stras", 0, {L"STRAS"}},  // but not half of "ß"
        {L"FIND", ITextObject::WholeWords, {L"find"}},
        {L"\uFB01nd", 0, {L"find"}},         // the ligature U+FB01 in the needle
        {L"cafe\u0301", 0, {L"caf\u00E9"}},  // a combining mark in the needle
        {L"CAFE\u0301", ITextObject::IgnoreDiacritics, {L"caf\u00E9"}},
        {L"cafe", 0, {}},
        {L"email", 0, {L"e-\nmail"}},
        {L"e-mail", ITextObject::WholeWords, {L"e-\nmail"}},  // the hyphen typed
        {L"e mail", ITextObject::WholeWords, {}},
        {L"information", 0, {shy, shyBreak}},  // soft hyphens are invisible
        {L"infor\u00ADmation desk", ITextObject::WholeWords, {shy + L" desk"}},
        {L"formation", ITextObject::WholeWords, {}},
        {L"\u00AD", 0, {}},
        {std::wstring{L'S', wchar_t(0x110000), wchar_t(-1)}, 0, {}},  // not characters
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.needle.begin(), c.needle.end()) + " flags " + std::to_string(c.flags));
        std::vector<std::wstring> covered;
        for (const SearchResultInfo& hit : text->FindText(c.needle, c.flags)) {
            covered.push_back(Covered(*text, hit));
            // The highlight rectangles, line by line, make up the bounds.
            const std::vector<Rect> lines = text->GetTextRects(hit.charIndex, hit.charCount);
            ASSERT_FALSE(lines.empty());
            Rect around = lines[0];
            for (const Rect& r : lines) {
                around = {std::min(around.left, r.left), std::max(around.top, r.top), std::max(around.right, r.right),
                          std::min(around.bottom, r.bottom)};
            }
            EXPECT_EQ(std::tie(hit.bounds.left, hit.bounds.top, hit.bounds.right, hit.bounds.bottom),
                      std::tie(around.left, around.top, around.right, around.bottom));
        }
        EXPECT_EQ(covered, c.covered);
    }
}

}  // namespace
