// Page text: extraction into plain data and the matcher's rules (case
// folding, white space across lines, hyphenation, whole words, overlapping
// hits, diacritics), hit bounds and highlighting rectangles.

#include <thread>

#include <gtest/gtest.h>

#include "engine/TextObject.h"
#include "tests/engine/PageTestSupport.h"

using namespace QuirelleTest;
using namespace Orvane::PDF;

namespace {

// Plain data: each character one point wide at x = its column, lines 20
// points apart from a baseline at y = 700 down.
std::shared_ptr<ITextObject> PlainText(const std::wstring& text) {
    std::vector<Rect> boxes;
    std::vector<int> lineStarts{0};
    double column = 0, baseline = 700;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == L'\n') {
            boxes.push_back(Rect{});
            column = 0;
            baseline -= 20;
            if (i + 1 < text.size()) lineStarts.push_back(static_cast<int>(i + 1));
        } else {
            boxes.push_back(Rect{column, baseline + 10, column + 1, baseline});
            column += 1;
        }
    }
    return std::make_shared<Pdfium::TextObject>(text, boxes, lineStarts);
}

std::vector<int> Starts(const std::vector<SearchResultInfo>& hits) {
    std::vector<int> starts;
    for (const auto& hit : hits) starts.push_back(hit.charIndex);
    return starts;
}

std::wstring Covered(const ITextObject& text, const SearchResultInfo& hit) {
    return text.GetText().substr(static_cast<size_t>(hit.charIndex), static_cast<size_t>(hit.charCount));
}

class TextTest : public PageTest {
protected:
    std::shared_ptr<ITextObject> Lines(std::vector<std::string> lines, int rotate = 0) {
        PageSpec spec;
        spec.rotate = rotate;
        for (size_t i = 0; i < lines.size(); ++i) spec.text.push_back({72, 720.0 - 20 * i, 12, lines[i]});
        return FirstPage(spec)->GetTextObject();
    }
};

}  // namespace

TEST_F(TextTest, LinesInReadingOrderWithBoxesInPageSpace) {
    auto text = Lines({"Hello World", "Second line"});
    EXPECT_EQ(text->GetText(), L"Hello World\nSecond line\n");
    const Rect h = text->GetCharBox(0);
    EXPECT_NEAR(h.left, 72, 0.5);
    EXPECT_GT(h.top, 720);  // y grows upward
    EXPECT_LT(h.bottom, 720);
    EXPECT_LT(text->GetCharBox(12).top, h.top - 15);  // the next line, 20 points lower
    const Rect lineBreak = text->GetCharBox(11);
    EXPECT_EQ(lineBreak.left, lineBreak.right);
    EXPECT_THROW(text->GetCharBox(24), std::out_of_range);

    // On a turned page the boxes stay in page space.
    auto turned = Lines({"Turn"}, 90);
    ASSERT_EQ(turned->GetText(), L"Turn\n");
    EXPECT_NEAR(turned->GetCharBox(0).left, 72, 1);
    EXPECT_GT(turned->GetCharBox(0).top, 720);
    EXPECT_GT(turned->GetCharBox(3).left, turned->GetCharBox(0).right - 0.01);
}

TEST_F(TextTest, CaseFoldingDiacriticsAndHitBounds) {
    auto text = Lines({"\xC3\x89""COLE \xC3\xA9t\xC3\xA9 Hello"});  // Latin-1 text
    ASSERT_EQ(text->GetText(), L"\u00C9COLE \u00E9t\u00E9 Hello\n");

    auto hits = text->FindText(L"\u00E9cole", 0);
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(Covered(*text, hits[0]), L"\u00C9COLE");
    EXPECT_DOUBLE_EQ(hits[0].bounds.left, text->GetCharBox(0).left);
    EXPECT_DOUBLE_EQ(hits[0].bounds.right, text->GetCharBox(4).right);
    EXPECT_DOUBLE_EQ(hits[0].bounds.top, text->GetCharBox(0).top);
    EXPECT_EQ(Starts(text->FindText(L"\u00C9T\u00C9", 0)), std::vector<int>{6});
    EXPECT_TRUE(text->FindText(L"hello", ITextObject::MatchCase).empty());
    EXPECT_EQ(Starts(text->FindText(L"Hello", ITextObject::MatchCase)), std::vector<int>{10});
    EXPECT_TRUE(text->FindText(L"ecole", 0).empty());
    EXPECT_EQ(Starts(text->FindText(L"ecole", ITextObject::IgnoreDiacritics)), std::vector<int>{0});
    EXPECT_TRUE(text->FindText(L"zebra", 0).empty());
    EXPECT_TRUE(text->FindText(L"", 0).empty());
}

