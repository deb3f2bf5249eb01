// Page information, pictures, links, object bounds and text objects through
// the service, against files whose content the tests know.

#include <tuple>

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
        drawn.links.push_back({Rect{350, 480, 450, 400}, "", 1, 20, 700, 2});             // overlaps the first link
        drawn.annotations.push_back({"Square", Rect{10, 60, 60, 10}, 32 | 4, 0xFF0000});  // prints, never shows

        PageLayout turned;
        turned.rotate = 90;
        turned.cropBox = Rect{0, 700, 500, 100};

        const auto path = temp.File("pages.pdf");
        PdfBuilder().AddPage(drawn).AddPage(turned).AddPage({}).Save(path);
        doc = Open(path);
    }

    // Page point (bottom-left origin) of the first page to a pixel of its picture.
    static QRgb Pixel(const QImage& image, double x, double y) {
        return image.pixel(int(x / 595.3 * image.width()), int((841.9 - y) / 841.9 * image.height()));
    }

    int64_t doc = -1;
};

TEST_F(PageQueries, PageInfoReportsSizeRotationAndCropBox) {
    const auto turned = Await(service->GetPageInfo(doc, 1));
    EXPECT_EQ(turned.rotation, IPage::Rotate90);
    EXPECT_EQ(std::make_pair(turned.size.width, turned.size.height), std::make_pair(600.0, 500.0));  // turned
    EXPECT_EQ(Sides(turned.rect), (std::array<double, 4>{0, 700, 500, 100}));
    EXPECT_THROW(Await(service->GetPageInfo(doc, 17)), std::out_of_range);
}

TEST_F(PageQueries, PicturesHaveTheAskedSizeAndViewAndOutliveTheService) {
    const QImage natural = Await(service->GeneratePageImage(doc, 0, -1, -1));
    EXPECT_EQ(natural.size(), QSize(595, 841));  // truncated
    EXPECT_EQ(natural.format(), QImage::Format_RGB32);
    EXPECT_EQ(natural.pixel(5, 5), qRgb(255, 255, 255));
    EXPECT_EQ(Pixel(natural, 150, 650), qRgb(0, 0, 255));
    EXPECT_EQ(Await(service->GeneratePageImage(doc, 0, -1, -1)), natural);  // from the recording, in bands
    EXPECT_EQ(Await(service->GeneratePageImage(doc, 0, -1, 300)).size(), QSize(595, 300));
    // Far from the page's aspect ratio: the page is stretched, not letterboxed.
    const QImage wide = Await(service->GeneratePageImage(doc, 0, 1000, 50));
    EXPECT_EQ(wide.size(), QSize(1000, 50));
    EXPECT_EQ(Pixel(wide, 150, 650), qRgb(0, 0, 255));
    // Failures answer a null image.
    const std::tuple<unsigned, int, int> failures[] = {
        {42, 10, 10}, {0, 0, 10}, {0, -5, 10}, {0, 2000000000, 2000000000}};
    for (const auto& [page, width, height] : failures) {
        EXPECT_TRUE(Await(service->GeneratePageImage(doc, page, width, height)).isNull()) << width;
    }

    // The print view draws the square annotation, which prints but never shows.
    QImage screen = Await(service->GeneratePageImage(doc, 0, 300, 424, IPageInfoObserver::DefaultView));
    const QImage print = Await(service->GeneratePageImage(doc, 0, 300, 424, IPageInfoObserver::PrintView));
    EXPECT_EQ(Pixel(screen, 35, 35), qRgb(255, 255, 255));
    EXPECT_EQ(Pixel(print, 35, 35), qRgb(255, 0, 0));
    // The short form is the default view, drawn into the memory of the last picture let go.
    const QImage expected = screen.copy();
    const uchar* memory = screen.constBits();
    screen = QImage();
    const QImage shortForm = Await(service->GeneratePageImage(doc, 0, 300, 424));
    EXPECT_EQ(shortForm.constBits(), memory);
    EXPECT_EQ(shortForm, expected);
    // Pictures outlive the service.
    service.reset();
    EXPECT_EQ(Pixel(shortForm, 150, 650), qRgb(0, 0, 255));
}

TEST_F(PageQueries, LinksAnswerTheFirstLinkUnderThePoint) {
    const auto uri = Await(service->HandleLink(doc, 0, 310, 460));
    EXPECT_EQ(uri.uri, "https://example.org/a");
    EXPECT_EQ(uri.pageIndex, -1);
    // Both links hold (375, 460): the first one in the page's order wins.
    EXPECT_EQ(Await(service->HandleLink(doc, 0, 375, 460)).uri, "https://example.org/a");
    const auto inside = Await(service->HandleLink(doc, 0, 420, 420));
    EXPECT_EQ(inside.pageIndex, 1);
    EXPECT_EQ(std::make_pair(inside.x, inside.y), std::make_pair(20.0, 700.0));
    EXPECT_FLOAT_EQ(inside.zoom, 2.0f);
    EXPECT_TRUE(inside.uri.empty());
    EXPECT_EQ(Await(service->HandleLink(doc, 0, 5, 5)).pageIndex, -1);

    EXPECT_TRUE(Await(service->IsInsideLinkArea(doc, 0, 375, 460)));
    EXPECT_FALSE(Await(service->IsInsideLinkArea(doc, 0, 35, 35)));  // a square, not a link
    EXPECT_THROW(Await(service->IsInsideLinkArea(doc, 9, 0, 0)), std::out_of_range);
}

TEST_F(PageQueries, ObjectBoundsHaveThreeDistinctAnswers) {
    const Rect text = Await(service->GetPageObjectBounds(doc, 0, 0, 0, IPageObject::Text));
    // "Hello page" at (72, 760): its glyph boxes start near 72 and stand on the baseline.
    EXPECT_TRUE(text.left >= 71 && text.left < 80 && text.top > 760 && text.bottom < 762) << text.left << text.bottom;
    const Rect path = Await(service->GetPageObjectBounds(doc, 0, 150, 650, IPageObject::Path));
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(Sides(path)[i], (std::array<double, 4>{100, 700, 200, 600})[i], 0.5);
    EXPECT_EQ(Sides(Await(service->GetPageObjectBounds(doc, 0, 500, 100, IPageObject::Path))),
              (std::array<double, 4>{0, 0, 0, 0}));
    EXPECT_EQ(Sides(Await(service->GetPageObjectBounds(doc, 2, 0, 0, IPageObject::Text))),
              (std::array<double, 4>{-1, -1, -1, -1}));
}

TEST_F(PageQueries, UnknownIdsAnswerDefaults) {
    const auto info = Await(service->GetPageInfo(999, 0));
    EXPECT_EQ(std::make_pair(info.size.width, info.size.height), std::make_pair(0.0, 0.0));
    EXPECT_EQ(Sides(info.rect), (std::array<double, 4>{0, 0, 0, 0}));
    EXPECT_TRUE(Await(service->GeneratePageImage(999, 0, 10, 10)).isNull());
    EXPECT_EQ(Await(service->HandleLink(999, 0, 310, 460)).pageIndex, -1);
    EXPECT_FALSE(Await(service->IsInsideLinkArea(999, 0, 375, 460)));
    EXPECT_EQ(Sides(Await(service->GetPageObjectBounds(999, 0, 150, 650, IPageObject::Path))),
              (std::array<double, 4>{-1, -1, -1, -1}));
    EXPECT_FALSE(Await(service->GetPageTextObject(999, 0)));
}

}  // namespace
}  // namespace QuirelleTest
