// Time budgets: a render past its budget is aborted and reported, never left running.

#include <thread>

#include <QImage>
#include <mupdf/fitz.h>

#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"
#include "tests/support/EngineTest.h"

namespace QuirelleTest {
namespace {

using namespace Orvane::PDF;

class Watchdog : public EngineTest {
protected:
    void TearDown() override {
        Pdfium::SetRenderTimeBudget(saved);
        EngineTest::TearDown();
    }
    const std::chrono::milliseconds saved = Pdfium::RenderTimeBudget();
};

TEST_F(Watchdog, ARenderPastItsBudgetIsAbortedWithAnException) {
    const auto path = temp.File("page.pdf");
    PdfBuilder().AddNumberedPages(1).Save(path);
    auto document = std::make_shared<Pdfium::PdfDocument>(nullptr, path.string(), "");
    QImage picture(100, 100, QImage::Format_RGB32);
    std::shared_ptr<IBitmap> bitmap =
        Pdfium::CreateBitmap(100, 100, IBitmap::Bgrx, picture.bits(), static_cast<int>(picture.bytesPerLine()));
    auto renderer = Pdfium::CreatePageRenderer();

    Pdfium::SetRenderTimeBudget(std::chrono::milliseconds(0));
    EXPECT_THROW(renderer->Render(document->GetPage(0), bitmap, false), Orvane::Exception);
    Pdfium::SetRenderTimeBudget(std::chrono::seconds(30));
    EXPECT_NO_THROW(renderer->Render(document->GetPage(0), bitmap, false));
}

TEST_F(Watchdog, SetsTheAbortFlagOnceTheDeadlinePasses) {
    fz_cookie cookie{};
    const Pdfium::Deadline deadline(cookie, std::chrono::milliseconds(20));
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!deadline.Expired() && std::chrono::steady_clock::now() < giveUp) std::this_thread::yield();
    EXPECT_TRUE(deadline.Expired());
    EXPECT_EQ(cookie.abort, 1);

    fz_cookie untouched{};
    { const Pdfium::Deadline generous(untouched, std::chrono::hours(1)); }
    EXPECT_EQ(untouched.abort, 0);
}

}  // namespace
}  // namespace QuirelleTest
