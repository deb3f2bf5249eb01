// Asynchronous page and tile requests: coalescing, cancellation, failures and
// observers that throw or act from inside their callbacks. What a close
// drops is in the document lifecycle tests.

#include <atomic>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

constexpr auto kDefault = IPageInfoObserver::DefaultView;
constexpr auto kThumbnail = IPageInfoObserver::ThumbnailView;
constexpr auto kPrint = IPageInfoObserver::PrintView;

class AsyncRequests : public ServiceTest {
protected:
    void SetUp() override {
        clockDoc = OpenNumbered(40);
        doc = OpenNumbered(10);
        service->RegisterEventHandler(&observer);
    }
    // The worker may still be answering requests: stop it before the observer goes.
    void TearDown() override { service.reset(); }

    int64_t clockDoc = -1;
    int64_t doc = -1;
    RecordingObserver observer;
};

TEST_F(AsyncRequests, PendingRequestsAreCoalescedAndCancelledExactly) {
    const int64_t otherDoc = OpenNumbered(9);
    TileRecorder recorder;
    service->RegisterTileObserver(&recorder);
    {
        PassClock clock(*service, clockDoc);
        // Tiles: a repeat answered once, cancelled by region and exact scale or by page.
        const Rect a{0, 792, 100, 692}, b{100, 792, 200, 692};
        for (const auto& [page, region] : {std::pair{0u, a}, {0u, a}, {0u, b}, {1u, a}, {2u, a}, {2u, b}})
            service->GenerateTileAsync(doc, page, region, 1, kDefault);
        service->CancelTile(doc, 0, b, 1, kDefault);
        service->CancelTile(doc, 1, a, 2, kDefault);  // another scale: matches nothing
        service->CancelTiles(doc, 2);
        // Page information: answered once each, oldest first; a repeat moves to the back.
        for (unsigned page : {3u, 3u, 4u, 6u, 5u, 6u}) service->GetPageInfoAsync(doc, page, kDefault);
        // Images are keyed on the page index alone, per view set.
        service->GeneratePageImageAsync(doc, 7, 100, 100, kDefault);
        service->GeneratePageImageAsync(doc, 7, 200, 150, kDefault);     // replaces
        service->GeneratePageImageAsync(otherDoc, 7, 50, 50, kDefault);  // dropped
        service->GeneratePageImageAsync(doc, 7, 30, 30, kThumbnail);     // other set: kept
        service->GeneratePageImageAsync(otherDoc, 7, 40, 40, kPrint);    // same set: dropped
        // Cancelling matches document, page and the exact view type.
        service->GeneratePageImageAsync(doc, 2, 10, 10, kThumbnail);
        service->GeneratePageImageAsync(doc, 8, 10, 10, kDefault);
        service->GetPageInfoAsync(doc, 2, kThumbnail);
        service->GetPageInfoAsync(doc, 2, kDefault);
        service->CancelAsyncTasks(doc, 2, kPrint);      // matches nothing
        service->CancelAsyncTasks(doc, 2, kThumbnail);  // image and info of that view
        service->CancelAsyncTasks(doc, 8, kDefault);
        clock.Release();
        observer.infos.WaitFor(5);
        observer.images.WaitFor(2);
        recorder.tiles.WaitFor(2);
        clock.WaitForPass(7);  // a later pass would answer anything else that was kept
    }
    service->UnregisterTileObserver(&recorder);
    const auto tiles = recorder.tiles.All();
    ASSERT_EQ(tiles.size(), 2u);
    EXPECT_EQ(tiles[0].page, 0u);
    EXPECT_EQ(tiles[1].page, 1u);
    EXPECT_EQ(tiles[0].image.size(), QSize(100, 100));
    std::vector<unsigned> pages;
    for (const auto& info : observer.infos.All()) pages.push_back(info.page);
    EXPECT_EQ(pages, (std::vector<unsigned>{3, 4, 5, 6, 2}));
    EXPECT_DOUBLE_EQ(observer.infos.All()[0].size.width, 612);
    EXPECT_DOUBLE_EQ(observer.infos.All()[0].rect.top, 792);
    const auto images = observer.images.All();
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].doc, doc);
    EXPECT_EQ(images[0].viewType, kDefault);
    EXPECT_EQ(images[0].image.size(), QSize(200, 150));
    EXPECT_EQ(images[1].viewType, kThumbnail);
    EXPECT_EQ(images[1].image.size(), QSize(30, 30));
}

