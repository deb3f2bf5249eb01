// Page text as MuPDF gives it: character boxes in page space, highlighting
// rectangles, a text object that outlives its document.

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

TEST_F(TextTest, BoxesInPageSpaceOneHighlightRectanglePerLineAndATextObjectOfItsOwn) {
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

    // The text outlived its page and document, and serves a thread without the engine.
    std::vector<SearchResultInfo> hits;
    std::thread([&] { hits = text->FindText(L"QUICK", 0); }).join();
    ASSERT_EQ(hits.size(), 1u);
    EXPECT_EQ(Covered(*text, hits[0]), L"quick");
}

}  // namespace
}  // namespace QuirelleTest
