// Page edits, imports and exports through the service. Pages are told apart
// by their text ("Page N"); every edited document is saved, checked by an
// independent reader (qpdf) and reopened.

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

class Edits : public ServiceTest {
protected:
    // The first line of each page's text ("" for a blank page).
    std::vector<std::string> Labels(int64_t id) {
        std::vector<std::string> labels;
        for (int page = 0; page < service->GetPageCount(id); ++page) {
            const std::wstring all = Await(service->GetPageTextObject(id, page))->GetText();
            labels.emplace_back(all.begin(), std::find(all.begin(), all.end(), L'\n'));
        }
        return labels;
    }
    static std::vector<std::string> Numbered(std::initializer_list<int> numbers) {
        std::vector<std::string> labels;
        for (int n : numbers) labels.push_back("Page " + std::to_string(n));
        return labels;
    }
    // Saves a copy, checks it with qpdf, reopens it and expects the same pages.
    int64_t RoundTrip(int64_t id) {
        const auto path = temp.File("roundtrip" + std::to_string(saved++) + ".pdf");
        EXPECT_TRUE(Await(service->SaveDocumentAs(id, path.string())));
        EXPECT_TRUE(QpdfClean(path));
        const int64_t reopened = Open(path);
        EXPECT_EQ(Labels(reopened), Labels(id));
        for (int page = 0; page < service->GetPageCount(id); ++page) {
            EXPECT_EQ(Await(service->GetPageInfo(reopened, page)).rotation,
                      Await(service->GetPageInfo(id, page)).rotation);
        }
        return reopened;
    }
    int saved = 0;
};

TEST_F(Edits, DeleteRunsInTheCallersOrder) {
    const int64_t ascending = Open(NumberedPdf(6, "a.pdf"));
    const int64_t descending = Open(NumberedPdf(6, "b.pdf"));
    Await(service->DeletePages(ascending, {2, 4}));  // the second index counts after the first deletion
    Await(service->DeletePages(descending, {4, 2}));
    Await(service->DeletePages(descending, {}));  // an empty list deletes nothing
    EXPECT_EQ(Labels(ascending), Numbered({1, 2, 4, 5}));
    EXPECT_EQ(Labels(descending), Numbered({1, 2, 4, 6}));
    // A failure stops the list; what was deleted stays deleted.
    EXPECT_THROW(Await(service->DeletePages(descending, {0, 9, 0})), std::out_of_range);
    EXPECT_EQ(Labels(descending), Numbered({2, 4, 6}));
    RoundTrip(ascending);
    RoundTrip(descending);
}

TEST_F(Edits, MoveLandsThePagesBeforeTheDestination) {
    struct Case {
        std::vector<unsigned> pages;
        unsigned destination;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {{1, 2}, 4, Numbered({1, 4, 2, 3, 5})},  // into the middle
        {{1, 2}, 0, Numbered({2, 3, 1, 4, 5})},  // to the front
        {{3}, 0, Numbered({4, 1, 2, 3, 5})},     // a single page
        {{3}, 4, Numbered({1, 2, 3, 4, 5})},     // back where it was
        {{}, 2, Numbered({1, 2, 3, 4, 5})},      // nothing to move
    };
    int n = 0;
    for (const Case& c : cases) {
        const int64_t doc = Open(NumberedPdf(5, "move" + std::to_string(n++) + ".pdf"));
        Await(service->MovePages(doc, c.pages, c.destination));
        EXPECT_EQ(Labels(doc), c.expected) << "case " << n;
        RoundTrip(doc);
    }
}

