// Pages: geometry and rotation, which page GetPage answers after the page
// list changed, the page's objects and its annotations.

#include <gtest/gtest.h>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "tests/engine/PageTestSupport.h"

using namespace QuirelleTest;
using namespace Orvane::PDF;

namespace {

void ExpectRect(const Rect& actual, const Rect& expected) {
    EXPECT_NEAR(actual.left, expected.left, 1e-3);
    EXPECT_NEAR(actual.top, expected.top, 1e-3);
    EXPECT_NEAR(actual.right, expected.right, 1e-3);
    EXPECT_NEAR(actual.bottom, expected.bottom, 1e-3);
}

PageSpec Sized(double width, double height, int rotate = 0) {
    PageSpec spec;
    spec.width = width;
    spec.height = height;
    spec.rotate = rotate;
    return spec;
}

std::vector<double> Widths(const IDocument& document) {
    std::vector<double> widths;
    for (unsigned i = 0; i < document.GetPageCount(); ++i) widths.push_back(document.GetPage(i)->GetSize().width);
    return widths;
}

class PageTests : public PageTest {};

}  // namespace

TEST_F(PageTests, CropBoxInPageSpaceSizeAsDisplayedRotationNormalised) {
    PageSpec turned = Sized(600, 800, 90);
    turned.cropBox = Rect{50, 460, 350, 60};
    PageSpec first = Sized(300, 500, 270);
    auto document = Open(PdfBuilder().AddPage(Sized(612, 792)).AddPage(turned).AddPage(Sized(200, 100, 180))
                             .AddPage(Sized(200, 100, -90)).AddPage(Sized(200, 100, 450)));
    ExpectRect(document->GetPage(0)->GetPageRect(), Rect{0, 792, 612, 0});
    EXPECT_EQ(document->GetPage(0)->GetSize().height, 792);

    auto page = document->GetPage(1);
    ExpectRect(page->GetPageRect(), Rect{50, 460, 350, 60});  // page space does not turn
    EXPECT_EQ(page->GetRotation(), IPage::Rotate90);
    EXPECT_EQ(page->GetSize().width, 400);
    EXPECT_EQ(page->GetSize().height, 300);

    EXPECT_EQ(document->GetPage(2)->GetRotation(), IPage::Rotate180);
    EXPECT_EQ(document->GetPage(2)->GetSize().width, 200);
    EXPECT_EQ(document->GetPage(3)->GetRotation(), IPage::Rotate270);
    EXPECT_EQ(document->GetPage(4)->GetRotation(), IPage::Rotate90);

    auto inherited = Open(PdfBuilder().AddPage(first).AddPage(first).InheritAttributes());
    EXPECT_EQ(inherited->GetPage(1)->GetRotation(), IPage::Rotate270);
    ExpectRect(inherited->GetPage(1)->GetPageRect(), Rect{0, 500, 300, 0});
}

TEST_F(PageTests, SetRotationWritesThePageAndSurvivesSaving) {
    const PageSpec first = Sized(300, 500, 90);
    const auto saved = temp.File("turned.pdf");
    {
        auto document = Open(PdfBuilder().AddPage(first).AddPage(first).InheritAttributes());
        auto page = document->GetPage(0);
        page->SetRotation(IPage::Rotate180);
        EXPECT_EQ(page->GetSize().width, 300);
        EXPECT_EQ(document->GetPage(0)->GetRotation(), IPage::Rotate180);
        EXPECT_EQ(document->GetPage(1)->GetRotation(), IPage::Rotate90);  // only that page
        EXPECT_THROW(page->SetRotation(static_cast<IPage::Rotation>(4)), std::invalid_argument);
        document->Save(saved, 0);
    }
    Pdfium::PdfDocument reopened(nullptr, saved, "");
    EXPECT_EQ(reopened.GetPage(0)->GetRotation(), IPage::Rotate180);
    EXPECT_EQ(reopened.GetPage(1)->GetRotation(), IPage::Rotate90);
}

