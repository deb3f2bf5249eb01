// Small hand-made files that once hung, crashed or held the engine: each must
// now end in a value or an Orvane::Exception, and leave its document usable.

#include <QImage>
#include <chrono>
#include <string>
#include <vector>

#include "engine/Context.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"
#include "orvane/pdf/EngineLimits.h"
#include "tests/engine/DocumentTestSupport.h"
#include "tests/support/DamagedPdf.h"
#include "tests/support/EngineTest.h"
#include "tests/support/HostilePdf.h"

namespace QuirelleTest {
namespace {

using namespace Orvane::PDF;

const std::string kCatalog = "<< /Type /Catalog /Pages 2 0 R >>";

std::string Ref(size_t number) {
    return std::to_string(number) + " 0 R";
}

// One 200 x 200 page (object 3) with the given resources and content; extra
// objects follow from number 5.
std::vector<std::string> OnePage(const std::string& resources, const std::string& content) {
    return {kCatalog, "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Resources " + resources + " /Contents 4 0 R >>",
            RawStream("", content)};
}

class HostileFiles : public FileTest {
protected:
    using FileTest::Open;
    std::shared_ptr<Pdfium::PdfDocument> Open(const std::vector<std::string>& objects) { return Open(RawPdf(objects)); }
    // Renders page 0 at 100 x 100; false when the renderer threw.
    static bool Renders(const std::shared_ptr<Pdfium::PdfDocument>& document) {
        try {
            QuirelleTest::Render(document->GetPage(0), 100, 100);
            return true;
        } catch (const Orvane::Exception&) {
            return false;
        }
    }
};

TEST_F(HostileFiles, PageTreeWhoseParentsLoopIsEditedOrRefusedInsteadOfHanging) {
    // The page carries everything it could inherit, so it opens and renders.
    const std::string page =
        "<< /Type /Page /Parent 5 0 R /MediaBox [0 0 200 200] /CropBox [0 0 200 200] /Rotate 0 /Resources << >> "
        "/Contents 4 0 R >>";
    const std::string content = RawStream("", "0 0 1 rg 10 10 50 50 re f");
    // The root's /Parent leads to a node whose /Parent is the root again:
    // the edits stop at the root and work.
    auto document = Open({kCatalog, "<< /Type /Pages /Kids [5 0 R] /Count 1 /Parent 6 0 R >>", page, content,
                          "<< /Type /Pages /Kids [3 0 R] /Count 1 /Parent 2 0 R >>",
                          "<< /Type /Pages /Kids [] /Count 0 /Parent 2 0 R >>"});
    document->CreatePage(1, 100, 100);
    document->DeletePage(0);
    EXPECT_EQ(document->GetPageCount(), 1u);
    // Below the root two nodes name each other as /Parent: refused.
    document = Open({kCatalog, "<< /Type /Pages /Kids [5 0 R] /Count 1 >>", page, content,
                     "<< /Type /Pages /Kids [3 0 R] /Count 1 /Parent 6 0 R >>",
                     "<< /Type /Pages /Kids [] /Count 0 /Parent 5 0 R >>"});
    EXPECT_THROW(document->CreatePage(1, 100, 100), Orvane::Exception);
    EXPECT_THROW(document->DeletePage(0), Orvane::Exception);
    EXPECT_EQ(document->GetPageCount(), 1u);
    EXPECT_TRUE(Renders(document));
}

TEST_F(HostileFiles, ReferencesNestedTooDeepAreRefusedByImportAndSaveAndLeaveTheSourceWorking) {
    constexpr size_t kDepth = 100000;
    std::vector<std::string> objects = OnePage("<< /Properties << /P 5 0 R >> >>", "0 0 1 rg 10 10 50 50 re f");
    for (size_t i = 0; i < kDepth; ++i) objects.push_back("[" + Ref(objects.size() + 2) + "]");
    objects.push_back("[]");
    auto source = Open(objects);
    auto importer = Pdfium::CreatePageImporter();
    auto exported = std::make_shared<Pdfium::PdfDocument>(nullptr);
    EXPECT_THROW(importer->ImportPages(source, {0}, exported, 0), Orvane::Exception);
    EXPECT_THROW(importer->ImportAllPages(source, exported, 0), Orvane::Exception);
    EXPECT_EQ(exported->GetPageCount(), 0u);
    EXPECT_THROW(source->Save(temp.File("deep.pdf").string(), 0), Orvane::Exception);
    source->CreatePage(1, 100, 100);
    EXPECT_EQ(source->GetPageCount(), 2u);
    EXPECT_TRUE(Renders(source));
}

TEST_F(HostileFiles, ExponentiallyNestedFormsEndWithinTheBudget) {
    // Form i draws form i + 1 twice: 2^30 draws of the last one.
    std::vector<std::string> objects = OnePage("<< /XObject << /F 5 0 R >> >>", "/F Do");
    for (int i = 0; i < 30; ++i) {
        const std::string next = Ref(objects.size() + 2);
        objects.push_back(RawStream("/Type /XObject /Subtype /Form /BBox [0 0 200 200] /Resources << /XObject << /F " +
                                        next + " >> >>",
                                    "/F Do /F Do"));
    }
    objects.push_back(RawStream("/Type /XObject /Subtype /Form /BBox [0 0 200 200]", "0 0 1 1 re f"));
    auto document = Open(objects);
    SetTimeBudget(std::chrono::milliseconds(200));
    EXPECT_FALSE(Renders(document));
    EXPECT_THROW(document->GetPage(0)->GetTextObject(), Orvane::Exception);
    EXPECT_THROW(document->GetPage(0)->GetObjectCount(), Orvane::Exception);
    SetEngineLimits(saved);
    EXPECT_EQ(document->GetPage(0)->GetSize().width, 200);
}

TEST_F(HostileFiles, DecompressionBombsEndQuicklyWithinTheMemoryCap) {
    // 1.6 GB in a few kilobytes, flate over flate: as an image (left out of
    // the picture) and as the page's content (refused past the block limit).
    const std::string bomb = Deflate(DeflatedZeros(size_t(40000) * 40000));
    EXPECT_LT(bomb.size(), 200u * 1024);
    std::vector<std::string> objects = OnePage("<< /XObject << /I 5 0 R >> >>", "q 200 0 0 200 0 0 cm /I Do Q");
    objects.push_back(RawStream("/Type /XObject /Subtype /Image /Width 40000 /Height 40000 /ColorSpace /DeviceGray "
                                "/BitsPerComponent 8 /Filter [/FlateDecode /FlateDecode]",
                                bomb));
    EXPECT_TRUE(Renders(Open(objects)));
    objects.resize(3);
    objects.push_back(RawStream("/Filter [/FlateDecode /FlateDecode]", bomb));
    auto content = Open(objects);
    SetTimeBudget(std::chrono::milliseconds(300));
    EXPECT_FALSE(Renders(content));
    EXPECT_THROW(content->GetPage(0)->GetTextObject(), Orvane::Exception);
    EXPECT_LT(Pdfium::MemoryInUse(), Pdfium::kDefaultBlockLimit);
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(HostileFiles, DamagedFilesOpenWithThePagesTheyHoldAndSaveClean) {
    for (const DamagedPdf& damaged : DamagedPdfs()) {
        SCOPED_TRACE(damaged.name);
        const auto start = std::chrono::steady_clock::now();
        auto document = Open(damaged.bytes);
        EXPECT_LT(SecondsSince(start), 1.0);
        ASSERT_EQ(document->GetPageCount(), unsigned(damaged.pages));
        for (int i = 0; i < damaged.pages; ++i) EXPECT_EQ(document->GetPage(unsigned(i))->GetSize().width, 200);
        EXPECT_TRUE(Renders(document));
        const auto saved = temp.File("saved.pdf");
        document->Save(saved.string(), 0);
        EXPECT_TRUE(QpdfClean(saved));
        EXPECT_EQ(OpenFile(saved)->GetPageCount(), unsigned(damaged.pages));
    }
}

TEST_F(HostileFiles, APageListedFiftyThousandTimesIsAPageEachTimeAndEditsTouchOneListing) {
    std::string kids;
    for (int i = 0; i < 50000; ++i) kids += "3 0 R ";
    const auto start = std::chrono::steady_clock::now();
    auto document = Open({kCatalog, "<< /Type /Pages /Kids [" + kids + "] /Count 50000 >>",
                          "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 4 0 R >>",
                          RawStream("", "0 0 1 rg 10 10 50 50 re f")});
    EXPECT_LT(SecondsSince(start), 2.0);
    ASSERT_EQ(document->GetPageCount(), 50000u);
    document->GetPage(1)->SetRotation(IPage::Rotate90);
    EXPECT_EQ(document->GetPage(0)->GetRotation(), IPage::Rotate0);
    EXPECT_EQ(document->GetPage(2)->GetRotation(), IPage::Rotate0);
    document->DeletePage(0);
    EXPECT_EQ(document->GetPageCount(), 49999u);
    EXPECT_EQ(document->GetPage(0)->GetRotation(), IPage::Rotate90);
    EXPECT_TRUE(Renders(document));
    const auto saved = temp.File("listed.pdf");
    document->Save(saved.string(), 0);
    EXPECT_TRUE(QpdfClean(saved));
    EXPECT_EQ(OpenFile(saved)->GetPageCount(), 49999u);
}

TEST_F(HostileFiles, ABudgetThatEndsWhileOpeningIsReportedAsTheBudget) {
    // Thousands of pages without a cross-reference table: rebuilding it
    // takes far longer than the budget.
    std::string kids;
    std::vector<std::string> objects = {kCatalog, ""};
    for (int i = 0; i < 20000; ++i) {
        kids += Ref(objects.size() + 1) + " ";
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] >>");
    }
    objects[1] = "<< /Type /Pages /Kids [" + kids + "] /Count 20000 >>";
    const auto path = temp.File("budget.pdf");
    WriteFile(path, WithoutXref(RawPdf(objects)));
    SetTimeBudget(std::chrono::milliseconds(1));
    try {
        Pdfium::PdfDocument document(nullptr, path.string(), "");
        ADD_FAILURE() << "opened with " << document.GetPageCount() << " pages";
    } catch (const Orvane::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("time budget"), std::string::npos) << e.what();
    }
    SetEngineLimits(saved);
    EXPECT_EQ(Pdfium::PdfDocument(nullptr, path.string(), "").GetPageCount(), 20000u);
}

}  // namespace
}  // namespace QuirelleTest
