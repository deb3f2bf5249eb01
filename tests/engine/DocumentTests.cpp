// The engine document: opening (passwords, damaged files), permissions, the
// page list, saving, image pages, metadata read from other threads and system fonts.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "engine/Annotations.h"
#include "orvane/Exception.h"
#include "orvane/pdf/SystemFontProviderFactory.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

namespace fs = std::filesystem;
using Method = Encryption::Method;

class DocumentTest : public FileTest {
protected:
    fs::path Write(const PdfBuilder& builder, const std::string& name = "doc.pdf") {
        builder.Save(temp.File(name));
        return temp.File(name);
    }
};

std::string OpenError(const fs::path& path, const std::string& password) {
    try {
        OpenFile(path, password);
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "opened";
}

TEST_F(DocumentTest, DamagedFilesGiveARuntimeErrorOrADocumentWhosePagesLoad) {
    const std::string good = PdfBuilder().AddNumberedPages(4).Build();
    std::string noise(4096, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char((i * 7919u + 13u) % 251u);
    struct Case {
        std::string bytes;
        bool notAPdf;
    };
    for (const Case& c : std::vector<Case>{
             {"", true},
             {"no PDF at all\n", true},
             {noise, true},
             {good.substr(0, 40), false},
             {RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count -5 /Kids [3 0 R] >>",
                      "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>"}),
              false}}) {
        try {
            auto doc = Open(c.bytes);
            EXPECT_FALSE(c.notAPdf) << c.bytes.substr(0, 60);
            for (unsigned i = 0; i < doc->GetPageCount(); ++i) {
                try {
                    doc->GetPage(i)->GetTextObject();
                } catch (const std::exception&) {
                }
            }
        } catch (const std::runtime_error&) {
        }
    }
    EXPECT_THROW(OpenFile(temp.File("missing.pdf")), std::runtime_error);
    EXPECT_THROW(OpenFile(temp.Path()), std::runtime_error);
    // Files damaged the ways files get damaged are in the hostile-file tests.
}

// Print, edit content, copy, edit pages, extract pages, low resolution.
using Restrictions = std::array<bool, 6>;

Restrictions RestrictionsOf(const IDocument& d) {
    return {d.IsPrintProtected(),     d.IsEditContentProtected(),     d.IsCopyTextAndGraphicsProtected(),
            d.IsEditPagesProtected(), d.IsExtractingPagesProtected(), d.IsPrintLowResolution()};
}

// Every method opens only with the user or the owner password; the user's
// access follows the file's bits, the owner's is unrestricted.
TEST_F(DocumentTest, OpensOnlyWithAPasswordAndUserAccessFollowsTheFilesBits) {
    auto bit = [](int pdfBit) { return int32_t(1u << (pdfBit - 1)); };
    const struct {
        Method method;
        int32_t p;
        Restrictions user;
    } cases[] = {{Method::Rc4_128, -4, {false, false, false, false, false, false}},
                 {Method::Aes128, -4, {false, false, false, false, false, false}},
                 {Method::Aes128, -4 & ~bit(3), {true, false, false, false, false, false}},
                 {Method::Aes128, -4 & ~bit(12), {false, false, false, false, false, true}},
                 {Method::Aes128, -4 & ~bit(4), {false, true, false, false, false, false}},
                 {Method::Aes256, -4 & ~bit(5), {false, false, true, false, true, false}},
                 {Method::Aes256, -4 & ~bit(11), {false, false, false, true, true, false}},
                 {Method::Rc4_40, -4 & ~bit(4), {false, true, false, true, false, false}},  // revision 2
                 {Method::Rc4_40, -4 & ~bit(12), {false, false, false, false, false, false}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.p);
        const fs::path path = Write(PdfBuilder().AddNumberedPages(2).Encrypt({"user", "owner", c.p, c.method}));
        EXPECT_EQ(OpenError(path, ""), "PASSWORD_ERROR");
        EXPECT_EQ(OpenError(path, "wrong"), "PASSWORD_ERROR");
        auto user = OpenFile(path, "user"), owner = OpenFile(path, "owner");
        EXPECT_EQ(Labels(*user), (Strings{"Page 1", "Page 2"}));
        EXPECT_EQ(Labels(*owner), (Strings{"Page 1", "Page 2"}));
        EXPECT_TRUE(user->IsProtected() && owner->IsProtected());
        EXPECT_EQ(RestrictionsOf(*user), c.user);
        EXPECT_EQ(RestrictionsOf(*owner), Restrictions{});
    }

    // Without a user password the file opens anyway; a wrong password must
    // not spoil its key, and the owner password lifts the restrictions.
    const fs::path open = Write(PdfBuilder().AddNumberedPages(1).Encrypt({"", "owner", -4 & ~(1 << 2)}));
    for (const char* password : {"", "wrong"}) {
        auto doc = OpenFile(open, password);
        EXPECT_TRUE(doc->IsPrintProtected());
        EXPECT_EQ(Labels(*doc), (Strings{"Page 1"}));
    }
    EXPECT_FALSE(OpenFile(open, "owner")->IsPrintProtected());
}

