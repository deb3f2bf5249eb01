// Limits on hostile input: memory exhaustion is an engine failure (not a bad
// file), and a run over a page past its time budget is aborted and reported.

#include <mupdf/fitz.h>

#include <QImage>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "engine/Context.h"
#include "engine/DisplayListCache.h"
#include "engine/DocumentCore.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"
#include "orvane/pdf/EngineLimits.h"
#include "tests/engine/DocumentTestSupport.h"
#include "tests/support/HostilePdf.h"

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
    SetTimeBudget(std::chrono::milliseconds(0));
    EXPECT_THROW(Render(document->GetPage(0), 100, 100), Orvane::Exception);
    EXPECT_THROW(document->GetPage(0)->GetTextObject(), Orvane::Exception);
    EXPECT_THROW(document->GetPage(0)->GetObjectIndices(), Orvane::Exception);
    try {
        document->CreatePage(0, 100, 100);
        ADD_FAILURE() << "edited past the budget";
    } catch (const Orvane::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("time budget"), std::string::npos) << e.what();
    }
    SetEngineLimits(saved);
    EXPECT_NO_THROW(Render(document->GetPage(0), 100, 100));
}

// A picture of the page at width x height, or the exception's message.
struct Attempt {
    QImage image;
    std::string failure;
};

Attempt Draw(const std::shared_ptr<IPage>& page, int width, int height) {
    try {
        return {Render(page, width, height), {}};
    } catch (const Orvane::Exception& e) {
        return {QImage(), e.what()};
    }
}

bool NamesALimit(const std::string& message) {
    return message.find("time budget") != std::string::npos || message.find("memory limit") != std::string::npos;
}

TEST_F(Limits, EveryClassOfEndlessWorkEndsWithinTheBudgetAndThenAnswersAtOnce) {
    SetTimeBudget(std::chrono::seconds(1));
    for (const HostilePdf& hostile : HostilePdfs()) {
        SCOPED_TRACE(hostile.name);
        const auto path = temp.File("hostile.pdf");
        WriteFile(path, hostile.bytes);
        auto document = std::make_shared<Pdfium::PdfDocument>(nullptr, path.string(), "");
        const std::function<std::string()> requests[] = {
            [&] { return Draw(document->GetPage(0), 200, 200).failure; },
            [&] { return Draw(document->GetPage(0), 800, 800).failure; },
            [&] {
                document->GetPage(0)->GetTextObject();
                return std::string();
            },
            [&] {
                document->GetPage(0)->GetObjectBoundsAt(100, 100, IPageObject::Path);
                return std::string();
            },
        };
        std::string first;
        for (const auto& request : requests) {
            const auto start = std::chrono::steady_clock::now();
            std::string failure;
            try {
                failure = request();
            } catch (const Orvane::Exception& e) {
                failure = e.what();
            }
            const auto took = std::chrono::steady_clock::now() - start;
            const bool pastBudget = NamesALimit(first);
            // Remembered, a page past its budget answers without running again:
            // well under the budget even under the sanitizers on a busy machine.
            EXPECT_LT(took, std::chrono::milliseconds(pastBudget ? 100 : 1500)) << failure;
            // What the file itself makes impossible fails at once, as a bad file.
            if (!failure.empty() && !NamesALimit(failure)) {
                EXPECT_LT(took, std::chrono::milliseconds(100)) << failure;
            }
            if (pastBudget) {
                EXPECT_EQ(failure, first);
            }
            if (first.empty()) first = failure;
        }
        if (hostile.name == "tiny-cell tiling" || hostile.name == "huge path") {
            EXPECT_NE(first.find("refused"), std::string::npos) << first;
        }
        // A raised budget tries the page again.
        SetTimeBudget(std::chrono::milliseconds(1001));
        if (first.find("ran past") != std::string::npos) {
            const auto start = std::chrono::steady_clock::now();
            Draw(document->GetPage(0), 200, 200);
            EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
        }
        SetTimeBudget(std::chrono::seconds(1));
    }
}

TEST_F(Limits, APictureCutShortByTheMemoryLimitIsNoPicture) {
    PageLayout page;
    for (int i = 0; i < 40; ++i) page.text.push_back({72, 740.0 - 16 * i, 12, "A line of text to be drawn at any size"});
    page.images.push_back({Rect{100, 500, 500, 100}, 1500, 1500, 0x3060C0});
    const auto path = temp.File("photo.pdf");
    PdfBuilder().AddPage(page).Save(path);
    auto document = std::make_shared<Pdfium::PdfDocument>(nullptr, path.string(), "");
    const Attempt whole = Draw(document->GetPage(0), 1224, 1584);
    ASSERT_TRUE(whole.failure.empty()) << whole.failure;
    int cut = 0;
    for (size_t room : {size_t(1) << 20, size_t(4) << 20, size_t(8) << 20, size_t(16) << 20}) {
        Pdfium::DisplayListCache::Instance().DropDocument(Pdfium::CurrentContext(), document->Core()->serial);
        SetMemoryLimit(Pdfium::MemoryInUse() + room);
        const Attempt picture = Draw(document->GetPage(0), 1224, 1584);
        SetEngineLimits(saved);
        if (picture.failure.empty()) {
            EXPECT_TRUE(picture.image == whole.image) << "a picture within " << (room >> 20) << " MiB differs";
        } else {
            EXPECT_NE(picture.failure.find("memory limit"), std::string::npos) << picture.failure;
            ++cut;
        }
    }
    EXPECT_GT(cut, 0);
}

// A refused allocation makes MuPDF evict cached resources, and evicting a
// font takes MuPDF's FreeType lock: an allocation refused to a thread that
// holds that lock must fail, not wait for the lock.
TEST_F(Limits, NoRefusedAllocationWaitsForALockItsThreadHolds) {
    const auto path = temp.File("text.pdf");
    PdfBuilder().AddNumberedPages(20).Save(path);
    auto document = std::make_shared<Pdfium::PdfDocument>(nullptr, path.string(), "");
    for (unsigned i = 0; i < 20; ++i) Draw(document->GetPage(i), 300, 300);
    // The font stays in the store, held by nothing else.
    Pdfium::DisplayListCache::Instance().DropDocument(Pdfium::CurrentContext(), document->Core()->serial);
    fz_purge_glyph_cache(Pdfium::CurrentContext());
    auto refused = std::async(std::launch::async, [limits = saved]() mutable {
        const Pdfium::ScopedContext scoped;
        fz_context* ctx = scoped.get();
        limits.memoryLimitBytes = Pdfium::MemoryInUse();
        SetEngineLimits(limits);
        fz_lock(ctx, FZ_LOCK_FREETYPE);
        void* block = fz_malloc_no_throw(ctx, 64 << 20);
        fz_unlock(ctx, FZ_LOCK_FREETYPE);
        fz_free(ctx, block);
        return block == nullptr;
    });
    if (refused.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "the refused allocation waits for its own thread's lock";
        std::abort();  // the thread can never end
    }
    EXPECT_TRUE(refused.get());
    SetEngineLimits(saved);
    document.reset();
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
