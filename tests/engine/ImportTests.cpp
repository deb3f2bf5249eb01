// The page importer: order, duplicates, insertion points, importing within
// one document and shared resources; results are saved, checked and reopened.

#include <gtest/gtest.h>

#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using Pdfium::CreatePageImporter;

class ImportTest : public FileTest {
protected:
    // A document of one page per label, each showing its label.
    std::shared_ptr<IDocument> Labelled(const Strings& labels) {
        PdfBuilder builder;
        for (const std::string& label : labels) {
            PageLayout page;
            page.text.push_back({72, 720, 12, label});
            builder.AddPage(page);
        }
        return Open(builder);
    }
    // Saves the document, checks the file with qpdf and reopens it.
    std::shared_ptr<IDocument> Reopened(IDocument& document) {
        const auto path = temp.File("saved" + std::to_string(saved_++) + ".pdf");
        document.Save(path, 0);
        EXPECT_TRUE(QpdfClean(path));
        return OpenFile(path);
    }

private:
    int saved_ = 0;
};

TEST_F(ImportTest, CopiesListedPagesInOrderWithDuplicatesAtTheInsertionPointAlsoWithinADocument) {
    PageLayout wide;
    wide.width = 400;
    wide.height = 250;
    wide.rotate = 270;
    wide.text.push_back({72, 200, 12, "W"});
    // The first page's size and rotation go to the page tree's root: it inherits them.
    auto source = Open(PdfBuilder().InheritAttributes().AddPage(wide).AddNumberedPages(3));
    for (auto [index, expected] : std::vector<std::pair<int, Strings>>{{1, {"A", "W", "Page 4", "W", "B"}},
                                                                       {0, {"W", "Page 4", "W", "A", "B"}},
                                                                       {2, {"A", "B", "W", "Page 4", "W"}},
                                                                       {1000, {"A", "B", "W", "Page 4", "W"}},
                                                                       {-1, {"A", "B", "W", "Page 4", "W"}}}) {
        SCOPED_TRACE(index);
        auto target = Labelled({"A", "B"});
        CreatePageImporter()->ImportPages(source, {0, 3, 0}, target, index);
        EXPECT_EQ(Labels(*target), expected);
        EXPECT_EQ(Labels(*Reopened(*target)), expected);
    }
    EXPECT_EQ(source->GetPageCount(), 4u);

    // The copies carry what their pages inherited, and survive deletions.
    auto target = Labelled({"A"});
    CreatePageImporter()->ImportPages(source, {0, 3}, target, -1);
    target->DeletePage(0);
    auto reopened = Reopened(*target);
    EXPECT_EQ(Labels(*reopened), (Strings{"W", "Page 4"}));
    EXPECT_EQ(reopened->GetPage(0)->GetRotation(), IPage::Rotate270);
    EXPECT_DOUBLE_EQ(reopened->GetPage(0)->GetSize().height, 400);

    // Within one document the copies are pages of their own: deleting an original keeps them.
    CreatePageImporter()->ImportPages(source, {0, 3}, source, 1);
    CreatePageImporter()->ImportAllPages(source, source, -1);
    source->DeletePage(0);
    EXPECT_EQ(Labels(*Reopened(*source)),
              (Strings{"W", "Page 4", "Page 2", "Page 3", "Page 4", "W", "W", "Page 4", "Page 2", "Page 3", "Page 4"}));
}

TEST_F(ImportTest, SharedResourcesArriveOncePerCall) {
    PageLayout withImage;
    withImage.images.push_back({{100, 500, 300, 300}, 16, 16, 0x00FF00, 200});
    // All pages of a file whose pages inherit their resources, or a list with
    // a page twice (as an export takes them) from one whose pages hold their own.
    for (bool all : {true, false}) {
        auto source = Open(PdfBuilder().InheritAttributes(all).AddNumberedPages(19).AddPage(withImage));
        auto target = std::make_shared<Pdfium::PdfDocument>(nullptr);
        if (all) {
            CreatePageImporter()->ImportAllPages(source, target, 0);
        } else {
            CreatePageImporter()->ImportPages(source, {19, 3, 19, 0}, target, 0);
        }
        const auto path = temp.File(all ? "all.pdf" : "listed.pdf");
        target->Save(path, 0);
        EXPECT_EQ(CountObjects(path, "Font"), 1);
        EXPECT_EQ(CountObjects(path, "Image"), 2);  // the picture and its soft mask
        EXPECT_EQ(CountObjects(path, "Page"), all ? 20 : 4);
    }
}

TEST_F(ImportTest, AnnotationsNeverBringOtherPagesAlongAndNamedLinksResolveThroughTheNamesTree) {
    // Page 0's annotations act on page 1 through /AA and a /Next chain:
    // a copy of page 0 alone must not carry page 1.
    const std::string action = "<< /S /GoTo /D [6 0 R /Fit] >>";
    const std::string annot = "<< /Type /Annot /Subtype /Square /Rect [10 10 50 50] ";
    const auto path = temp.File("actions.pdf");
    WriteFile(path, RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R 6 0 R] /Count 2 >>",
                            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [7 0 R 8 0 R 9 0 R] >>",
                            "", RawStream("", "1 0 0 rg 0 0 200 200 re f"),
                            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 5 0 R >>",
                            annot + "/AA << /E " + action + " >> >>", annot + "/AA << /X " + action + " >> >>",
                            annot + "/A << /S /URI /URI (x) /Next " + action + " >> >>"}));
    auto exported = std::make_shared<Pdfium::PdfDocument>(nullptr);
    CreatePageImporter()->ImportPages(OpenFile(path), {0}, exported, 0);
    const auto saved = temp.File("exported.pdf");
    exported->Save(saved, 0);
    EXPECT_EQ(CountObjects(saved, "Page"), 1);

    // A file may have /Dests and a /Names tree; the link's name is in the tree.
    LinkLayout link;
    link.rect = {10, 50, 50, 10};
    link.namedDestination = "there";
    PageLayout first;
    first.links.push_back(link);
    auto source = Open(PdfBuilder()
                           .AddPage(first)
                           .AddNumberedPages(1)
                           .AddNamedDestination("there", 1, 0, 0, true)
                           .AddNamedDestination("elsewhere", 0, 0, 0, false));
    auto target = std::make_shared<Pdfium::PdfDocument>(nullptr);
    CreatePageImporter()->ImportAllPages(source, target, 0);
    const auto links = target->GetPage(0)->GetAnnotations(IAnnotation::Link);
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(dynamic_cast<ILinkAnnotation&>(*links[0]).GetDestination().pageIndex, 1);
}

}  // namespace
}  // namespace QuirelleTest
