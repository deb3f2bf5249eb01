// Asynchronous page requests: coalescing, order, cancellation, failures and
// observers that act from inside their callbacks.

#include <atomic>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

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

std::vector<unsigned> PagesOf(const std::vector<RecordingObserver::Info>& infos) {
    std::vector<unsigned> pages;
    for (const auto& info : infos) pages.push_back(info.page);
    return pages;
}

TEST_F(AsyncRequests, PageInfoRequestsAreAnsweredOnceOldestFirst) {
    {
        PassClock clock(*service, clockDoc);
        service->GetPageInfoAsync(doc, 3, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 3, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 4, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 6, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 5, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 6, IPageInfoObserver::DefaultView);  // moves behind 5
        clock.Release();
        observer.WaitForInfos(4);
    }
    const auto infos = observer.Infos();
    EXPECT_EQ(PagesOf(infos), (std::vector<unsigned>{3, 4, 5, 6}));
    EXPECT_DOUBLE_EQ(infos[0].size.width, 612);
    EXPECT_DOUBLE_EQ(infos[0].rect.top, 792);
}

TEST_F(AsyncRequests, ANewerImageRequestReplacesThePendingOneAndOthersArePageKeyed) {
    const int64_t otherDoc = OpenNumbered(9);
    {
        PassClock clock(*service, clockDoc);
        service->GeneratePageImageAsync(doc, 7, 100, 100, IPageInfoObserver::DefaultView);
        service->GeneratePageImageAsync(doc, 7, 200, 150, IPageInfoObserver::DefaultView);       // replaces
        service->GeneratePageImageAsync(otherDoc, 7, 50, 50, IPageInfoObserver::DefaultView);    // dropped
        service->GeneratePageImageAsync(doc, 7, 30, 30, IPageInfoObserver::ThumbnailView);      // other set: kept
        service->GeneratePageImageAsync(otherDoc, 7, 40, 40, IPageInfoObserver::PrintView);     // same set: dropped
        clock.Release();
        observer.WaitForImages(2);
        // A later pass would answer anything else that was kept.
        clock.WaitForPass(3);
    }
    const auto images = observer.Images();
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].doc, doc);
    EXPECT_EQ(images[0].viewType, IPageInfoObserver::DefaultView);
    EXPECT_EQ(images[0].image.size(), QSize(200, 150));
    EXPECT_EQ(images[1].viewType, IPageInfoObserver::ThumbnailView);
    EXPECT_EQ(images[1].image.size(), QSize(30, 30));
}

TEST_F(AsyncRequests, CancelMatchesDocumentPageAndExactViewType) {
    {
        PassClock clock(*service, clockDoc);
        service->GeneratePageImageAsync(doc, 2, 10, 10, IPageInfoObserver::ThumbnailView);
        service->GeneratePageImageAsync(doc, 3, 10, 10, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 2, IPageInfoObserver::ThumbnailView);
        service->GetPageInfoAsync(doc, 2, IPageInfoObserver::DefaultView);
        service->CancelAsyncTasks(doc, 2, IPageInfoObserver::PrintView);      // matches nothing
        service->CancelAsyncTasks(doc, 2, IPageInfoObserver::ThumbnailView);  // image and info of view 1
        service->CancelAsyncTasks(doc, 3, IPageInfoObserver::DefaultView);
        clock.Release();
        observer.WaitForInfos(1);
        clock.WaitForPass(3);
    }
    EXPECT_TRUE(observer.Images().empty());
    const auto infos = observer.Infos();
    ASSERT_EQ(infos.size(), 1u);
    EXPECT_EQ(infos[0].page, 2u);
}

TEST_F(AsyncRequests, FailuresAreReportedWithTheFailureValues) {
    service->GetPageInfoAsync(12345, 0, IPageInfoObserver::DefaultView);
    service->GetPageInfoAsync(doc, 99, IPageInfoObserver::DefaultView);  // page out of range
    service->GeneratePageImageAsync(12345, 0, 10, 10, IPageInfoObserver::DefaultView);
    const auto infos = observer.WaitForInfos(2);
    for (const auto& info : infos) {
        EXPECT_DOUBLE_EQ(info.size.width, 1.0);
        EXPECT_DOUBLE_EQ(info.size.height, 1.0);
        EXPECT_EQ(info.rotation, IPage::Rotate0);
        EXPECT_DOUBLE_EQ(info.rect.left + info.rect.top + info.rect.right + info.rect.bottom, 0.0);
    }
    EXPECT_TRUE(observer.WaitForImages(1)[0].image.isNull());
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
    service->GetPageInfoAsync(doc, 1, IPageInfoObserver::DefaultView);
    service->GeneratePageImageAsync(doc, 1, 10, 10, IPageInfoObserver::DefaultView);
    // The success notification ends at the throwing observer; the failure
    // notification then starts over, ends at it again and is dropped.
    const auto seen = throwing.WaitForInfos(2);
    EXPECT_DOUBLE_EQ(seen[0].size.width, 612);
    EXPECT_DOUBLE_EQ(seen[1].size.width, 1.0);
    // The worker is alive and well.
    EXPECT_DOUBLE_EQ(Await(service->GetPageInfo(doc, 0)).size.width, 612);
    EXPECT_TRUE(observer.Infos().empty());
    EXPECT_TRUE(observer.Images().empty());
    service->UnregisterEventHandler(&throwing);
}

TEST_F(AsyncRequests, ClosingADocumentDropsItsPendingRequests) {
    {
        PassClock clock(*service, clockDoc);
        clock.OccupyCloseStep();
        service->GeneratePageImageAsync(doc, 1, 10, 10, IPageInfoObserver::DefaultView);
        service->GeneratePageImageAsync(doc, 2, 10, 10, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 1, IPageInfoObserver::DefaultView);
        service->GetPageInfoAsync(doc, 2, IPageInfoObserver::DefaultView);
        auto close = service->CloseDoument(doc);
        clock.Release();
        Await(std::move(close));
        clock.WaitForPass(3);
    }
    // Pass 1 answered page 1 of each kind before the close; page 2 was dropped.
    EXPECT_EQ(observer.Images().size(), 1u);
    EXPECT_EQ(observer.Infos().size(), 1u);
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
            provider->GeneratePageImageAsync(doc, n % 10, 8, 8, IPageInfoObserver::DefaultView);
            provider->GetPageInfoAsync(doc, n % 10, IPageInfoObserver::ThumbnailView);
        }
    };
    std::thread caller([&] {
        for (unsigned i = 0; i < 20; ++i) {
            provider->GetPageInfoAsync(doc, i % 10, IPageInfoObserver::DefaultView);
            provider->CancelAsyncTasks(doc, (i + 5) % 10, IPageInfoObserver::DefaultView);
        }
    });
    provider->GeneratePageImageAsync(doc, 0, 8, 8, IPageInfoObserver::DefaultView);
    caller.join();
    observer.WaitForImages(5);
    // Stop the worker while the observers and the callback's captures live.
    service.reset();
    EXPECT_GE(answers.load(), 5);
}

}  // namespace
}  // namespace QuirelleTest
