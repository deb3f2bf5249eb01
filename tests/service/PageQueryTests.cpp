// Page information, pictures, links, object bounds and text objects through
// the service, against files whose content the tests know.

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

class PageQueries : public ServiceTest {
protected:
    void SetUp() override {
        PageLayout drawn;
        drawn.width = 595.3;
        drawn.height = 841.9;
        drawn.rects.push_back({Rect{100, 700, 200, 600}, 0x0000FF});
        drawn.text.push_back({72, 760, 12, "Hello page"});
        drawn.links.push_back({Rect{300, 500, 400, 450}, "https://example.org/a"});
        LinkLayout toPage;
        toPage.rect = Rect{350, 480, 450, 400};  // overlaps the first link
        toPage.targetPage = 1;
        toPage.left = 20;
        toPage.top = 700;
        toPage.zoom = 2;
        drawn.links.push_back(toPage);
        drawn.annotations.push_back({"Square", Rect{10, 60, 60, 10}, 32 | 4, 0xFF0000});  // prints, never shows

        PageLayout turned;
        turned.rotate = 90;
        turned.cropBox = Rect{0, 700, 500, 100};
        PageLayout empty;

        const auto path = temp.File("pages.pdf");
        PdfBuilder().AddPage(drawn).AddPage(turned).AddPage(empty).Save(path);
        doc = Open(path);
    }

    static QRgb Pixel(const QImage& image, double x, double y, double pageWidth, double pageHeight) {
        // Page point (bottom-left origin) to a pixel of an unrotated picture.
        return image.pixel(int(x / pageWidth * image.width()), int((pageHeight - y) / pageHeight * image.height()));
    }

    int64_t doc = -1;
};

TEST_F(PageQueries, PageInfoReportsSizeRotationAndCropBox) {
    const auto first = Await(service->GetPageInfo(doc, 0));
    EXPECT_NEAR(first.size.width, 595.3, 1e-3);  // MuPDF keeps reals as floats
    EXPECT_EQ(first.rotation, IPage::Rotate0);
    const auto turned = Await(service->GetPageInfo(doc, 1));
    EXPECT_EQ(turned.rotation, IPage::Rotate90);
    EXPECT_DOUBLE_EQ(turned.size.width, 600);  // the crop box as displayed: turned
    EXPECT_DOUBLE_EQ(turned.size.height, 500);
    EXPECT_DOUBLE_EQ(turned.rect.top, 700);
    EXPECT_DOUBLE_EQ(turned.rect.bottom, 100);

    const auto unknown = Await(service->GetPageInfo(999, 0));
    EXPECT_DOUBLE_EQ(unknown.size.width + unknown.size.height + unknown.rect.top + unknown.rect.right, 0.0);
    EXPECT_THROW(Await(service->GetPageInfo(doc, 17)), std::out_of_range);
}

TEST_F(PageQueries, PicturesHaveTheAskedSizeAndAWhiteBackground) {
    const QImage natural = Await(service->GeneratePageImage(doc, 0, -1, -1));
    EXPECT_EQ(natural.size(), QSize(595, 841));  // truncated
    EXPECT_EQ(natural.format(), QImage::Format_RGB32);
    EXPECT_EQ(natural.pixel(5, 5), qRgb(255, 255, 255));
    const QRgb inRect = Pixel(natural, 150, 650, 595.3, 841.9);
    EXPECT_EQ(inRect, qRgb(0, 0, 255));

    EXPECT_EQ(Await(service->GeneratePageImage(doc, 0, -1, 300)).size(), QSize(595, 300));
    // Far from the page's aspect ratio: the page is stretched, not letterboxed.
    const QImage wide = Await(service->GeneratePageImage(doc, 0, 1000, 50));
    EXPECT_EQ(wide.size(), QSize(1000, 50));
    EXPECT_EQ(Pixel(wide, 150, 650, 595.3, 841.9), qRgb(0, 0, 255));
}

TEST_F(PageQueries, ThePrintViewDrawsWhatPrintsAndTheShortFormIsTheDefaultView) {
    const QImage screen = Await(service->GeneratePageImage(doc, 0, 300, 424, IPageInfoObserver::DefaultView));
    const QImage shortForm = Await(service->GeneratePageImage(doc, 0, 300, 424));
    const QImage thumbnail = Await(service->GeneratePageImage(doc, 0, 300, 424, IPageInfoObserver::ThumbnailView));
    const QImage print = Await(service->GeneratePageImage(doc, 0, 300, 424, IPageInfoObserver::PrintView));
    EXPECT_EQ(screen, shortForm);
    EXPECT_EQ(screen, thumbnail);
    EXPECT_EQ(print.size(), screen.size());
    // The square annotation prints but never shows.
    EXPECT_EQ(Pixel(screen, 35, 35, 595.3, 841.9), qRgb(255, 255, 255));
    EXPECT_EQ(Pixel(print, 35, 35, 595.3, 841.9), qRgb(255, 0, 0));
}

