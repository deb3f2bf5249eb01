// Bitmaps over caller memory, the picture conversions, and rendering: where
// painted pixels land for turned, cropped and stretched pages, view versus
// print, and damaged pages.

#include <cstring>

#include <QImage>
#include <gtest/gtest.h>

#include "engine/Engine.h"
#include "orvane/Exception.h"
#include "tests/engine/PageTestSupport.h"

using namespace QuirelleTest;
using namespace Orvane::PDF;

namespace {

constexpr uint32_t kWhite = 0xFFFFFFFF, kRed = 0xFFFF0000, kBlue = 0xFF0000FF;

// A caller's buffer pre-filled as the service does, with a guard pattern in
// the bytes past each row's width.
class Canvas {
public:
    Canvas(int width, int height, uint32_t fill = kWhite, int padding = 0)
        : width_(width), height_(height), stride_(width * 4 + padding), bytes_(size_t(stride_) * height, 0xAB),
          bitmap_(Pdfium::CreateBitmap(width, height, IBitmap::Bgrx, bytes_.data(), stride_)) {
        bitmap_->FillRect(0, 0, width, height, fill);
    }
    // 0xAARRGGBB at column x, row y from the top.
    uint32_t At(int x, int y) const {
        const unsigned char* p = &bytes_[size_t(y) * stride_ + size_t(x) * 4];
        return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
    }
    bool OpaqueAndPaddingIntact() const {
        for (int y = 0; y < height_; ++y) {
            for (int x = 0; x < width_; ++x)
                if (At(x, y) >> 24 != 0xFF) return false;
            for (int i = width_ * 4; i < stride_; ++i)
                if (bytes_[size_t(y) * stride_ + i] != 0xAB) return false;
        }
        return true;
    }
    void Render(const std::shared_ptr<IPage>& page, bool print = false) {
        Pdfium::CreatePageRenderer()->Render(page, bitmap_, print);
    }

private:
    int width_, height_, stride_;
    std::vector<unsigned char> bytes_;
    std::shared_ptr<IBitmap> bitmap_;
};

// A 200 x 100 point page whose bottom-left quarter is red.
PageSpec RedCorner(int rotate = 0) {
    PageSpec spec;
    spec.width = 200;
    spec.height = 100;
    spec.rotate = rotate;
    spec.rects = {{Rect{0, 50, 100, 0}, 0xFF0000}};
    return spec;
}

class Rendering : public PageTest {};

}  // namespace

TEST(Bitmap, WrapsTheCallersBufferOrNothingAndFillsClipped) {
    std::vector<unsigned char> buffer(16 * 4, 0);
    auto bitmap = Pdfium::CreateBitmap(4, 4, IBitmap::Bgra, buffer.data(), 16);
    ASSERT_TRUE(bitmap);
    EXPECT_EQ(bitmap->GetSize().width, 4);
    EXPECT_EQ(bitmap->GetBuffer(), buffer.data());
    EXPECT_FALSE(Pdfium::CreateBitmap(4, 4, IBitmap::Bgrx, nullptr, 16));
    EXPECT_FALSE(Pdfium::CreateBitmap(0, 4, IBitmap::Bgrx, buffer.data(), 16));
    EXPECT_FALSE(Pdfium::CreateBitmap(5, 4, IBitmap::Bgrx, buffer.data(), 16));  // stride too small
    EXPECT_FALSE(Pdfium::CreateBitmap(4, 4, IBitmap::Gray, buffer.data(), 16));
    EXPECT_FALSE(Pdfium::CreateBitmap(1 << 30, 1 << 30, IBitmap::Bgrx, buffer.data(), 16));

    bitmap->FillRect(-2, 2, 4, 100, 0x80102030);  // columns 0-1, rows 2-3
    const unsigned char bgra[4] = {0x30, 0x20, 0x10, 0x80};
    EXPECT_EQ(std::memcmp(&buffer[2 * 16], bgra, 4), 0);
    EXPECT_EQ(std::memcmp(&buffer[3 * 16 + 4], bgra, 4), 0);
    EXPECT_EQ(buffer[2 * 16 + 8], 0);
    EXPECT_EQ(buffer[1 * 16], 0);
    bitmap->FillRect(0, 0, 2147483647, 2147483647, 0xFF112233);
    EXPECT_EQ(buffer[15 * 4 + 2], 0x11);
    Pdfium::CreateBitmap(4, 4, IBitmap::Bgrx, buffer.data(), 16)->FillRect(0, 0, 1, 1, 0x00445566);
    EXPECT_EQ(buffer[3], 0xFF);  // a Bgrx pixel stays opaque
}