TEST_F(TextTest, WhiteSpaceMatchesLineBreaksAndHyphenatedWordsJoin) {
    auto text = Lines({"the quick brown", "fox jumps a docu-", "ment and a well-known one"});
    for (const std::wstring needle : {L"brown fox", L"brown   fox", L"Brown\nFox"}) {
        auto hits = text->FindText(needle, 0);
        ASSERT_EQ(hits.size(), 1u);
        EXPECT_EQ(Covered(*text, hits[0]), L"brown\nfox");
        EXPECT_DOUBLE_EQ(hits[0].bounds.left, text->GetCharBox(16).left);      // "f", next line
        EXPECT_DOUBLE_EQ(hits[0].bounds.bottom, text->GetCharBox(16).bottom);
        EXPECT_DOUBLE_EQ(hits[0].bounds.top, text->GetCharBox(10).top);        // "b"
        EXPECT_EQ(text->GetTextRects(hits[0].charIndex, hits[0].charCount).size(), 2u);
    }
    EXPECT_TRUE(text->FindText(L"brownfox", 0).empty());

    auto hits = text->FindText(L"document", ITextObject::WholeWords);
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(Covered(*text, hits[0]), L"docu-\nment");
    EXPECT_EQ(text->FindText(L"docu- ment", 0).size(), 1u);  // as printed
    EXPECT_EQ(text->FindText(L"well-known", 0).size(), 1u);
    EXPECT_TRUE(text->FindText(L"wellknown", 0).empty());    // a hyphen within a line stays
}

TEST_F(TextTest, WholeWordsAndOverlappingHits) {
    auto text = Lines({"cat concatenate cat. aaaa"});
    EXPECT_EQ(Starts(text->FindText(L"cat", 0)), (std::vector<int>{0, 7, 16}));
    EXPECT_EQ(Starts(text->FindText(L"cat", ITextObject::WholeWords)), (std::vector<int>{0, 16}));
    EXPECT_EQ(Starts(text->FindText(L"aa", 0)), (std::vector<int>{21, 23}));
    EXPECT_EQ(Starts(text->FindText(L"aa", ITextObject::Overlapping)), (std::vector<int>{21, 22, 23}));
    EXPECT_TRUE(text->FindText(L"aa", ITextObject::WholeWords).empty());
}

TEST_F(TextTest, TextObjectOutlivesItsDocumentAndServesOtherThreads) {
    std::shared_ptr<ITextObject> text = Open(PdfBuilder().AddNumberedPages(2))->GetPage(1)->GetTextObject();
    std::vector<SearchResultInfo> hits;
    std::thread reader([&] { hits = text->FindText(L"page 2", 0); });  // a thread without the engine
    reader.join();
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(Covered(*text, hits[0]), L"Page 2");
}

TEST(TextMatcher, CombiningMarksAndFoldingBeyondLatin1) {
    auto text = PlainText(L"Cafe\u0301 \u0394\u0395\u039B\u03A4\u0391 \u00C5ngstr\u00F6m\n");
    EXPECT_EQ(Starts(text->FindText(L"\u03B4\u03B5\u03BB\u03C4\u03B1", 0)), std::vector<int>{6});
    auto hits = text->FindText(L"cafe", ITextObject::IgnoreDiacritics);
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].charCount, 5);  // the combining accent is part of the hit
    EXPECT_EQ(Starts(text->FindText(L"angstrom", ITextObject::IgnoreDiacritics)), std::vector<int>{12});
    EXPECT_TRUE(text->FindText(L"angstrom", 0).empty());
    EXPECT_TRUE(text->FindText(L"ANGSTROM", ITextObject::IgnoreDiacritics | ITextObject::MatchCase).empty());
}

TEST(TextMatcher, HyphenationNeedsALineBreakBetweenLetters) {
    auto text = PlainText(L"pre-\n fix x-\n-y end-\n");
    auto hits = text->FindText(L"prefix", 0);
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(hits[0].charCount, 9);
    EXPECT_TRUE(text->FindText(L"xy", 0).empty());
    EXPECT_EQ(Starts(text->FindText(L"end-", 0)), std::vector<int>{16});
}

TEST(TextMatcher, TextRectsOnePerLineWithinRange) {
    auto text = PlainText(L"abc\ndef\nghi\n");
    auto rects = text->GetTextRects(1, 9);  // "bc\ndef\ngh"
    ASSERT_EQ(rects.size(), 3u);
    EXPECT_DOUBLE_EQ(rects[0].left, 1);
    EXPECT_DOUBLE_EQ(rects[1].right, 3);
    EXPECT_DOUBLE_EQ(rects[2].right, 2);
    EXPECT_DOUBLE_EQ(rects[2].top, 670);
    EXPECT_TRUE(text->GetTextRects(3, 1).empty());  // a line break alone
    EXPECT_EQ(text->GetTextRects(-5, 7).size(), 1u);
    EXPECT_TRUE(text->GetTextRects(50, 3).empty());
}
