// The order in which the worker serves its queues, observed on the worker:
// the pass clock's callback runs once a pass, after every kind of work but
// closing, and records what is done by then.

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using WorkerOrder = ServiceTest;

TEST_F(WorkerOrder, EachQueueGivesOneTaskAPass) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(12);
    std::vector<std::future<IPDFProvider::PageInfo>> infos;
    std::future<bool> save;
    std::vector<std::pair<int, bool>> seen;  // per pass: page infos done, save done
    {
        PassClock clock(*service, clockDoc, [&](int pass) {
            if (pass > 10) return;  // the test reads what the first ten recorded
            int done = 0;
            for (auto& info : infos) done += IsReady(info);
            seen.emplace_back(done, IsReady(save));
        });
        for (unsigned page = 0; page < 10; ++page) infos.push_back(service->GetPageInfo(doc, page));
        save = service->SaveDocumentAs(doc, temp.File("saved.pdf").string());
        clock.Release();
        clock.WaitForPass(10);
    }
    ASSERT_GE(seen.size(), 10u);
    for (int pass = 1; pass <= 10; ++pass) {
        EXPECT_EQ(seen[pass - 1].first, pass) << "pass " << pass;
        EXPECT_TRUE(seen[pass - 1].second) << "the save waits for no page information";
    }
}

TEST_F(WorkerOrder, OpensComeFirstOnePerPass) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(2);
    const auto pdf = NumberedPdf(1, "single.pdf");
    std::future<IPDFProvider::OpenDocInfo> firstOpen, secondOpen;
    std::future<IPDFProvider::PageInfo> info;
    std::vector<std::array<bool, 3>> seen;
    {
        PassClock clock(*service, clockDoc,
                        [&](int pass) {
                            if (pass <= 2) seen.push_back({IsReady(firstOpen), IsReady(info), IsReady(secondOpen)});
                        });
        firstOpen = service->OpenDocument(pdf.string(), "");
        secondOpen = service->OpenDocument(pdf.string(), "");
        info = service->GetPageInfo(doc, 0);
        clock.Release();
        clock.WaitForPass(2);
    }
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[0], (std::array<bool, 3>{true, true, false}));
    EXPECT_EQ(seen[1], (std::array<bool, 3>{true, true, true}));
    EXPECT_EQ(firstOpen.get().id + 1, secondOpen.get().id);
}

TEST_F(WorkerOrder, RotationIsServedBeforeCallerWorkOfTheSamePass) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(1);
    std::future<void> work;
    int rotationSeen = -1;
    {
        PassClock clock(*service, clockDoc);
        std::packaged_task<void(std::shared_ptr<IDocument>&)> read(
            [&](std::shared_ptr<IDocument>& d) { rotationSeen = d->GetPage(0)->GetRotation(); });
        work = read.get_future();
        service->ExecuteWithDocument(doc, std::move(read));  // queued first...
        auto rotate = service->RotatePage(doc, 0, IPDFProvider::RotateClockwise);  // ...served first
        clock.Release();
        Await(std::move(rotate));
        Await(std::move(work));
    }
    EXPECT_EQ(rotationSeen, IPage::Rotate90);
}

TEST_F(WorkerOrder, ImagesForTheDefaultViewComeBeforeOtherViewsAndLowPagesFirst) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(10);
    RecordingObserver observer;
    service->RegisterEventHandler(&observer);
    {
        PassClock clock(*service, clockDoc);
        service->GeneratePageImageAsync(doc, 8, 10, 10, IPageInfoObserver::ThumbnailView);
        for (unsigned page : {9u, 2u, 5u}) {
            service->GeneratePageImageAsync(doc, page, 10, 10, IPageInfoObserver::DefaultView);
        }
        clock.Release();
        observer.WaitForImages(4);
    }
    std::vector<std::pair<unsigned, int>> order;
    for (const auto& image : observer.Images()) order.emplace_back(image.page, image.viewType);
    EXPECT_EQ(order, (std::vector<std::pair<unsigned, int>>{{2, 0}, {8, 1}, {5, 0}, {9, 0}}));
    service->UnregisterEventHandler(&observer);
}

}  // namespace
}  // namespace QuirelleTest