TEST_F(PageTests, GetPageAnswersThePageNowAtTheIndex) {
    auto document = Open(PdfBuilder().AddPage(Sized(100, 100)).AddPage(Sized(200, 100)).AddPage(Sized(300, 100)));
    auto second = document->GetPage(1);  // held, so MuPDF keeps it listed as page 1
    auto third = document->GetPage(2);
    document->DeletePage(0);
    EXPECT_EQ(Widths(*document), (std::vector<double>{200, 300}));
    EXPECT_THROW(document->GetPage(2), std::out_of_range);
    document->CreatePage(0, 400, 100);
    EXPECT_EQ(Widths(*document), (std::vector<double>{400, 200, 300}));

    // Edits made on the MuPDF document directly, past PdfDocument.
    const auto core = dynamic_cast<Pdfium::PdfDocument&>(*document).Core();
    fz_context* ctx = core->ctx;
    Pdfium::guarded(ctx, [&] { pdf_delete_page(ctx, core->doc, 0); });
    EXPECT_EQ(Pdfium::MakePage(core, 1)->GetSize().width, 300);
    EXPECT_EQ(Pdfium::MakePage(core, 0)->GetSize().width, 200);
    Pdfium::PdfObjHandle added(ctx, Pdfium::guarded(ctx, [&] {
        return pdf_add_page(ctx, core->doc, fz_make_rect(0, 0, 50, 50), 0, nullptr, nullptr);
    }));
    Pdfium::guarded(ctx, [&] { pdf_insert_page(ctx, core->doc, 0, added.get()); });
    EXPECT_EQ(Pdfium::MakePage(core, 1)->GetSize().width, 200);
    EXPECT_EQ(Pdfium::MakePage(core, 0)->GetSize().width, 50);
    EXPECT_EQ(second->GetSize().width, 200);
    EXPECT_THROW(Pdfium::MakePage(core, 3), std::out_of_range);
}

TEST_F(PageTests, ObjectsInContentOrderWithKindsAndBounds) {
    PageSpec spec;
    spec.rects = {{Rect{100, 400, 300, 200}, 0xFF0000}, {Rect{200, 500, 400, 300}, 0x00FF00}};
    spec.images.resize(1);
    spec.images[0].rect = Rect{120, 260, 180, 220};
    spec.text = {{72, 720, 12, "Hello"}};
    spec.extraContent = "BT 3 Tr /F1 10 Tf 400 100 Td (unseen) Tj ET";  // invisible, as OCR layers are
    auto page = FirstPage(spec);

    ASSERT_EQ(page->GetObjectCount(), 5);
    const IPageObject::Kind kinds[] = {IPageObject::Path, IPageObject::Path, IPageObject::Image, IPageObject::Text,
                                       IPageObject::Text};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(page->GetObject(i)->GetKind(), kinds[i]) << i;
    ExpectRect(page->GetObject(0)->GetBounds(), Rect{100, 400, 300, 200});
    ExpectRect(page->GetObject(2)->GetBounds(), Rect{120, 260, 180, 220});
    const Rect text = page->GetObject(3)->GetBounds();
    EXPECT_NEAR(text.left, 72, 1);
    EXPECT_GT(text.top, 726);
    EXPECT_LT(text.bottom, 720);
    EXPECT_EQ(page->GetObjectIndices(), (std::vector<int>{3, 4}));
    EXPECT_THROW(page->GetObject(5), std::out_of_range);

    // The topmost object of the kind, edges included.
    ExpectRect(*page->GetObjectBoundsAt(250, 350, IPageObject::Path), Rect{200, 500, 400, 300});
    ExpectRect(*page->GetObjectBoundsAt(300, 200, IPageObject::Path), Rect{100, 400, 300, 200});
    ExpectRect(*page->GetObjectBoundsAt(150, 250, IPageObject::Image), Rect{120, 260, 180, 220});
    EXPECT_FALSE(page->GetObjectBoundsAt(50, 50, IPageObject::Path));
    EXPECT_FALSE(page->GetObjectBoundsAt(250, 350, IPageObject::Text));
}

