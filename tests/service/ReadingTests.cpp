// The reading queries and tiles through the service: their errors, their
// answers, and pending tiles coalesced and cancelled (what a close drops is in
// the document lifecycle tests).

#include <cmath>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

// The engine's entry, not the fixture builder's.
using OutlineEntry = Orvane::PDF::OutlineEntry;

constexpr auto kDefault = IPageInfoObserver::DefaultView;

class ReadingService : public ServiceTest {};

TEST_F(ReadingService, QueriesAnswerAndReportTheirErrors) {
    const auto path = temp.File("labelled.pdf");
    PdfBuilder().AddNumberedPages(2).AddPageLabels({{0, "r"}, {1, "D", "A-"}}).AddOutline({{"Appendix", 0, 1}}).Save(path);
    const int64_t id = Open(path);
    const std::vector<OutlineEntry> outline = Await(service->GetOutline(id));
    ASSERT_EQ(outline.size(), 1u);
    EXPECT_EQ(outline[0].title, "Appendix");
    EXPECT_EQ(outline[0].pageIndex, 1);
    EXPECT_EQ(Await(service->GetPageLabels(id)), (std::vector<std::string>{"i", "A-1"}));
    EXPECT_EQ(Await(service->FindPageByLabel(id, "A-1")), 1);
    EXPECT_EQ(Await(service->GetDocumentInformation(id)).version, "1.7");

    auto notOpen = service->GetOutline(kNotOpen);
    EXPECT_THROW(Await(std::move(notOpen)), std::invalid_argument);
    auto tileNotOpen = service->GenerateTile(kNotOpen, 0, {0, 100, 100, 0}, 1, kDefault);
    EXPECT_THROW(Await(std::move(tileNotOpen)), std::invalid_argument);
    auto pastTheEnd = service->SelectAll(id, 2);
    EXPECT_THROW(Await(std::move(pastTheEnd)), std::out_of_range);
    auto badPoint = service->SelectWord(id, 0, {NAN, 0});
    EXPECT_THROW(Await(std::move(badPoint)), std::invalid_argument);
    auto badScale = service->GenerateTile(id, 0, {0, 100, 100, 0}, -1, kDefault);
    EXPECT_THROW(Await(std::move(badScale)), std::invalid_argument);
}

TEST_F(ReadingService, TilesMatchThePageImageAndPendingOnesAreCoalescedAndCancelled) {
    const int64_t clockDoc = OpenNumbered(40);
    const int64_t doc = OpenNumbered(3);
    const QImage whole = Await(service->GeneratePageImage(doc, 0, 918, 1188));
    const QImage tile = Await(service->GenerateTile(doc, 0, {60, 740, 160, 700}, 1.5, kDefault));
    EXPECT_EQ(tile, whole.copy(90, 78, 150, 60));  // "Page 1" at (72, 720)
    EXPECT_EQ(Await(service->SelectAll(doc, 0)).text, "Page 1");

    TileRecorder recorder;
    service->RegisterTileObserver(&recorder);
    {
        PassClock clock(*service, clockDoc);
        const Rect a{0, 792, 100, 692}, b{100, 792, 200, 692};
        service->GenerateTileAsync(doc, 0, a, 1, kDefault);
        service->GenerateTileAsync(doc, 0, a, 1, kDefault);  // the same tile: one answer
        service->GenerateTileAsync(doc, 0, b, 1, kDefault);
        service->GenerateTileAsync(doc, 1, a, 1, kDefault);
        service->GenerateTileAsync(doc, 2, a, 1, kDefault);
        service->GenerateTileAsync(doc, 2, b, 1, kDefault);
        service->CancelTile(doc, 0, b, 1, kDefault);
        service->CancelTile(doc, 1, a, 2, kDefault);  // another scale: matches nothing
        service->CancelTiles(doc, 2);
        clock.Release();
        recorder.tiles.WaitFor(2);
        clock.WaitForPass(4);
    }
    const auto tiles = recorder.tiles.All();
    ASSERT_EQ(tiles.size(), 2u);
    EXPECT_EQ(tiles[0].page, 0u);
    EXPECT_EQ(tiles[1].page, 1u);
    EXPECT_EQ(tiles[0].image.size(), QSize(100, 100));
    service.reset();  // the worker stops before the recorder goes
}

}  // namespace
}  // namespace QuirelleTest
