// Pages: size, rotation and crop box, the page's objects with their kinds and
// bounds, and its annotations.

#include <gtest/gtest.h>

#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

void ExpectRect(const Rect& actual, const Rect& expected) {
    EXPECT_NEAR(actual.left, expected.left, 1e-3);
    EXPECT_NEAR(actual.top, expected.top, 1e-3);
    EXPECT_NEAR(actual.right, expected.right, 1e-3);
    EXPECT_NEAR(actual.bottom, expected.bottom, 1e-3);
}

std::vector<IPageObject::Kind> Kinds(IPage& page) {
    std::vector<IPageObject::Kind> kinds;
    for (int i = 0; i < page.GetObjectCount(); ++i) kinds.push_back(page.GetObject(i)->GetKind());
    return kinds;
}

using PageTests = FileTest;

TEST_F(PageTests, SizeIsTheCropBoxAsDisplayedAndRotationIsNormalised) {
    struct Case {
        int rotate;
        std::optional<Rect> cropBox;
        bool inherited;
        IPage::Rotation rotation;
        double width, height;
        Rect pageRect;
    } cases[] = {
        {0, std::nullopt, false, IPage::Rotate0, 300, 500, {0, 500, 300, 0}},
        {90, Rect{50, 460, 250, 60}, false, IPage::Rotate90, 400, 200, {50, 460, 250, 60}},
        {180, std::nullopt, false, IPage::Rotate180, 300, 500, {0, 500, 300, 0}},
        {-90, std::nullopt, false, IPage::Rotate270, 500, 300, {0, 500, 300, 0}},
        {450, std::nullopt, false, IPage::Rotate90, 500, 300, {0, 500, 300, 0}},
        {270, Rect{0, 400, 100, 0}, true, IPage::Rotate270, 400, 100, {0, 400, 100, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rotate);
        PageLayout layout;
        layout.width = 300;
        layout.height = 500;
        layout.rotate = c.rotate;
        layout.cropBox = c.cropBox;
        auto page = Open(PdfBuilder().AddPage(layout).AddPage(layout).InheritAttributes(c.inherited))->GetPage(1);
        EXPECT_EQ(page->GetRotation(), c.rotation);
        EXPECT_DOUBLE_EQ(page->GetSize().width, c.width);
        EXPECT_DOUBLE_EQ(page->GetSize().height, c.height);
        ExpectRect(page->GetPageRect(), c.pageRect);  // page space does not turn
    }
}

TEST_F(PageTests, ObjectsInContentOrderWithKindsBoundsAndTheTopmostAtAPoint) {
    PageLayout layout;
    layout.rects = {{Rect{100, 400, 300, 200}, 0xFF0000}, {Rect{200, 500, 400, 300}, 0x00FF00}};
    layout.images.resize(1);
    layout.images[0].rect = Rect{120, 260, 180, 220};
    layout.text = {{72, 720, 12, "Hello"}};
    layout.extraContent = "BT 3 Tr /F1 10 Tf 400 100 Td (unseen) Tj ET";  // invisible, as OCR layers are
    auto page = FirstPage(layout);

    using K = IPageObject::Kind;
    EXPECT_EQ(Kinds(*page), (std::vector<K>{K::Path, K::Path, K::Image, K::Text, K::Text}));
    ExpectRect(page->GetObject(0)->GetBounds(), Rect{100, 400, 300, 200});
    ExpectRect(page->GetObject(2)->GetBounds(), Rect{120, 260, 180, 220});
    const Rect text = page->GetObject(3)->GetBounds();
    EXPECT_NEAR(text.left, 72, 1);
    EXPECT_GT(text.top, 726);
    EXPECT_LT(text.bottom, 720);
    EXPECT_EQ(page->GetObjectIndices(), (std::vector<int>{3, 4}));
    EXPECT_THROW(page->GetObject(5), std::out_of_range);

    // The topmost object of the kind, edges included.
    ExpectRect(*page->GetObjectBoundsAt(250, 350, K::Path), Rect{200, 500, 400, 300});
    ExpectRect(*page->GetObjectBoundsAt(300, 200, K::Path), Rect{100, 400, 300, 200});
    ExpectRect(*page->GetObjectBoundsAt(150, 250, K::Image), Rect{120, 260, 180, 220});
    EXPECT_FALSE(page->GetObjectBoundsAt(50, 50, K::Path));
    EXPECT_FALSE(page->GetObjectBoundsAt(250, 350, K::Text));
}

TEST_F(PageTests, ShadingsFormsAndPatternCellsAsObjects) {
    // An extended shading under a clip; a form drawn at two places; a
    // rectangle filled with a tiling pattern, whose cell's squares are no page objects.
    const std::string content =
        "q 10 10 100 100 re W n /Sh0 sh Q\n"
        "q 1 0 0 1 200 200 cm /Fm0 Do Q q 1 0 0 1 300 300 cm /Fm0 Do Q\n"
        "/Pattern cs /P0 scn 100 500 200 50 re f\n";
    const std::string file = RawPdf(
        {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
         "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Contents 4 0 R /Resources << /Shading << /Sh0 5 0 R >> "
         "/XObject << /Fm0 6 0 R >> /Pattern << /P0 7 0 R >> >> >>",
         RawStream("", content),
         "<< /ShadingType 2 /ColorSpace /DeviceRGB /Coords [0 0 100 0] /Extend [true true]"
         " /Function << /FunctionType 2 /Domain [0 1] /C0 [1 0 0] /C1 [0 0 1] /N 1 >> >>",
         RawStream("/Type /XObject /Subtype /Form /BBox [0 0 50 50]", "0 0 20 20 re f 30 30 10 10 re f"),
         RawStream("/PatternType 1 /PaintType 1 /TilingType 1 /BBox [0 0 10 10] /XStep 10 /YStep 10 /Resources << >>",
                   "0 0 3 3 re f 5 5 3 3 re f")});
    auto page = Open(file)->GetPage(0);

    using K = IPageObject::Kind;
    EXPECT_EQ(Kinds(*page),
              (std::vector<K>{K::Shading, K::Form, K::Path, K::Path, K::Form, K::Path, K::Path, K::Path}));
    ExpectRect(page->GetObject(0)->GetBounds(), Rect{10, 110, 110, 10});
    ExpectRect(page->GetObject(1)->GetBounds(), Rect{200, 240, 240, 200});  // what the form paints
    ExpectRect(page->GetObject(2)->GetBounds(), Rect{200, 220, 220, 200});
    ExpectRect(page->GetObject(7)->GetBounds(), Rect{100, 550, 300, 500});
    ExpectRect(*page->GetObjectBoundsAt(335, 335, K::Form), Rect{300, 340, 340, 300});
}

TEST_F(PageTests, AnnotationsInPageOrderTypedAndHitTestedInPageSpace) {
    PageLayout layout;
    layout.rotate = 90;  // hit testing stays in page space
    layout.links.push_back({Rect{10, 20, 30, 10}, "https://example.org/"});
    for (const char* subtype : {"Text", "Square", "Widget", "Highlight", "Popup", "3D", "Redact", "Bogus"})
        layout.annotations.push_back({subtype, Rect{100, 200, 150, 120}});
    auto page = FirstPage(layout);

    std::vector<int> types;
    for (const auto& annotation : page->GetAllAnnotations()) types.push_back(annotation->GetType());
    EXPECT_EQ(types, (std::vector<int>{IAnnotation::Link, IAnnotation::Text, IAnnotation::Square, IAnnotation::Widget,
                                       IAnnotation::Highlight, IAnnotation::Popup, IAnnotation::ThreeD,
                                       IAnnotation::Redact, IAnnotation::Unknown}));
    EXPECT_NE(dynamic_cast<ILinkAnnotation*>(page->GetAnnotations(IAnnotation::Link).at(0).get()), nullptr);
    EXPECT_TRUE(page->GetAnnotations(IAnnotation::Ink).empty());

    auto square = page->GetAnnotations(IAnnotation::Square).at(0);
    EXPECT_EQ(dynamic_cast<ILinkAnnotation*>(square.get()), nullptr);
    for (auto [x, y, inside] : std::vector<std::tuple<double, double, bool>>{
             {120, 150, true}, {100, 120, true}, {150, 200, true}, {99.9, 150, false}, {120, 200.1, false}}) {
        EXPECT_EQ(square->Contains(Position{x, y}), inside) << x << ", " << y;
    }
}

TEST_F(PageTests, BrokenAnnotationEntriesAreSkipped) {
    // A dangling reference, a null, an entry without /Rect, reversed corners.
    auto page = Open(RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
                             "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792]"
                             " /Annots [4 0 R 99 0 R null << /Subtype /Square >> 5 0 R] >>",
                             "<< /Type /Annot /Subtype /Circle /Rect [300 300 200 200] >>",
                             "<< /Type /Annot /Subtype /Link /Rect [0 0 10 10] >>"}))
                    ->GetPage(0);
    auto all = page->GetAllAnnotations();
    ASSERT_EQ(all.size(), 2u);
    ExpectRect(all[0]->GetRect(), Rect{200, 300, 300, 200});
    EXPECT_EQ(dynamic_cast<ILinkAnnotation&>(*all[1]).GetLinkType(), ILinkAnnotation::Other);
}

}  // namespace
}  // namespace QuirelleTest