TEST(ImageUtil, ConvertsAndCopiesWithStraightAlpha) {
    EXPECT_TRUE(Util::ConvertToConvinientFormat(QImage()).isNull());
    QImage rgb(3, 2, QImage::Format_RGB888);
    rgb.fill(Qt::red);
    EXPECT_EQ(Util::ConvertToConvinientFormat(rgb).format(), QImage::Format_RGB32);
    QImage argb(3, 2, QImage::Format_ARGB32);
    argb.fill(Qt::transparent);
    EXPECT_EQ(Util::ConvertToConvinientFormat(argb).format(), QImage::Format_ARGB32_Premultiplied);

    QImage empty;
    EXPECT_FALSE(Util::CreateBitmapFromQImage(empty));
    QImage opaque(5, 3, QImage::Format_RGB32);
    opaque.fill(qRgb(10, 20, 30));
    auto bitmap = Util::CreateBitmapFromQImage(opaque);
    EXPECT_EQ(bitmap->GetFormat(), IBitmap::Bgrx);
    opaque.fill(Qt::black);  // the bitmap keeps its own copy
    const unsigned char* p = bitmap->GetBuffer() + 2 * bitmap->GetStride() + 16;
    EXPECT_EQ(p[0], 30);
    EXPECT_EQ(p[2], 10);
    EXPECT_EQ(p[3], 0xFF);

    QImage premultiplied(2, 2, QImage::Format_ARGB32_Premultiplied);
    premultiplied.fill(QColor(200, 100, 0, 128));
    bitmap = Util::CreateBitmapFromQImage(premultiplied);
    EXPECT_EQ(bitmap->GetFormat(), IBitmap::Bgra);
    EXPECT_NEAR(bitmap->GetBuffer()[2], 200, 2);  // straight, not premultiplied
    EXPECT_EQ(bitmap->GetBuffer()[3], 128);
}

TEST_F(Rendering, CropBoxStretchedOverTheWholeBitmapAndItsStride) {
    auto page = FirstPage(RedCorner());
    Canvas wide(400, 200, kWhite, 12);
    wide.Render(page);
    EXPECT_EQ(wide.At(50, 150), kRed);
    EXPECT_EQ(wide.At(195, 105), kRed);
    EXPECT_EQ(wide.At(205, 150), kWhite);
    EXPECT_EQ(wide.At(50, 95), kWhite);
    EXPECT_TRUE(wide.OpaqueAndPaddingIntact());

    Canvas tall(100, 300, 0xFF00FF00);  // x scale 0.5, y scale 3, over green
    tall.Render(page);
    EXPECT_EQ(tall.At(45, 160), kRed);
    EXPECT_EQ(tall.At(55, 250), 0xFF00FF00u);
    EXPECT_EQ(tall.At(25, 140), 0xFF00FF00u);

    PageSpec cropped;
    cropped.cropBox = Rect{100, 300, 300, 100};
    cropped.rects = {{Rect{100, 200, 200, 100}, 0xFF0000}, {Rect{0, 792, 612, 310}, 0x0000FF}};
    Canvas crop(200, 200);
    crop.Render(FirstPage(cropped));
    EXPECT_EQ(crop.At(50, 150), kRed);
    EXPECT_EQ(crop.At(150, 150), kWhite);
    EXPECT_EQ(crop.At(150, 1), kWhite);  // the blue band is outside the crop box
}

