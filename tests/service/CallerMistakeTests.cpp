// What an application may get wrong must not end the process: tasks that
// cannot run and documents kept after their service is gone (a search
// callback whose state calls back into the service is in the search tests).

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
