// The reading queries and tiles through the service: their answers and their
// errors. Pending tiles are with the other asynchronous requests, what a close
// drops with the document lifecycle.

#include <cmath>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

// The engine's entry, not the fixture builder's.
using OutlineEntry = Orvane::PDF::OutlineEntry;

constexpr auto kDefault = IPageInfoObserver::DefaultView;

class ReadingService : public ServiceTest {};

TEST_F(ReadingService, QueriesAndTilesAnswerAndReportTheirErrors) {
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

    // A tile holds the pixels of the page's picture: "Page 1" at (72, 720).
    const QImage whole = Await(service->GeneratePageImage(id, 0, 918, 1188));
    EXPECT_EQ(Await(service->GenerateTile(id, 0, {60, 740, 160, 700}, 1.5, kDefault)), whole.copy(90, 78, 150, 60));
    EXPECT_EQ(Await(service->SelectAll(id, 0)).text, "Page 1");
}

}  // namespace
}  // namespace QuirelleTest
