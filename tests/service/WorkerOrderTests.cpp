// The order in which the worker serves its queues, observed on the worker:
// the pass clock's callback runs once a pass, after every kind of work but
// closing, and records what is done by then.

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using WorkerOrder = ServiceTest;

TEST_F(WorkerOrder, EachQueueGivesOneTaskAPassInServiceOrder) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(12);
    const auto pdf = NumberedPdf(1, "single.pdf");
    RecordingObserver observer;
    service->RegisterEventHandler(&observer);
    std::vector<std::future<IPDFProvider::PageInfo>> infos;
    std::future<IPDFProvider::OpenDocInfo> firstOpen, secondOpen;
    std::future<bool> save;
    int rotationSeen = -1;
    struct Seen {
        int infos;
        bool save, firstOpen, secondOpen;
        size_t images;
    };
    std::vector<Seen> seen;
    {
        PassClock clock(*service, clockDoc, [&](int pass) {
            if (pass > 10) return;  // the test reads what the first ten recorded
            int done = 0;
            for (auto& info : infos) done += IsReady(info);
            seen.push_back(
                {done, IsReady(save), IsReady(firstOpen), IsReady(secondOpen), observer.images.All().size()});
        });
        for (unsigned page = 0; page < 10; ++page) infos.push_back(service->GetPageInfo(doc, page));
        save = service->SaveDocumentAs(doc, temp.File("saved.pdf").string());
        firstOpen = service->OpenDocument(pdf.string(), "");
        secondOpen = service->OpenDocument(pdf.string(), "");
        // Caller work queued before a rotation still sees it: rotation comes first in a pass.
        auto work =
            WithDocument(doc, [&](std::shared_ptr<IDocument>& d) { rotationSeen = d->GetPage(0)->GetRotation(); });
        auto rotate = service->RotatePage(doc, 0, IPDFProvider::RotateClockwise);
        // Default-view images before other views, low pages first.
        service->GeneratePageImageAsync(doc, 8, 10, 10, IPageInfoObserver::ThumbnailView);
        for (unsigned page : {9u, 2u, 5u})
            service->GeneratePageImageAsync(doc, page, 10, 10, IPageInfoObserver::DefaultView);
        clock.Release();
        Await(std::move(work));
        clock.WaitForPass(10);
    }
    EXPECT_EQ(rotationSeen, IPage::Rotate90);
    ASSERT_GE(seen.size(), 10u);
    for (int pass = 1; pass <= 10; ++pass) {
        const Seen& s = seen[pass - 1];
        EXPECT_EQ(s.infos, pass) << "pass " << pass;
        EXPECT_TRUE(s.save) << "the save waits for no page information";
        EXPECT_TRUE(s.firstOpen);
        EXPECT_EQ(s.secondOpen, pass >= 2) << "pass " << pass;
        EXPECT_EQ(s.images, std::min<size_t>(pass + 1, 4)) << "pass " << pass;
    }
    EXPECT_EQ(firstOpen.get().id + 1, secondOpen.get().id);
    std::vector<std::pair<unsigned, int>> order;
    for (const auto& image : observer.images.All()) order.emplace_back(image.page, image.viewType);
    EXPECT_EQ(order, (std::vector<std::pair<unsigned, int>>{{2, 0}, {8, 1}, {5, 0}, {9, 0}}));
    service->UnregisterEventHandler(&observer);
}

// Annotation and form requests (queues whose requests answer different
// types) take one turn a pass each; a close purges the rest, breaking their
// promises, and later requests find no document.
TEST_F(WorkerOrder, AnnotationAndFormRequestsTakeOneTurnAPassUntilTheClose) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(2);
    std::vector<std::future<std::vector<Annotation>>> lists;
    std::vector<std::future<std::vector<FormField>>> fields;
    std::pair<int, int> seen{-1, -1};
    std::future<void> closed;
    {
        PassClock clock(*service, clockDoc, [&](int pass) {
            if (pass != 1) return;
            seen = {0, 0};
            for (auto& list : lists) seen.first += IsReady(list);
            for (auto& field : fields) seen.second += IsReady(field);
        });
        clock.OccupyCloseStep();
        for (int i = 0; i < 3; ++i) {
            lists.push_back(service->GetAnnotations(doc, 0));
            fields.push_back(service->GetFormFields(doc));
        }
        closed = service->CloseDoument(doc);
        clock.Release();
        clock.WaitForPass(2);
    }
    Await(std::move(closed));
    EXPECT_EQ(seen, std::make_pair(1, 1));
    EXPECT_TRUE(lists[0].get().empty());
    EXPECT_TRUE(fields[0].get().empty());
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_THROW(lists[i].get(), std::future_error);
        EXPECT_THROW(fields[i].get(), std::future_error);
    }
    EXPECT_THROW(Await(service->GetAnnotations(doc, 0)), std::invalid_argument);
    EXPECT_THROW(Await(service->GetFormFields(doc)), std::invalid_argument);
}

}  // namespace
}  // namespace QuirelleTest
