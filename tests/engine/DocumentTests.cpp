// The engine document: opening (passwords, damaged files), permissions,
// page list edits, saving, clean-ups, image pages, fonts, and metadata read
// from other threads.

#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "engine/Context.h"
#include "engine/FontLoader.h"
#include "orvane/Exception.h"
#include "orvane/pdf/SystemFontProviderFactory.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using namespace DocumentSupport;
namespace fs = std::filesystem;
using Orvane::PDF::IBitmap;
using Method = EncryptionSpec::Method;
using Strings = std::vector<std::string>;

class DocumentTest : public EngineTest {
protected:
    fs::path Write(const PdfBuilder& builder, const std::string& name = "doc.pdf") {
        builder.Save(temp.File(name));
        return temp.File(name);
    }
    fs::path WriteBytes(const std::string& bytes, const std::string& name) {
        WriteFile(temp.File(name), bytes);
        return temp.File(name);
    }
    // Leftover temporary files of saves (their names start with a dot).
    int DotFiles() const {
        int count = 0;
        for (const auto& entry : fs::directory_iterator(temp.Path())) count += entry.path().filename().string()[0] == '.';
        return count;
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

// A damaged file gives a document whose pages can be asked for, or a
// runtime_error; never a crash or a hang.
void ExpectValueOrRuntimeError(const fs::path& path) {
    try {
        auto doc = OpenFile(path);
        for (unsigned i = 0; i < doc->GetPageCount(); ++i) {
            try {
                doc->GetPage(i);
            } catch (const std::exception&) {
            }
        }
    } catch (const std::runtime_error&) {
    }
}

TEST_F(DocumentTest, CreatesAndOpens) {
    auto created = NewDocument();
    EXPECT_EQ(created->GetPageCount(), 0u);
    EXPECT_TRUE(created->GetDocumentPath().empty());
    EXPECT_FALSE(created->IsProtected() || created->IsPrintProtected() || created->IsEditPagesProtected());

    const fs::path path = Write(PdfBuilder().AddNumberedPages(3), "três.pdf");
    auto opened = OpenFile(path);
    EXPECT_EQ(opened->GetDocumentPath(), Orvane::ioPath(path));
    EXPECT_EQ(Labels(*opened), (Strings{"Page 1", "Page 2", "Page 3"}));
    EXPECT_FALSE(opened->IsProtected());
}

TEST_F(DocumentTest, NonPdfFilesGiveRuntimeErrors) {
    std::string noise(4096, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char((i * 7919u + 13u) % 251u);
    for (const fs::path& path : {temp.File("missing.pdf"), fs::path(), temp.Path(), WriteBytes("", "empty.pdf"),
                                 WriteBytes("no PDF at all\n", "words.pdf"), WriteBytes(noise, "noise.pdf")}) {
        EXPECT_THROW(OpenFile(path), std::runtime_error) << path;
    }
}

TEST_F(DocumentTest, DamagedFilesEndInValueOrException) {
    const std::string good = PdfBuilder().AddNumberedPages(4).Build();
    ExpectValueOrRuntimeError(WriteBytes(good.substr(0, good.size() / 2), "half.pdf"));
    ExpectValueOrRuntimeError(WriteBytes(good.substr(0, 40), "head.pdf"));
    ExpectValueOrRuntimeError(WriteBytes(good.substr(0, good.rfind("xref")), "noxref.pdf"));
    const std::string page = "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>";
    ExpectValueOrRuntimeError(WriteBytes(
        HandMadePdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 2 /Kids [2 0 R 3 0 R] >>", page}),
        "loop.pdf"));
    ExpectValueOrRuntimeError(WriteBytes(
        HandMadePdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count -5 /Kids [3 0 R] >>", page}),
        "negative.pdf"));
    // A page count no file of three objects can hold.
    EXPECT_THROW(OpenFile(WriteBytes(HandMadePdf({"<< /Type /Catalog /Pages 2 0 R >>",
                                                  "<< /Type /Pages /Count 1410065407 /Kids [3 0 R] >>", page}),
                                     "absurd.pdf")),
                 std::runtime_error);

    // Every object moved: the broken cross-reference table is rebuilt.
    std::string shifted = good;
    shifted.insert(shifted.rfind('\n', shifted.find(" 0 obj")) + 1, "     ");
    auto repaired = OpenFile(WriteBytes(shifted, "shifted.pdf"));
    EXPECT_EQ(Labels(*repaired), (Strings{"Page 1", "Page 2", "Page 3", "Page 4"}));
}

TEST_F(DocumentTest, OpensOnlyWithUserOrOwnerPassword) {
    for (Method method : {Method::Rc4_40, Method::Aes128, Method::Aes256}) {
        SCOPED_TRACE(int(method));
        const fs::path path = Write(PdfBuilder().AddNumberedPages(2).Encrypt({"user", "owner", -4, method}));
        EXPECT_EQ(OpenError(path, ""), "PASSWORD_ERROR");
        EXPECT_EQ(OpenError(path, "wrong"), "PASSWORD_ERROR");
        EXPECT_EQ(Label(*OpenFile(path, "user"), 1), "Page 2");
        EXPECT_EQ(Label(*OpenFile(path, "owner"), 1), "Page 2");
    }

    // Without a user password the file opens anyway; a wrong password must
    // not spoil its key, and the owner password lifts the restrictions.
    const int32_t noPrinting = -4 & ~(1 << 2);
    const fs::path open = Write(PdfBuilder().AddNumberedPages(1).Encrypt({"", "owner", noPrinting, Method::Aes128}));
    for (const char* password : {"", "wrong"}) {
        auto doc = OpenFile(open, password);
        EXPECT_TRUE(doc->IsProtected());
        EXPECT_TRUE(doc->IsPrintProtected());
        EXPECT_EQ(Label(*doc, 0), "Page 1");
    }
    EXPECT_FALSE(OpenFile(open, "owner")->IsPrintProtected());
}

struct PermissionCase {
    const char* name;
    Method method;
    int32_t p;
    bool print, editContent, copy, editPages, extractPages, lowResolution;
};

class PermissionTest : public DocumentTest, public ::testing::WithParamInterface<PermissionCase> {};

constexpr int32_t Bit(int pdfBit) { return int32_t(1u << (pdfBit - 1)); }

TEST_P(PermissionTest, FollowsTheFilesBits) {
    const PermissionCase& c = GetParam();
    const fs::path path = Write(PdfBuilder().AddNumberedPages(1).Encrypt({"user", "owner", c.p, c.method}));
    auto doc = OpenFile(path, "user");
    EXPECT_TRUE(doc->IsProtected());
    EXPECT_EQ(doc->IsPrintProtected(), c.print);
    EXPECT_EQ(doc->IsEditContentProtected(), c.editContent);
    EXPECT_EQ(doc->IsCopyTextAndGraphicsProtected(), c.copy);
    EXPECT_EQ(doc->IsEditPagesProtected(), c.editPages);
    EXPECT_EQ(doc->IsExtractingPagesProtected(), c.extractPages);
    EXPECT_EQ(doc->IsPrintLowResolution(), c.lowResolution);

    auto owner = OpenFile(path, "owner");
    EXPECT_TRUE(owner->IsProtected());
    EXPECT_FALSE(owner->IsPrintProtected() || owner->IsEditContentProtected() ||
                 owner->IsCopyTextAndGraphicsProtected() || owner->IsEditPagesProtected() ||
                 owner->IsExtractingPagesProtected() || owner->IsPrintLowResolution());
}

INSTANTIATE_TEST_SUITE_P(
    Bits, PermissionTest,
    ::testing::Values(PermissionCase{"All", Method::Aes128, -4, false, false, false, false, false, false},
                      PermissionCase{"NoPrint", Method::Aes128, -4 & ~Bit(3), true, false, false, false, false, false},
                      PermissionCase{"LowRes", Method::Aes128, -4 & ~Bit(12), false, false, false, false, false, true},
                      PermissionCase{"NoEdit", Method::Aes128, -4 & ~Bit(4), false, true, false, false, false, false},
                      PermissionCase{"NoCopy", Method::Aes256, -4 & ~Bit(5), false, false, true, false, true, false},
                      PermissionCase{"NoAssembly", Method::Aes256, -4 & ~Bit(11), false, false, false, true, true, false},
                      PermissionCase{"R2NoEdit", Method::Rc4_40, -4 & ~Bit(4), false, true, false, true, false, false},
                      PermissionCase{"R2LowRes", Method::Rc4_40, -4 & ~Bit(12), false, false, false, false, false, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DocumentTest, PageListEdits) {
    auto doc = NewDocument();
    auto held = doc->CreatePage(0, 100, 50);
    doc->CreatePage(0, 200, 50);            // before the first
    doc->CreatePage(2, 300, 50);            // at the count: appended
    doc->CreatePage(1, 400, 50);            // in the middle
    doc->CreatePage(4000000000u, 500, 50);  // far past the end: appended
    std::vector<double> widths;
    for (int i = 0; i < 5; ++i) widths.push_back(MediaSize(*doc, i).first);
    EXPECT_EQ(widths, (std::vector<double>{200, 400, 100, 300, 500}));
    // Pages asked for after the list changed are the pages now at the index.
    EXPECT_DOUBLE_EQ(doc->GetPage(2)->GetSize().width, 100);
    EXPECT_DOUBLE_EQ(held->GetSize().width, 100);
    doc->DeletePage(2);
    EXPECT_DOUBLE_EQ(doc->GetPage(2)->GetSize().width, 300);

    EXPECT_THROW(doc->DeletePage(4), std::out_of_range);
    EXPECT_THROW(doc->GetPage(4), std::out_of_range);
    EXPECT_THROW(doc->CreatePage(0, 0, 100), std::invalid_argument);
    EXPECT_THROW(doc->CreatePage(0, 100, std::nan("")), std::invalid_argument);
    EXPECT_EQ(doc->GetPageCount(), 4u);
}

TEST_F(DocumentTest, SavesAndReopens) {
    const fs::path path = Write(PdfBuilder().AddNumberedPages(3));
    auto doc = OpenFile(path);
    doc->DeletePage(1);
    doc->Save(path, 0);  // over the file it was opened from
    EXPECT_EQ(Labels(*OpenFile(path)), (Strings{"Page 1", "Page 3"}));

    // The document still reads what it needs after its file was replaced.
    doc->CreatePage(2, 100, 100);
    EXPECT_EQ(Label(*doc, 1), "Page 3");
    const fs::path copy = temp.File("copy.pdf");
    doc->Save(copy, 0);
    EXPECT_EQ(Labels(*OpenFile(copy)), (Strings{"Page 1", "Page 3", ""}));
    EXPECT_TRUE(QpdfClean(path));
    EXPECT_TRUE(QpdfClean(copy));
    EXPECT_EQ(DotFiles(), 0);
}

TEST_F(DocumentTest, SaveDropsDeletedPagesAndKeepsEncryption) {
    PageSpec heavy;
    heavy.images.push_back({{0, 700, 600, 100}, 300, 300, 0x123456, std::nullopt});
    auto doc = OpenFile(Write(PdfBuilder().AddNumberedPages(1).AddPage(heavy)));
    doc->DeletePage(1);
    doc->Save(temp.File("light.pdf"), 0);
    EXPECT_EQ(CountObjects(temp.File("light.pdf")).images, 0);

    const fs::path secret = Write(PdfBuilder().AddNumberedPages(2).Encrypt({"u", "o", -4, Method::Aes256}), "s.pdf");
    auto encrypted = OpenFile(secret, "o");
    encrypted->DeletePage(0);
    encrypted->Save(secret, 0);
    EXPECT_EQ(OpenError(secret, ""), "PASSWORD_ERROR");
    EXPECT_EQ(Labels(*OpenFile(secret, "u")), (Strings{"Page 2"}));
}

TEST_F(DocumentTest, FailedSaveLeavesTargetUntouched) {
    const fs::path target = Write(PdfBuilder().AddNumberedPages(1), "target.pdf");
    const std::string before = ReadFile(target);
    auto doc = NewDocument();
    doc->CreatePage(0, 100, 100);
    fs::create_directory(temp.File("dir.pdf"));
    for (const fs::path& bad : {temp.File("no-such-dir") / "x.pdf", fs::path(), temp.File("dir.pdf")}) {
        EXPECT_THROW(doc->Save(bad, 0), Orvane::Exception) << bad;
    }
    EXPECT_TRUE(fs::is_directory(temp.File("dir.pdf")));

    // The write itself fails half-way: a file size limit below the output.
    auto noise = std::make_shared<TestBitmap>(256, 256, IBitmap::Bgrx);
    uint32_t seed = 12345;
    for (int i = 0; i < noise->GetStride() * 256; ++i) noise->GetBuffer()[i] = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
    doc->CreatePageFromImage(0, noise, 100, 100);
    struct rlimit old, small;
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    small = old;
    small.rlim_cur = 4096;
    const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_THROW(doc->Save(target, 0), Orvane::Exception);
    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, oldHandler);

    EXPECT_EQ(ReadFile(target), before);
    EXPECT_EQ(DotFiles(), 0);
}

TEST_F(DocumentTest, SaveKeepsModeFollowsLinksAndSetsVersion) {
    const fs::path real = Write(PdfBuilder().AddNumberedPages(2), "real.pdf");
    const fs::perms mode = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
    fs::permissions(real, mode);
    const fs::path link = temp.File("link.pdf");
    fs::create_symlink(real, link);
    auto doc = OpenFile(link);
    doc->DeletePage(0);
    doc->SaveWithVersion(link, 14, 0);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::status(real).permissions() & fs::perms::all, mode);
    EXPECT_EQ(ReadFile(real).substr(0, 8), "%PDF-1.4");
    EXPECT_EQ(OpenFile(real)->GetPageCount(), 1u);
    EXPECT_THROW(doc->SaveWithVersion(real, 3, 0), std::invalid_argument);
}

TEST_F(DocumentTest, FixupWritesInheritedAttributesIntoPages) {
    PageSpec page;
    page.width = 300;
    page.height = 200;
    page.rotate = 90;
    auto doc = OpenFile(Write(PdfBuilder().InheritAttributes().AddPage(page).AddPage(page)));
    ASSERT_FALSE(HasOwn(*doc, 1, "MediaBox") || HasOwn(*doc, 1, "Resources"));
    doc->FixupDocument();
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(HasOwn(*doc, i, "MediaBox") && HasOwn(*doc, i, "Resources") && HasOwn(*doc, i, "Rotate"));
    }
    EXPECT_EQ(MediaSize(*doc, 1), std::make_pair(300.0, 200.0));
}

TEST_F(DocumentTest, RemoveHiddenObjectsDropsOnlyNeverVisibleAnnotations) {
    PageSpec page;
    const Rect r{10, 50, 50, 10};
    // /F: 2 Hidden, 4 Print, 32 NoView, 256 ToggleNoView.
    for (auto [subtype, flags] : std::vector<std::pair<std::string, int>>{
             {"Square", 2}, {"Square", 32}, {"Square", 4}, {"Square", 36}, {"Circle", 288}, {"Widget", 2},
             {"Text", 6}, {"Square", 0}}) {
        page.annotations.push_back({subtype, r, flags});
    }
    auto doc = OpenFile(Write(PdfBuilder().AddPage(page)));
    doc->RemoveHiddenObjects();
    fz_context* ctx = Ctx(*doc);
    pdf_obj* annots = guarded(ctx, [&] { return pdf_dict_get(ctx, PageObject(*doc, 0), PDF_NAME(Annots)); });
    std::vector<int> kept;
    for (int i = 0; i < guarded(ctx, [&] { return pdf_array_len(ctx, annots); }); ++i) {
        kept.push_back(guarded(ctx, [&] { return pdf_dict_get_int(ctx, pdf_array_get(ctx, annots, i), PDF_NAME(F)); }));
    }
    EXPECT_EQ(kept, (std::vector<int>{4, 36, 288, 2, 0}));
}

TEST_F(DocumentTest, ImagePagesKeepPixelsAndAlpha) {
    auto doc = NewDocument();
    doc->CreatePage(0, 100, 100);
    doc->CreatePageFromImage(0, std::make_shared<TestBitmap>(4, 3, IBitmap::Bgra, 0x1080F080), 400, 300);
    doc->CreatePageFromImage(99, std::make_shared<TestBitmap>(5, 5, IBitmap::Bgrx, 0x0000FF00), 50, 60);
    EXPECT_EQ(MediaSize(*doc, 0), std::make_pair(400.0, 300.0));
    EXPECT_EQ(MediaSize(*doc, 2), std::make_pair(50.0, 60.0));

    const fs::path path = temp.File("images.pdf");
    doc->Save(path, 0);
    EXPECT_TRUE(QpdfClean(path));
    const FileObjects objects = CountObjects(path);
    EXPECT_EQ(objects.images, 3);  // two pictures, one soft mask
    EXPECT_EQ(objects.imagesWithSMask, 1);
    EXPECT_EQ(objects.unfilteredImages, 0);

    // The picture, drawn over the whole page, has the bitmap's colour as RGB.
    auto reopened = OpenFile(path);
    fz_context* ctx = Ctx(*reopened);
    Orvane::PDF::Pdfium::PageHandle page(
        ctx, guarded(ctx, [&] { return fz_load_page(ctx, &reopened->Core()->doc->super, 0); }));
    Orvane::PDF::Pdfium::PixmapHandle pixels(ctx, guarded(ctx, [&] {
        return fz_new_pixmap_from_page(ctx, page.get(), fz_identity, fz_device_rgb(ctx), 0);
    }));
    ASSERT_EQ(pixels.get()->w, 400);
    const unsigned char* p = pixels.get()->samples + 150 * pixels.get()->stride + 200 * 3;
    // 50% of R F0 G 80 B 10 over white.
    EXPECT_NEAR(p[0], 0xF7, 3);
    EXPECT_NEAR(p[1], 0xBF, 3);
    EXPECT_NEAR(p[2], 0x87, 3);

    auto narrow = std::make_shared<TestBitmap>(10, 10, IBitmap::Bgra);
    narrow->SetStride(20);
    EXPECT_THROW(doc->CreatePageFromImage(0, narrow, 100, 100), std::invalid_argument);
    EXPECT_THROW(doc->CreatePageFromImage(0, nullptr, 100, 100), std::invalid_argument);
    EXPECT_THROW(doc->CreatePageFromImage(0, std::make_shared<TestBitmap>(10, 10, IBitmap::Unknown), 100, 100),
                 std::invalid_argument);
    EXPECT_THROW(doc->CreatePageFromImage(0, std::make_shared<TestBitmap>(0, 10, IBitmap::Bgra), 100, 100),
                 std::invalid_argument);
    EXPECT_EQ(doc->GetPageCount(), 3u);
}

TEST_F(DocumentTest, MetadataIsReadableWhileTheDocumentChanges) {
    auto doc = NewDocument();
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
    auto provider = Orvane::PDF::SystemFontProviderFactory().CreateFontProvider();
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

class FixedFonts : public Orvane::PDF::IFontProvider {
public:
    explicit FixedFonts(std::string file) : file_(std::move(file)) {}
    std::string FindFontFile(const std::string&, bool, bool) const override {
        if (file_ == "throw") throw std::runtime_error("provider failed");
        return file_;
    }

private:
    std::string file_;
};

TEST_F(DocumentTest, EngineAsksTheThreadsProviderForFonts) {
    fz_context* ctx = Orvane::PDF::Pdfium::CurrentContext();
    auto loads = [&](const std::string& file) {
        FixedFonts fonts(file);
        Orvane::PDF::Pdfium::ScopedFontProvider scope(file.empty() ? nullptr : &fonts);
        return bool(Orvane::PDF::Pdfium::FontHandle(
            ctx, guarded(ctx, [&] { return fz_load_system_font(ctx, "SomeFont", 0, 0, 0); })));
    };
    EXPECT_FALSE(loads(""));
    EXPECT_FALSE(loads(temp.File("none.ttf").string()));
    EXPECT_FALSE(loads("throw"));
    const std::string dejaVu = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
    if (fs::exists(dejaVu)) {
        EXPECT_TRUE(loads(dejaVu));
    }
}

}  // namespace
}  // namespace QuirelleTest