TEST_F(Edits, RotationTurnsRelativeToTheCurrentRotation) {
    PdfBuilder builder;
    for (int rotate : {0, 90, 180, 270}) {
        PageLayout page;
        page.rotate = rotate;
        builder.AddPage(page);
    }
    const auto path = temp.File("rotations.pdf");
    builder.Save(path);
    const std::pair<IPDFProvider::PageRotation, int> steps[] = {{IPDFProvider::RotateClockwise, 1},
                                                                {IPDFProvider::RotateCounterClockwise, 3},
                                                                {IPDFProvider::RotateHalfTurn, 2}};
    for (const auto& [rotation, quarterTurns] : steps) {
        const int64_t doc = Open(path);
        for (unsigned page = 0; page < 4; ++page) {
            Await(service->RotatePage(doc, page, rotation));
            EXPECT_EQ(Await(service->GetPageInfo(doc, page)).rotation, int((page + quarterTurns) % 4))
                << "page " << page << " step " << rotation;
        }
        RoundTrip(doc);
    }
    const int64_t doc = Open(path);
    for (int i = 0; i < 4; ++i) Await(service->RotatePage(doc, 1, IPDFProvider::RotateClockwise));
    Await(service->RotatePage(doc, 1, static_cast<IPDFProvider::PageRotation>(7)));  // no such step: untouched
    EXPECT_EQ(Await(service->GetPageInfo(doc, 1)).rotation, IPage::Rotate90);
    EXPECT_THROW(Await(service->RotatePage(doc, 9, IPDFProvider::RotateClockwise)), std::out_of_range);
}

TEST_F(Edits, ImportsKeepListOrderDuplicatesAndPosition) {
    const int64_t source = Open(NumberedPdf(3, "source.pdf"));
    const int64_t target = Open(NumberedPdf(2, "target.pdf"));
    Await(service->ImportPages(source, target, {2, 0, 2}, 1));
    EXPECT_EQ(Labels(target), Numbered({1, 3, 1, 3, 2}));
    Await(service->ImportAllPages(source, target, -1));  // negative: appended
    EXPECT_EQ(Labels(target), Numbered({1, 3, 1, 3, 2, 1, 2, 3}));
    Await(service->ImportPages(source, target, {}, 0));
    EXPECT_EQ(Labels(source), Numbered({1, 2, 3}));
    RoundTrip(target);
    EXPECT_THROW(Await(service->ImportPages(source, target, {50}, 0)), std::out_of_range);
}

TEST_F(Edits, UndefinedIdsAreIgnoredAndUnknownIdsRefused) {
    const int64_t doc = OpenNumbered(2);
    // -1 is logged and ignored; the future completes normally. So do other edits of unknown ids.
    Await(service->ImportPages(-1, doc, {0}, 0));
    Await(service->ImportAllPages(doc, -1, 0));
    Await(service->DeletePages(12345, {0}));
    Await(service->AddBlankPage(4242, 0, 100, 100));
    // An unknown id reaches the engine as an empty document, which refuses it.
    EXPECT_THROW(Await(service->ImportAllPages(77, doc, 0)), std::invalid_argument);
    EXPECT_THROW(Await(service->ImportPages(doc, 78, {0}, 0)), std::invalid_argument);
    EXPECT_EQ(Labels(doc), Numbered({1, 2}));
    EXPECT_THROW(service->GetPageCount(77), std::invalid_argument);  // the empty entry is not an open document
}

TEST_F(Edits, ExportWritesTheListedPagesInListOrder) {
    const int64_t doc = OpenNumbered(4);
    const auto out = temp.File("export.pdf");
    EXPECT_TRUE(Await(service->ExportPagesTo(doc, {3, 1, 3, 0}, out.string())));
    EXPECT_TRUE(QpdfClean(out));
    EXPECT_EQ(Labels(Open(out)), Numbered({4, 2, 4, 1}));
    EXPECT_EQ(Labels(doc), Numbered({1, 2, 3, 4}));  // the source is unchanged
    // Failures answer false and leave no file.
    const std::pair<int64_t, std::vector<unsigned>> failures[] = {{999, {0}}, {doc, {0, 7}}};
    for (const auto& [id, pages] : failures) {
        const auto path = temp.File("failed" + std::to_string(pages.size()) + ".pdf");
        EXPECT_FALSE(Await(service->ExportPagesTo(id, pages, path.string())));
        EXPECT_FALSE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(Await(service->ExportPagesTo(doc, {0}, temp.File("no/dir/x.pdf").string())));
    // An empty list writes a valid file without pages.
    const auto none = temp.File("none.pdf");
    EXPECT_TRUE(Await(service->ExportPagesTo(doc, {}, none.string())));
    EXPECT_TRUE(QpdfClean(none));
    EXPECT_EQ(service->GetPageCount(Open(none)), 0);
}

}  // namespace
}  // namespace QuirelleTest
