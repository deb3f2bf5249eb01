// Page text: character boxes in page space, the matcher's rules
// (case folding, white space across lines, hyphenation, whole words,
// overlapping hits), hit bounds and highlighting rectangles.

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

class TextTest : public FileTest {
protected:
    // One line of text per string, 20 points apart from y = 720 down.
    std::shared_ptr<ITextObject> Lines(const Strings& lines, int rotate = 0) {
        PageLayout layout;
        layout.rotate = rotate;
        for (size_t i = 0; i < lines.size(); ++i) layout.text.push_back({72, 720.0 - 20 * double(i), 12, lines[i]});
        return FirstPage(layout)->GetTextObject();
    }
    std::shared_ptr<ITextObject> Sample() {
        return Lines({"\u00C9COLE \u00E9t\u00E9 Hello", "the quick brown", "fox jumps a docu-",
                      "ment and a well-known one", "cat concatenate cat. aaaa"});
    }
};

std::wstring Covered(const ITextObject& text, const SearchResultInfo& hit) {
    return text.GetText().substr(size_t(hit.charIndex), size_t(hit.charCount));
}

TEST_F(TextTest, FindTextMatchingRules) {
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
TEST_F(TextTest, FindTextAsTyped) {
    auto text = Lines(
        {"Stra\u00DFe STRASSE \uFB01nd caf\u00E9 e-", "mail to the infor\u00ADmation desk infor\u00AD", "mation"});
    ASSERT_EQ(text->GetText().substr(0, 12), L"Stra\u00DFe STRAS");
    ASSERT_NE(text->GetText().find(L"infor\u00ADmation"), std::wstring::npos);
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
        {L"stras", 0, {L"STRAS"}},                      // but not half of "ß"
        {L"FIND", ITextObject::WholeWords, {L"find"}},  // the ligature U+FB01 on the page
        {L"\uFB01nd", 0, {L"find"}},
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

TEST_F(TextTest, BoxesInPageSpaceAndOneHighlightRectanglePerLine) {
    auto text = Sample();
    const Rect e = text->GetCharBox(0);
    EXPECT_NEAR(e.left, 72, 0.5);
    EXPECT_GT(e.top, 720);  // y grows upward
    EXPECT_LT(e.bottom, 720);
    EXPECT_LT(text->GetCharBox(16).top, e.top - 15);                   // the next line, 20 points lower
    EXPECT_EQ(text->GetCharBox(15).left, text->GetCharBox(15).right);  // a line break
    EXPECT_THROW(text->GetCharBox(text->GetCharCount()), std::out_of_range);
    auto turned = Lines({"Turn"}, 90);  // on a turned page the boxes stay in page space
    EXPECT_NEAR(turned->GetCharBox(0).left, 72, 1);
    EXPECT_GT(turned->GetCharBox(0).top, 720);
    EXPECT_GT(turned->GetCharBox(3).left, turned->GetCharBox(0).right - 0.01);

    // A hit's bounds are its rectangles' (FindTextAsTyped); these are the boxes' of each line.
    const auto rects = text->GetTextRects(17, 40);  // "he quick brown\nfox jumps a docu-\nment and"
    ASSERT_EQ(rects.size(), 3u);
    EXPECT_DOUBLE_EQ(rects[0].left, text->GetCharBox(17).left);
    EXPECT_DOUBLE_EQ(rects[1].left, text->GetCharBox(32).left);
    EXPECT_DOUBLE_EQ(rects[2].right, text->GetCharBox(56).right);
    EXPECT_DOUBLE_EQ(rects[2].top, text->GetCharBox(50).top);
    EXPECT_TRUE(text->GetTextRects(15, 1).empty());  // a line break alone
    EXPECT_EQ(text->GetTextRects(-5, 7).size(), 1u);
    EXPECT_TRUE(text->GetTextRects(500, 3).empty());
}

TEST_F(TextTest, TextObjectOutlivesItsDocumentAndServesOtherThreads) {
    std::shared_ptr<ITextObject> text = Open(PdfBuilder().AddNumberedPages(2))->GetPage(1)->GetTextObject();
    std::vector<SearchResultInfo> hits;
    std::thread reader([&] { hits = text->FindText(L"page 2", 0); });  // a thread without the engine
    reader.join();
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(Covered(*text, hits[0]), L"Page 2");
}

}  // namespace
}  // namespace QuirelleTest