TEST_F(AsyncRequests, FailuresAreReportedWithTheFailureValues) {
    service->GetPageInfoAsync(12345, 0, kDefault);
    service->GetPageInfoAsync(doc, 99, kDefault);  // page out of range
    service->GeneratePageImageAsync(12345, 0, 10, 10, kDefault);
    for (const auto& info : observer.infos.WaitFor(2)) {
        EXPECT_EQ(std::make_pair(info.size.width, info.size.height), std::make_pair(1.0, 1.0));
        EXPECT_EQ(info.rotation, IPage::Rotate0);
        EXPECT_EQ(Sides(info.rect), (std::array<double, 4>{0, 0, 0, 0}));
    }
    EXPECT_TRUE(observer.images.WaitFor(1)[0].image.isNull());
}

TEST_F(AsyncRequests, AnObserverThatThrowsGetsTheFailureNotificationOnce) {
    struct Throwing : RecordingObserver {
        void OnPageInfo(int64_t d, unsigned p, const Size& s, const IPage::Rotation& r, const Rect& rect) override {
            RecordingObserver::OnPageInfo(d, p, s, r, rect);
            throw std::runtime_error("observer failed");
        }
        void OnPageImage(int64_t, unsigned, ViewType, const QImage&) override { throw 42; }
    } throwing;
    service->UnregisterEventHandler(&observer);
    service->RegisterEventHandler(&throwing);
    service->RegisterEventHandler(&observer);  // behind the throwing one
    service->GetPageInfoAsync(doc, 1, kDefault);
    service->GeneratePageImageAsync(doc, 1, 10, 10, kDefault);
    // The success notification ends at the throwing observer; the failure
    // notification then starts over, ends at it again and is dropped.
    const auto seen = throwing.infos.WaitFor(2);
    EXPECT_DOUBLE_EQ(seen[0].size.width, 612);
    EXPECT_DOUBLE_EQ(seen[1].size.width, 1.0);
    EXPECT_DOUBLE_EQ(Await(service->GetPageInfo(doc, 0)).size.width, 612);  // the worker goes on
    EXPECT_TRUE(observer.infos.All().empty());
    EXPECT_TRUE(observer.images.All().empty());
    service->UnregisterEventHandler(&throwing);
}

TEST_F(AsyncRequests, ObserversMayRegisterUnregisterAndRequestFromCallbacks) {
    // Run under ThreadSanitizer in CI: callers and callbacks touch the
    // service and the observer list from several threads at once.
    RecordingObserver extra;
    std::atomic<int> answers{0};
    Quirelle* const provider = service.get();
    observer.onAnswer = [&, provider] {
        const int n = ++answers;
        if (n % 2 == 0) {
            provider->RegisterEventHandler(&extra);
        } else {
            provider->UnregisterEventHandler(&extra);
        }
        if (n < 40) {
            provider->GeneratePageImageAsync(doc, n % 10, 8, 8, kDefault);
            provider->GetPageInfoAsync(doc, n % 10, kThumbnail);
        }
    };
    std::thread caller([&] {
        for (unsigned i = 0; i < 20; ++i) {
            provider->GetPageInfoAsync(doc, i % 10, kDefault);
            provider->CancelAsyncTasks(doc, (i + 5) % 10, kDefault);
        }
    });
    provider->GeneratePageImageAsync(doc, 0, 8, 8, kDefault);
    caller.join();
    observer.images.WaitFor(5);
    // Stop the worker while the observers and the callback's captures live.
    service.reset();
    EXPECT_GE(answers.load(), 5);
}

}  // namespace
}  // namespace QuirelleTest
