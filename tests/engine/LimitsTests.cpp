// Limits on hostile input: memory exhaustion is an engine failure (not a bad
// file), and a run over a page past its time budget is aborted and reported.

#include <mupdf/fitz.h>

#include <QImage>
#include <thread>

#include "engine/Context.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"
#include "orvane/pdf/EngineLimits.h"
#include "tests/support/EngineTest.h"

namespace QuirelleTest {
namespace {

using namespace Orvane::PDF;

using Limits = EngineTest;

TEST_F(Limits, RunningOutOfMemoryIsAnEngineFailureNotABadFile) {
    const auto path = temp.File("many.pdf");
    PdfBuilder().AddNumberedPages(200).Save(path);
    SetMemoryLimit(Pdfium::MemoryInUse() + 16 * 1024);
    try {
        Pdfium::PdfDocument document(nullptr, path.string(), "");
        ADD_FAILURE() << "opened within 16 KiB";
    } catch (const Orvane::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("out of memory"), std::string::npos) << e.what();
    }
    SetEngineLimits(saved);
    EXPECT_EQ(Pdfium::PdfDocument(nullptr, path.string(), "").GetPageCount(), 200u);
}

TEST_F(Limits, PageRunsPastTheirBudgetAreAbortedWithAnException) {
    const auto path = temp.File("page.pdf");
    PdfBuilder().AddNumberedPages(1).Save(path);
    auto document = std::make_shared<Pdfium::PdfDocument>(nullptr, path.string(), "");
    QImage picture(100, 100, QImage::Format_RGB32);
    std::shared_ptr<IBitmap> bitmap =
        Pdfium::CreateBitmap(100, 100, IBitmap::Bgrx, picture.bits(), static_cast<int>(picture.bytesPerLine()));
    auto renderer = Pdfium::CreatePageRenderer();

    SetTimeBudget(std::chrono::milliseconds(0));
    EXPECT_THROW(renderer->Render(document->GetPage(0), bitmap, false), Orvane::Exception);
    EXPECT_THROW(document->GetPage(0)->GetTextObject(), Orvane::Exception);
    EXPECT_THROW(document->GetPage(0)->GetObjectIndices(), Orvane::Exception);
    try {
        document->CreatePage(0, 100, 100);
        ADD_FAILURE() << "edited past the budget";
    } catch (const Orvane::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("time budget"), std::string::npos) << e.what();
    }
    SetEngineLimits(saved);
    EXPECT_NO_THROW(renderer->Render(document->GetPage(0), bitmap, false));
}

TEST_F(Limits, SetsTheAbortFlagOnceTheDeadlinePasses) {
    fz_cookie untouched{};
    {
        // The watchdog sleeps towards the generous deadline when the short one comes.
        const Pdfium::Deadline generous(untouched, std::chrono::hours(1));
        fz_cookie cookie{};
        const Pdfium::Deadline deadline(cookie, std::chrono::milliseconds(20));
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!__atomic_load_n(&cookie.abort, __ATOMIC_ACQUIRE) && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(deadline.Expired());
        EXPECT_EQ(cookie.abort, 1);
    }
    EXPECT_EQ(untouched.abort, 0);
}

}  // namespace
}  // namespace QuirelleTest