TEST_F(Rendering, AppliesThePageRotation) {
    // Where the page's bottom-left quarter shows, turned clockwise.
    Canvas quarter(100, 200);
    quarter.Render(FirstPage(RedCorner(90)));
    EXPECT_EQ(quarter.At(25, 50), kRed);
    EXPECT_EQ(quarter.At(75, 50), kWhite);
    EXPECT_EQ(quarter.At(25, 150), kWhite);

    Canvas half(200, 100);
    half.Render(FirstPage(RedCorner(180)));
    EXPECT_EQ(half.At(150, 25), kRed);
    EXPECT_EQ(half.At(50, 75), kWhite);

    Canvas threeQuarters(100, 200);
    threeQuarters.Render(FirstPage(RedCorner(270)));
    EXPECT_EQ(threeQuarters.At(75, 150), kRed);
    EXPECT_EQ(threeQuarters.At(25, 150), kWhite);
}

TEST_F(Rendering, PrintFlagRendersAnnotationsAsTheyPrint) {
    PageSpec spec;
    spec.width = 400;
    spec.height = 100;
    spec.annotations = {
        Annotation("Square", Rect{0, 100, 100, 0}, 4, 0x0000FF),        // Print
        Annotation("Square", Rect{100, 100, 200, 0}, 32 | 4, 0x0000FF),  // NoView, Print
        Annotation("Square", Rect{200, 100, 300, 0}, 0, 0x0000FF),       // screen only
        Annotation("Square", Rect{300, 100, 400, 0}, 2 | 4, 0x0000FF),   // Hidden
    };
    auto page = FirstPage(spec);
    Canvas view(400, 100), print(400, 100);
    view.Render(page, false);
    print.Render(page, true);
    EXPECT_EQ(view.At(50, 50), kBlue);
    EXPECT_EQ(view.At(150, 50), kWhite);
    EXPECT_EQ(view.At(250, 50), kBlue);
    EXPECT_EQ(view.At(350, 50), kWhite);
    EXPECT_EQ(print.At(50, 50), kBlue);
    EXPECT_EQ(print.At(150, 50), kBlue);
    EXPECT_EQ(print.At(250, 50), kWhite);
    EXPECT_EQ(print.At(350, 50), kWhite);

    EXPECT_THROW(Pdfium::CreatePageRenderer()->Render(nullptr, nullptr, false), std::invalid_argument);
    EXPECT_THROW(Pdfium::CreatePageRenderer()->Render(page, nullptr, false), std::invalid_argument);
}

TEST_F(Rendering, DamagedPagesRenderWhatTheyCanOrFailCleanly) {
    auto document = OpenBytes(RawPdf({
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Count 4 /Kids [3 0 R 4 0 R 5 0 R 6 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 100] /Contents 7 0 R >>",   // not deflated
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 100] /Contents 99 0 R >>",  // missing
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 100] /Contents (text) >>",  // not a stream
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 100] /Contents 8 0 R /Resources << /XObject << /Im 9 0 R >>"
        " >> >>",
        Stream("/Filter /FlateDecode", "1 0 0 rg 0 0 100 50 re f"),
        Stream("", "1 0 0 rg 0 0 100 50 re f q 200 0 0 100 0 0 cm /Im Do Q"),
        Stream("/Subtype /Image /Width 100000 /Height 100000 /BitsPerComponent 8 /ColorSpace /DeviceRGB", "xx"),
    }));
    for (unsigned i = 0; i < 3; ++i) {
        Canvas canvas(200, 100);
        EXPECT_NO_THROW(canvas.Render(document->GetPage(i))) << i;
        EXPECT_EQ(canvas.At(50, 75), kWhite) << i;
    }
    // MuPDF gives up at an image of ten billion pixels: an engine error, and
    // what was painted before it stays.
    Canvas image(200, 100);
    EXPECT_THROW(image.Render(document->GetPage(3)), Orvane::Exception);
    EXPECT_EQ(image.At(50, 75), kRed);
    EXPECT_TRUE(image.OpaqueAndPaddingIntact());

    PageSpec garbage = RedCorner();
    garbage.extraContent = "BT /F9 12 Tf ( unterminated ] >> 1 2 re re Q Q Q cm /Nope Do ID \xFF\xFE EI";
    Canvas canvas(200, 100);
    EXPECT_NO_THROW(canvas.Render(FirstPage(garbage)));
    EXPECT_EQ(canvas.At(50, 75), kRed);
}
