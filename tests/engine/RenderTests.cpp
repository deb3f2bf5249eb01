// Rendering: where painted pixels land for stretched and cropped pages, and
// damaged pages. Turned pages and view versus print are drawn by the
// render-cache tests, pixel for pixel against MuPDF's own drawing.

#include <gtest/gtest.h>

#include "orvane/Exception.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

// A 200 x 100 point page whose bottom-left quarter is red.
PageLayout RedCorner() {
    PageLayout layout;
    layout.width = 200;
    layout.height = 100;
    layout.rects = {{Rect{0, 50, 100, 0}, 0xFF0000}};
    return layout;
}

using Rendering = FileTest;

TEST_F(Rendering, TheCropBoxFillsTheWholeBitmapOverItsBackground) {
    auto page = FirstPage(RedCorner());
    const Picture wide(page, 400, 200);
    for (auto [x, y, colour] : std::vector<std::tuple<int, int, uint32_t>>{
             {50, 150, kRed}, {195, 105, kRed}, {205, 150, kWhite}, {50, 95, kWhite}, {399, 0, kWhite}}) {
        EXPECT_EQ(wide.At(x, y), colour) << x << ", " << y;
    }

    const Picture tall(page, 100, 300, false, 0xFF00FF00);  // x scale 0.5, y scale 3, over green
    EXPECT_EQ(tall.At(45, 160), kRed);
    EXPECT_EQ(tall.At(55, 250), 0xFF00FF00u);

    PageLayout cropped;
    cropped.cropBox = Rect{100, 300, 300, 100};
    cropped.rects = {{Rect{100, 200, 200, 100}, 0xFF0000}, {Rect{0, 792, 612, 310}, 0x0000FF}};
    const Picture crop(FirstPage(cropped), 200, 200);
    EXPECT_EQ(crop.At(50, 150), kRed);
    EXPECT_EQ(crop.At(150, 150), kWhite);
    EXPECT_EQ(crop.At(150, 1), kWhite);  // the blue band is outside the crop box
}

TEST_F(Rendering, DamagedPagesFailCleanlyOrRenderWhatTheyCan) {
    // MuPDF gives up at an image of ten billion pixels: an engine error, and
    // what was painted before it stays.
    const std::string file = RawPdf(
        {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
         "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 100] /Contents 4 0 R"
         " /Resources << /XObject << /Im 5 0 R >> >> >>",
         RawStream("", "1 0 0 rg 0 0 100 50 re f q 200 0 0 100 0 0 cm /Im Do Q"),
         RawStream("/Subtype /Image /Width 100000 /Height 100000 /BitsPerComponent 8 /ColorSpace /DeviceRGB", "xx")});
    auto page = Open(file)->GetPage(0);
    std::vector<unsigned char> pixels(200 * 100 * 4, 0xFF);
    std::shared_ptr<IBitmap> bitmap = Pdfium::CreateBitmap(200, 100, IBitmap::Bgrx, pixels.data(), 800);
    EXPECT_THROW(Pdfium::CreatePageRenderer()->Render(page, bitmap, false), Orvane::Exception);
    EXPECT_EQ(pixels[(75 * 200 + 50) * 4], 0);  // blue byte of a red pixel

    // A broken content stream draws what it can.
    PageLayout garbage = RedCorner();
    garbage.extraContent = "BT /F9 12 Tf ( unterminated ] >> 1 2 re re Q Q Q cm /Nope Do ID \xFF\xFE EI";
    EXPECT_EQ(Picture(FirstPage(garbage), 200, 100).At(50, 75), kRed);
}

}  // namespace
}  // namespace QuirelleTest