TEST_F(PageQueries, FailedPictureRequestsAnswerANullImage) {
    EXPECT_TRUE(Await(service->GeneratePageImage(999, 0, 10, 10)).isNull());
    EXPECT_TRUE(Await(service->GeneratePageImage(doc, 42, 10, 10)).isNull());
    EXPECT_TRUE(Await(service->GeneratePageImage(doc, 0, 0, 10)).isNull());
    EXPECT_TRUE(Await(service->GeneratePageImage(doc, 0, -5, 10)).isNull());
    EXPECT_TRUE(Await(service->GeneratePageImage(doc, 0, 2000000000, 2000000000)).isNull());
    EXPECT_FALSE(Await(service->GeneratePageImage(doc, 0, 20, 20)).isNull());
}

TEST_F(PageQueries, LinksAnswerTheFirstLinkUnderThePoint) {
    const auto uri = Await(service->HandleLink(doc, 0, 310, 460));
    EXPECT_EQ(uri.uri, "https://example.org/a");
    EXPECT_EQ(uri.pageIndex, -1);
    EXPECT_DOUBLE_EQ(uri.x, 0.0);
    EXPECT_FLOAT_EQ(uri.zoom, 1.0f);
    // Both links hold (375, 460): the first one in the page's order wins.
    EXPECT_EQ(Await(service->HandleLink(doc, 0, 375, 460)).uri, "https://example.org/a");
    const auto inside = Await(service->HandleLink(doc, 0, 420, 420));
    EXPECT_EQ(inside.pageIndex, 1);
    EXPECT_DOUBLE_EQ(inside.x, 20);
    EXPECT_DOUBLE_EQ(inside.y, 700);
    EXPECT_FLOAT_EQ(inside.zoom, 2.0f);
    EXPECT_TRUE(inside.uri.empty());

    const auto none = Await(service->HandleLink(doc, 0, 5, 5));
    EXPECT_EQ(none.pageIndex, -1);
    EXPECT_TRUE(none.uri.empty());
    EXPECT_EQ(Await(service->HandleLink(999, 0, 310, 460)).pageIndex, -1);

    EXPECT_TRUE(Await(service->IsInsideLinkArea(doc, 0, 375, 460)));
    EXPECT_FALSE(Await(service->IsInsideLinkArea(doc, 0, 35, 35)));  // a square, not a link
    EXPECT_FALSE(Await(service->IsInsideLinkArea(999, 0, 375, 460)));
    EXPECT_THROW(Await(service->IsInsideLinkArea(doc, 9, 0, 0)), std::out_of_range);
}

TEST_F(PageQueries, ObjectBoundsHaveThreeDistinctAnswers) {
    const Rect text = Await(service->GetPageObjectBounds(doc, 0, 0, 0, IPageObject::Text));
    EXPECT_GE(text.left, 71);
    EXPECT_LT(text.left, 80);
    EXPECT_GT(text.top, 760);
    EXPECT_LT(text.bottom, 762);
    EXPECT_GT(text.top, text.bottom);

    const Rect path = Await(service->GetPageObjectBounds(doc, 0, 150, 650, IPageObject::Path));
    EXPECT_NEAR(path.left, 100, 0.5);
    EXPECT_NEAR(path.top, 700, 0.5);
    EXPECT_NEAR(path.right, 200, 0.5);
    EXPECT_NEAR(path.bottom, 600, 0.5);

    const Rect nothing = Await(service->GetPageObjectBounds(doc, 0, 500, 100, IPageObject::Path));
    EXPECT_EQ(nothing.left + nothing.top + nothing.right + nothing.bottom, 0.0);
    const Rect noText = Await(service->GetPageObjectBounds(doc, 2, 0, 0, IPageObject::Text));
    EXPECT_EQ(noText.left, -1.0);
    EXPECT_EQ(noText.bottom, -1.0);
    const Rect unknown = Await(service->GetPageObjectBounds(999, 0, 150, 650, IPageObject::Path));
    EXPECT_EQ(unknown.right, -1.0);
}

TEST_F(PageQueries, TextObjectsOutliveTheirDocument) {
    std::shared_ptr<ITextObject> text = Await(service->GetPageTextObject(doc, 0));
    ASSERT_TRUE(text);
    Await(service->CloseDoument(doc));
    EXPECT_EQ(text->GetText().substr(0, 10), L"Hello page");
    EXPECT_EQ(text->FindText(L"HELLO", 0).size(), 1u);
    EXPECT_FALSE(Await(service->GetPageTextObject(doc, 0)));
}

}  // namespace
}  // namespace QuirelleTest