TEST_F(PageTests, ShadingsFormsPatternsAndSoftMasks) {
    // An extended shading under a clip; a form drawn at two places; a
    // rectangle filled with a tiling pattern (its cell's squares are no page
    // objects) and one painted through a soft mask (nor is the mask's content).
    const std::string content =
        "q 10 10 100 100 re W n /Sh0 sh Q\n"
        "q 1 0 0 1 200 200 cm /Fm0 Do Q q 1 0 0 1 300 300 cm /Fm0 Do Q\n"
        "/Pattern cs /P0 scn 100 500 200 50 re f\n"
        "q /GS0 gs 400 400 50 50 re f Q\n";
    auto document = OpenBytes(OnePage(
        "/Resources << /Shading << /Sh0 5 0 R >> /XObject << /Fm0 6 0 R >> /Pattern << /P0 7 0 R >>"
        " /ExtGState << /GS0 << /SMask << /S /Luminosity /G 8 0 R >> >> >> >>",
        content,
        {"<< /ShadingType 2 /ColorSpace /DeviceRGB /Coords [0 0 100 0] /Extend [true true]"
         " /Function << /FunctionType 2 /Domain [0 1] /C0 [1 0 0] /C1 [0 0 1] /N 1 >> >>",
         Stream("/Type /XObject /Subtype /Form /BBox [0 0 50 50]", "0 0 20 20 re f 30 30 10 10 re f"),
         Stream("/PatternType 1 /PaintType 1 /TilingType 1 /BBox [0 0 10 10] /XStep 10 /YStep 10 /Resources << >>",
                "0 0 3 3 re f 5 5 3 3 re f"),
         Stream("/Type /XObject /Subtype /Form /BBox [0 0 612 792] /Group << /S /Transparency /CS /DeviceGray >>",
                "1 g 390 390 70 70 re f")}));
    auto page = document->GetPage(0);

    ASSERT_EQ(page->GetObjectCount(), 9);
    const IPageObject::Kind kinds[] = {IPageObject::Shading, IPageObject::Form, IPageObject::Path,
                                       IPageObject::Path,    IPageObject::Form, IPageObject::Path,
                                       IPageObject::Path,    IPageObject::Path, IPageObject::Path};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(page->GetObject(i)->GetKind(), kinds[i]) << i;
    ExpectRect(page->GetObject(0)->GetBounds(), Rect{10, 110, 110, 10});
    ExpectRect(page->GetObject(1)->GetBounds(), Rect{200, 240, 240, 200});  // what the form paints
    ExpectRect(page->GetObject(2)->GetBounds(), Rect{200, 220, 220, 200});
    ExpectRect(page->GetObject(4)->GetBounds(), Rect{300, 340, 340, 300});
    ExpectRect(page->GetObject(7)->GetBounds(), Rect{100, 550, 300, 500});
    ExpectRect(page->GetObject(8)->GetBounds(), Rect{400, 450, 450, 400});
    ExpectRect(*page->GetObjectBoundsAt(335, 335, IPageObject::Form), Rect{300, 340, 340, 300});
}

TEST_F(PageTests, AllAnnotationsInPageOrderTypedAndHitTestedInPageSpace) {
    PageSpec spec = Sized(400, 400, 90);  // hit testing stays in page space
    spec.links = {Link(Rect{10, 20, 30, 10})};
    for (const char* subtype : {"Text", "Square", "Widget", "Highlight", "Popup", "3D", "Redact", "Bogus"})
        spec.annotations.push_back(Annotation(subtype, Rect{100, 200, 150, 120}));
    auto page = FirstPage(spec);

    std::vector<int> types;
    for (const auto& annotation : page->GetAllAnnotations()) types.push_back(annotation->GetType());
    EXPECT_EQ(types, (std::vector<int>{IAnnotation::Link, IAnnotation::Text, IAnnotation::Square, IAnnotation::Widget,
                                       IAnnotation::Highlight, IAnnotation::Popup, IAnnotation::ThreeD,
                                       IAnnotation::Redact, IAnnotation::Unknown}));
    EXPECT_NE(dynamic_cast<ILinkAnnotation*>(page->GetAnnotations(IAnnotation::Link).at(0).get()), nullptr);
    EXPECT_TRUE(page->GetAnnotations(IAnnotation::Ink).empty());

    auto square = page->GetAnnotations(IAnnotation::Square).at(0);
    EXPECT_EQ(dynamic_cast<ILinkAnnotation*>(square.get()), nullptr);
    EXPECT_TRUE(square->Contains(Position{120, 150}));
    EXPECT_TRUE(square->Contains(Position{100, 120}));
    EXPECT_TRUE(square->Contains(Position{150, 200}));
    EXPECT_FALSE(square->Contains(Position{99.9, 150}));
    EXPECT_FALSE(square->Contains(Position{120, 200.1}));
}

TEST_F(PageTests, BrokenAnnotationEntriesAreSkipped) {
    // A dangling reference, a null, an entry without /Rect, reversed corners.
    auto document = OpenBytes(OnePage("/Annots [5 0 R 99 0 R null << /Subtype /Square >> 6 0 R]", "",
                                      {"<< /Type /Annot /Subtype /Circle /Rect [300 300 200 200] >>",
                                       "<< /Type /Annot /Subtype /Link /Rect [0 0 10 10] >>"}));
    auto all = document->GetPage(0)->GetAllAnnotations();
    ASSERT_EQ(all.size(), 2u);
    ExpectRect(all[0]->GetRect(), Rect{200, 300, 300, 200});
    EXPECT_EQ(all[1]->GetType(), IAnnotation::Link);
    EXPECT_EQ(dynamic_cast<ILinkAnnotation&>(*all[1]).GetLinkType(), ILinkAnnotation::Other);
}