std::vector<double> Widths(const IDocument& doc) {
    std::vector<double> widths;
    for (unsigned i = 0; i < doc.GetPageCount(); ++i) widths.push_back(doc.GetPage(i)->GetSize().width);
    return widths;
}

TEST_F(DocumentTest, GetPageAnswersThePageNowAtTheIndexAfterEdits) {
    auto doc = std::make_shared<Pdfium::PdfDocument>(nullptr);
    auto held = doc->CreatePage(0, 100, 50);  // held pages keep MuPDF's record of their number
    doc->CreatePage(0, 200, 50);              // before the first
    doc->CreatePage(2, 300, 50);              // at the count: appended
    doc->CreatePage(1, 400, 50);              // in the middle
    doc->CreatePage(4000000000u, 500, 50);    // far past the end: appended
    auto fourth = doc->GetPage(3);
    EXPECT_EQ(Widths(*doc), (std::vector<double>{200, 400, 100, 300, 500}));
    doc->DeletePage(0);
    EXPECT_EQ(Widths(*doc), (std::vector<double>{400, 100, 300, 500}));
    EXPECT_DOUBLE_EQ(held->GetSize().width, 100);
    EXPECT_THROW(doc->GetPage(4), std::out_of_range);
    EXPECT_THROW(doc->DeletePage(4), std::out_of_range);
    EXPECT_THROW(doc->CreatePage(0, 0, 100), std::invalid_argument);

    // Edits made on the MuPDF document directly, past PdfDocument (as the importer does).
    const auto core = doc->Core();
    guarded(core->ctx, [&] { pdf_delete_page(core->ctx, core->doc, 0); });
    const double widths[] = {100, 300, 500};
    for (unsigned i : {1u, 0u, 2u}) EXPECT_DOUBLE_EQ(Pdfium::MakePage(core, i)->GetSize().width, widths[i]) << i;
    EXPECT_THROW(Pdfium::MakePage(core, 3), std::out_of_range);
}

TEST_F(DocumentTest, OpensAndSavesOverItsOwnFileKeepingItsPermissions) {
    const fs::path path = Write(PdfBuilder().AddNumberedPages(3), "três.pdf");
    auto doc = OpenFile(path);
    EXPECT_EQ(doc->GetDocumentPath(), Orvane::ioPath(path));
    EXPECT_FALSE(doc->IsProtected());
    doc->DeletePage(1);
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    doc->Save(path, 0);
    EXPECT_EQ(Labels(*OpenFile(path)), (Strings{"Page 1", "Page 3"}));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    // The document still reads what it needs after its file was replaced.
    doc->CreatePage(2, 100, 100);
    const fs::path copy = temp.File("copy.pdf");
    doc->Save(copy, 0);
    EXPECT_EQ(Labels(*OpenFile(copy)), (Strings{"Page 1", "Page 3", ""}));
    EXPECT_TRUE(QpdfClean(path) && QpdfClean(copy));
    for (const auto& entry : fs::directory_iterator(temp.Path())) EXPECT_NE(entry.path().filename().string()[0], '.');
}

TEST_F(DocumentTest, RemoveHiddenObjectsDropsOnlyNeverVisibleAnnotations) {
    PageLayout page;
    // /F: 2 Hidden, 4 Print, 32 NoView, 256 ToggleNoView; a hidden form field stays.
    const std::pair<const char*, int> annotations[] = {{"Square", 2}, {"Circle", 32}, {"Line", 4}, {"Polygon", 36},
                                                       {"Ink", 288},  {"Widget", 2},  {"Text", 6}, {"Stamp", 0}};
    for (auto [subtype, flags] : annotations) page.annotations.push_back({subtype, Rect{10, 50, 50, 10}, flags});
    auto doc = Open(PdfBuilder().AddPage(page));
    // A note the user made, hidden afterwards (as a form script or another tool might): it stays.
    NewAnnotation note;
    note.type = AnnotText;
    note.at = {100, 100};
    const int64_t made = Pdfium::CreateAnnotation(*doc, 0, note);
    fz_context* ctx = doc->Core()->ctx;
    pdf_obj* obj = guarded(ctx, [&] { return pdf_load_object(ctx, doc->Core()->doc, int(made)); });
    guarded(ctx, [&] { pdf_dict_put_int(ctx, obj, PDF_NAME(F), 2); });
    pdf_drop_obj(ctx, obj);
    doc->RemoveHiddenObjects();
    std::vector<int> kept;
    for (const auto& annotation : doc->GetPage(0)->GetAllAnnotations()) kept.push_back(annotation->GetType());
    EXPECT_EQ(kept, (std::vector<int>{IAnnotation::Line, IAnnotation::Polygon, IAnnotation::Ink, IAnnotation::Widget,
                                      IAnnotation::Stamp, IAnnotation::Text, IAnnotation::Popup}));
    // A Hide action or a script could show a hidden one: nothing goes.
    for (const std::string shower : {"<< /S /Hide /T 4 0 R /H false >>", "<< /S /JavaScript /JS (show()) >>"}) {
        const auto path = temp.File("shows.pdf");
        WriteFile(path, RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R 5 0 R] >>",
                                "<< /Type /Annot /Subtype /Square /Rect [10 10 50 50] /F 2 >>",
                                "<< /Type /Annot /Subtype /Link /Rect [60 60 90 90] /A " + shower + " >>"}));
        auto shows = OpenFile(path);
        shows->RemoveHiddenObjects();
        EXPECT_EQ(shows->GetPage(0)->GetAllAnnotations().size(), 2u) << shower;
    }
}

