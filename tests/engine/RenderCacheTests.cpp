// Recorded pages and band drawing: the same pixels as running the page's
// content straight into the picture, and never a page as it was before a change.

#include <gtest/gtest.h>

#include "engine/Bands.h"
#include "engine/DisplayListCache.h"
#include "engine/PdfPage.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using Pixels = std::vector<uint32_t>;

// What MuPDF draws running the page's content directly, as the renderer
// places it (the page as displayed stretched over the picture).
Pixels Direct(const std::shared_ptr<IPage>& page, int width, int height, bool print) {
    auto* pdfPage = dynamic_cast<Pdfium::PdfPage*>(page.get());
    fz_context* ctx = pdfPage->Context();
    Pixels pixels(size_t(width) * height, 0xFFFFFFFF);
    guarded(ctx, [&] {
        const fz_rect b = pdf_bound_page(ctx, pdfPage->Native());
        const fz_matrix ctm =
            fz_concat(fz_translate(-b.x0, -b.y0), fz_scale(width / (b.x1 - b.x0), height / (b.y1 - b.y0)));
        fz_pixmap* pixmap = fz_new_pixmap_with_data(ctx, fz_device_bgr(ctx), width, height, nullptr, 1, width * 4,
                                                    reinterpret_cast<unsigned char*>(pixels.data()));
        fz_device* device = fz_new_draw_device(ctx, fz_identity, pixmap);
        pdf_run_page_with_usage(ctx, pdfPage->Native(), device, ctm, print ? "Print" : "View", nullptr);
        fz_close_device(ctx, device);
        fz_drop_device(ctx, device);
        fz_drop_pixmap(ctx, pixmap);
    });
    return pixels;
}

// Drawn as the service draws: the bitmap cleared to white first (a clear the
// renderer does band by band).
Pixels Drawn(const std::shared_ptr<IPage>& page, int width, int height, bool print) {
    Pixels pixels(size_t(width) * height, 0xABABABAB);
    std::shared_ptr<IBitmap> bitmap =
        Pdfium::CreateBitmap(width, height, IBitmap::Bgrx, reinterpret_cast<unsigned char*>(pixels.data()), width * 4);
    bitmap->FillRect(0, 0, width, height, 0xFFFFFFFF);
    Pdfium::CreatePageRenderer()->Render(page, bitmap, print);
    return pixels;
}

// Text (lines of their own, and a paragraph of several lines in one text
// object), rules, slanted and curved edges, a translucent image and
// annotations that show only on screen, only in print, in both or never.
PageLayout Busy(int rotate) {
    PageLayout layout;
    layout.rotate = rotate;
    for (int line = 0; line < 30; ++line) layout.text.push_back(TextRun{72, 740.0 - line * 22, 11, "Band seams"});
    layout.rects = {{Rect{60, 700, 550, 698}, 0x000000}, {Rect{300, 500, 500, 300}, 0x00AA00}};
    layout.images = {{Rect{200, 450, 400, 250}, 8, 8, 0x3366CC, 120}};
    layout.annotations = {{"Square", Rect{80, 200, 180, 100}, 32 | 4, 0x0000FF},
                          {"Square", Rect{200, 200, 300, 100}, 0, 0xFF0000},
                          {"Square", Rect{320, 200, 420, 100}, 4, 0x00FF00},
                          {"Square", Rect{440, 200, 540, 100}, 2 | 4, 0xFF00FF}};
    layout.extraContent =
        "1 0 0 rg 100 100 m 300 560 l 500 120 l f 0 0 1 RG 4 w 80 600 m 200 800 400 300 560 650 c S "
        "0 g BT /F1 9 Tf 320 780 Td (A paragraph) Tj 0 -11 Td (of lines) Tj 3 4 Td (up) Tj "
        "-3 -15 Td (in one object) Tj 0 -11 Td (set by the page) Tj ET";
    return layout;
}

using RenderCache = FileTest;

TEST_F(RenderCache, RecordedAndBandedPicturesMatchTheDirectOnes) {
    const size_t sharedBefore = Pdfium::PicturesSharedOut();
    for (int rotate : {0, 90, 180, 270}) {
        auto page = FirstPage(Busy(rotate));
        const bool turned = rotate % 180 != 0;
        for (auto [width, height] : {std::pair{306, 396}, std::pair{1224, 1584}, std::pair{919, 1187}}) {
            if (turned) std::swap(width, height);
            for (bool print : {false, true}) {
                const Pixels direct = Direct(page, width, height, print);
                EXPECT_EQ(Drawn(page, width, height, print), direct) << rotate << " " << width << " " << print;
                EXPECT_EQ(Drawn(page, width, height, print), direct) << "recorded " << rotate << " " << width;
            }
        }
    }
    if (Pdfium::BandPool::Instance().Helpers() > 0) {
        EXPECT_GT(Pdfium::PicturesSharedOut(), sharedBefore);
    }
}

TEST_F(RenderCache, AChangedPageIsRecordedAgain) {
    PageLayout layout;
    layout.width = 200;
    layout.height = 100;
    layout.rects = {{Rect{0, 50, 100, 0}, 0xFF0000}};
    auto document = Open(PdfBuilder().AddPage(layout).AddPage(layout).Build());
    auto page = document->GetPage(0);
    EXPECT_EQ(Picture(page, 200, 100).At(50, 75), kRed);
    page->SetRotation(IPage::Rotate90);
    const Picture turned(document->GetPage(0), 100, 200);
    EXPECT_EQ(turned.At(25, 50), kRed);
    EXPECT_EQ(turned.At(75, 150), kWhite);

    document->RemoveHiddenObjects();
    document->DeletePage(0);
    document->CreatePage(0, 200, 100);
    EXPECT_EQ(Picture(document->GetPage(0), 200, 100).At(50, 75), kWhite);
}

TEST_F(RenderCache, StaysWithinItsBoundAndGoesWithTheDocument) {
    auto document = Open(PdfBuilder().AddPage(Busy(0)).AddPage(Busy(90)).AddNumberedPages(3).Build());
    for (size_t limit : {size_t(0), size_t(20000), size_t(64) << 20}) {
        Pdfium::SetPageCacheLimit(limit);
        for (unsigned i = 0; i < document->GetPageCount(); ++i) {
            Drawn(document->GetPage(i), 600, 800, i % 2 == 1);
            EXPECT_LE(Pdfium::PageCacheBytes(), limit);
        }
    }
    EXPECT_GT(Pdfium::PageCacheBytes(), 0u);
    document.reset();
    EXPECT_EQ(Pdfium::PageCacheBytes(), 0u);
}

TEST_F(RenderCache, TheTimeBudgetCoversRecordedPagesAndBands) {
    auto page = FirstPage(Busy(0));
    Drawn(page, 1224, 1584, false);
    SetTimeBudget(std::chrono::milliseconds(0));
    for (auto [width, height] : {std::pair{306, 396}, std::pair{1224, 1584}}) {
        EXPECT_THROW(Drawn(page, width, height, false), Orvane::Exception) << width;
    }
}

}  // namespace
}  // namespace QuirelleTest
