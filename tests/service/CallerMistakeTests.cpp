// What an application may get wrong must not end the process: tasks that
// cannot run, callbacks whose captured state calls back into the service,
// and documents kept after their service is gone.

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using CallerMistakes = ServiceTest;

TEST_F(CallerMistakes, TasksThatCannotRunAreRefusedWithoutEndingTheWorker) {
    const int64_t doc = OpenNumbered(1);
    std::packaged_task<void(std::shared_ptr<IDocument>&)> empty;
    EXPECT_THROW(service->ExecuteWithDocument(doc, std::move(empty)), std::future_error);

    std::packaged_task<void(std::shared_ptr<IDocument>&)> ran([](std::shared_ptr<IDocument>&) {});
    std::shared_ptr<IDocument> none;
    ran(none);
    service->ExecuteWithDocument(doc, std::move(ran));
    EXPECT_EQ(Await(service->GetPageInfo(doc, 0)).size.width, 612);
}

TEST_F(CallerMistakes, SearchCallbacksAreDestroyedOutsideTheServiceLock) {
    const int64_t doc = OpenNumbered(3);
    const int64_t clockDoc = OpenNumbered(40);
    // Its destructor asks the service something, which takes the service's lock.
    struct CallsBack {
        Quirelle& service;
        int64_t doc;
        ~CallsBack() { service.GetPageCount(doc); }
    };
    auto callback = [&] {
        return [state = std::make_shared<CallsBack>(CallsBack{*service, doc})](
                   unsigned, const std::vector<SearchResultInfo>&, const std::shared_ptr<ITextObject>&) {};
    };
    {
        // Stopped before its first step: the service holds the last copy.
        PassClock clock(*service, clockDoc);
        const int64_t search = service->SearchInDocument(doc, 0, L"page", callback());
        service->StopSearch(search);
    }
    EXPECT_EQ(service->GetPageCount(doc), 3);
}

TEST_F(CallerMistakes, DocumentsKeptAfterCloseOrAfterTheServiceAreReleasedSafely) {
    const int64_t first = OpenNumbered(2);
    const int64_t second = OpenNumbered(3);
    std::shared_ptr<IDocument> kept[2];
    std::shared_ptr<IPage> keptPage;
    Await(WithDocument(first, [&](std::shared_ptr<IDocument>& document) {
        kept[0] = document;
        keptPage = document->GetPage(1);
    }));
    Await(WithDocument(second, [&](std::shared_ptr<IDocument>& document) { kept[1] = document; }));
    Await(service->CloseDoument(second));
    kept[1].reset();  // on this thread, while the worker goes on
    service.reset();
    EXPECT_EQ(kept[0]->GetPageCount(), 2u);
    kept[0].reset();
    keptPage.reset();
}

}  // namespace
}  // namespace QuirelleTest