TEST_F(DocumentTest, ImagePagesKeepTheirAlphaThroughSavingAndCoverPagesOfAnySize) {
    QImage picture(4, 2, QImage::Format_ARGB32);
    picture.fill(qRgba(0xF0, 0x80, 0x10, 0x80));
    for (int x = 0; x < 4; ++x) picture.setPixel(x, 0, qRgba(0, 0, 0xFF, 0xFF));  // opaque top row
    auto doc = std::make_shared<Pdfium::PdfDocument>(nullptr);
    doc->CreatePage(0, 100, 100);
    doc->CreatePageFromImage(0, Util::CreateBitmapFromQImage(picture), 400, 200);
    EXPECT_THROW(doc->CreatePageFromImage(0, nullptr, 100, 100), std::invalid_argument);

    const fs::path path = temp.File("images.pdf");
    doc->Save(path, 0);
    EXPECT_TRUE(QpdfClean(path));
    EXPECT_EQ(CountObjects(path, "Image"), 2);  // the picture and its soft mask
    auto reopened = OpenFile(path);
    ASSERT_EQ(reopened->GetPageCount(), 2u);
    EXPECT_DOUBLE_EQ(reopened->GetPage(0)->GetSize().width, 400);
    const Picture pixels(reopened->GetPage(0), 40, 20);
    EXPECT_EQ(pixels.At(20, 2), kBlue);
    // 50% of R F0 G 80 B 10 over white.
    const uint32_t half = pixels.At(20, 15);
    EXPECT_NEAR(int(half >> 16 & 0xFF), 0xF7, 3);
    EXPECT_NEAR(int(half >> 8 & 0xFF), 0xBF, 3);
    EXPECT_NEAR(int(half & 0xFF), 0x87, 3);
    // Pages of extreme sizes: the picture still covers the page.
    for (double side : {2e6, 5e-5}) {
        doc->CreatePageFromImage(0, Util::CreateBitmapFromQImage(picture), side, side);
        EXPECT_NEAR(doc->GetPage(0)->GetObject(0)->GetBounds().right, side, side * 1e-6);
    }
}

TEST_F(DocumentTest, MetadataIsReadableWhileTheDocumentChanges) {
    auto doc = std::make_shared<Pdfium::PdfDocument>(nullptr);
    std::atomic<bool> done{false};
    std::atomic<unsigned> highest{0};
    std::thread reader([&] {
        while (!done.load()) {
            highest = std::max(highest.load(), doc->GetPageCount());
            (void)doc->IsProtected();
            (void)doc->IsPrintLowResolution();
            (void)doc->GetDocumentPath();
            doc->SetFormOnChangeHandler([] {});
        }
    });
    for (int i = 0; i < 60; ++i) doc->CreatePage(0, 100 + i, 100);
    for (int i = 0; i < 30; ++i) doc->DeletePage(0);
    doc->SetDocumentPath(temp.File("x.pdf"));
    done = true;
    reader.join();
    EXPECT_EQ(doc->GetPageCount(), 30u);
    EXPECT_LE(highest.load(), 60u);
}

TEST_F(DocumentTest, SystemFontsMatchOnlyTheirOwnFamily) {
    auto provider = SystemFontProviderFactory().CreateFontProvider();
    auto file = [&](const char* family, bool bold = false, bool italic = false) {
        return fs::path(provider->FindFontFile(family, bold, italic)).filename().string();
    };
    if (file("DejaVuSans").empty()) GTEST_SKIP() << "DejaVu fonts are not installed";
    EXPECT_EQ(file("ABCDEF+DejaVuSans-Bold"), "DejaVuSans-Bold.ttf");
    EXPECT_EQ(file("DejaVu Sans,Italic"), "DejaVuSans-Oblique.ttf");
    EXPECT_EQ(file("DejaVu Sans", true, true), "DejaVuSans-BoldOblique.ttf");
    // fontconfig offers a look-alike for these; MuPDF's own fonts are better.
    EXPECT_EQ(file("Helvetica"), "");
    EXPECT_EQ(file("QuirelleNoSuchFont-Bold"), "");
}

}  // namespace
}  // namespace QuirelleTest
