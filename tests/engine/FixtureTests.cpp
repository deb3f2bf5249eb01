// The test fixture builder: the files it writes hold what other tests assume,
// read back through MuPDF directly and checked by qpdf.

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

#include <gtest/gtest.h>

#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "tests/support/PdfBuilder.h"

using namespace QuirelleTest;
using namespace Orvane::PDF::Pdfium;

namespace {

// One file opened with a MuPDF context of its own.
class Opened {
public:
    explicit Opened(const std::string& bytes) : bytes_(bytes) {
        ctx_.reset(fz_new_context(nullptr, nullptr, FZ_STORE_DEFAULT));
        fz_context* ctx = ctx_.get();
        if (ctx == nullptr) throw std::runtime_error("no MuPDF context");
        const auto* data = reinterpret_cast<const unsigned char*>(bytes_.data());
        stream_ = StreamHandle(ctx, guarded(ctx, [&] { return fz_open_memory(ctx, data, bytes_.size()); }));
        doc_ = PdfDocumentHandle(ctx, guarded(ctx, [&] { return pdf_open_document_with_stream(ctx, stream_.get()); }));
    }
    fz_context* ctx() const { return ctx_.get(); }
    pdf_document* doc() const { return doc_.get(); }
    fz_document* fz() const { return reinterpret_cast<fz_document*>(doc_.get()); }

    int PageCount() const {
        return guarded(ctx(), [&] { return pdf_count_pages(ctx(), doc()); });
    }
    fz_rect MediaBox(int page) const {
        return guarded(ctx(), [&] {
            pdf_obj* obj = pdf_lookup_page_obj(ctx(), doc(), page);
            return pdf_to_rect(ctx(), pdf_dict_get_inheritable(ctx(), obj, PDF_NAME(MediaBox)));
        });
    }
    int Rotate(int page) const {
        return guarded(ctx(), [&] {
            pdf_obj* obj = pdf_lookup_page_obj(ctx(), doc(), page);
            return pdf_to_int(ctx(), pdf_dict_get_inheritable(ctx(), obj, PDF_NAME(Rotate)));
        });
    }
    bool HasOwn(int page, pdf_obj* key) const {
        return guarded(ctx(), [&] { return pdf_dict_get(ctx(), pdf_lookup_page_obj(ctx(), doc(), page), key) != nullptr; });
    }
    PageHandle Page(int page) const {
        return PageHandle(ctx(), guarded(ctx(), [&] { return fz_load_page(ctx(), fz(), page); }));
    }
    fz_link_dest Resolve(const char* uri) const {
        return guarded(ctx(), [&] { return fz_resolve_link_dest(ctx(), fz(), uri); });
    }

private:
    struct Drop {
        void operator()(fz_context* c) const { fz_drop_context(c); }
    };
    std::string bytes_;
    std::unique_ptr<fz_context, Drop> ctx_;  // declared before the handles, so dropped after them
    StreamHandle stream_;
    PdfDocumentHandle doc_;
};

int QpdfCheck(const std::filesystem::path& file) {
    const int status = std::system(("qpdf --check '" + file.string() + "' > /dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

PdfBuilder TypicalFile() {
    PageSpec first;
    first.text = {{72, 700, 20, "Café crème"}};
    first.rects = {{{100, 500, 200, 400}, 0xFF0000}};
    first.images = {{{300, 500, 400, 400}, 4, 4, 0x00FF00, 128}};
    first.annotations = {{"Square", {100, 300, 200, 200}, 4, 0x0000FF}, {"Square", {300, 300, 400, 200}, 2, 0x0000FF}};
    LinkSpec uri;
    uri.rect = {72, 720, 300, 690};
    uri.uri = "https://example.org/a(b)";
    LinkSpec xyz;
    xyz.rect = {72, 680, 300, 660};
    xyz.targetPage = 1;
    xyz.left = 72;
    xyz.top = 800;  // zoom stays null
    LinkSpec named;
    named.rect = {72, 650, 300, 630};
    named.namedDestination = "end";
    LinkSpec fitr;
    fitr.rect = {72, 620, 300, 600};
    fitr.targetPage = 2;
    fitr.fitMode = "FitR";
    fitr.left = 10;
    fitr.bottom = 20;
    fitr.right = 110;
    fitr.top = 220;
    first.links = {uri, xyz, named, fitr};
    PageSpec second;
    second.width = 595;
    second.height = 842;
    second.rotate = 90;
    second.cropBox = Rect{10, 800, 500, 20};
    PdfBuilder builder;
    builder.AddPage(first).AddPage(second).AddNumberedPages(1).AddNamedDestination("end", 2, 50, 600);
    return builder;
}

// The colour at a point in page space of a page rendered at 72 dpi.
uint32_t PixelAt(const Opened& file, int page, double x, double y) {
    PageHandle p = file.Page(page);
    fz_context* ctx = file.ctx();
    PixmapHandle pix(ctx, guarded(ctx, [&] {
                         return fz_new_pixmap_from_page(ctx, p.get(), fz_identity, fz_device_rgb(ctx), 0);
                     }));
    const int h = fz_pixmap_height(ctx, pix.get());
    const unsigned char* s = fz_pixmap_samples(ctx, pix.get()) +
                             (h - 1 - static_cast<int>(y)) * fz_pixmap_stride(ctx, pix.get()) + static_cast<int>(x) * 3;
    return (s[0] << 16) | (s[1] << 8) | s[2];
}

}  // namespace

TEST(FixtureBuilder, PagesKeepSizeRotationAndCropBox) {
    for (bool inherit : {false, true}) {
        SCOPED_TRACE(inherit ? "inherited" : "own");
        PdfBuilder builder = TypicalFile();
        Opened file(builder.InheritAttributes(inherit).Build());
        ASSERT_EQ(file.PageCount(), 3);
        EXPECT_EQ(file.MediaBox(0).x1, 612);
        EXPECT_EQ(file.MediaBox(0).y1, 792);
        EXPECT_EQ(file.MediaBox(1).x1, 595);
        EXPECT_EQ(file.MediaBox(1).y1, 842);
        EXPECT_EQ(file.Rotate(0), 0);
        EXPECT_EQ(file.Rotate(1), 90);
        EXPECT_EQ(file.Rotate(2), 0);
        EXPECT_EQ(file.HasOwn(0, PDF_NAME(MediaBox)), !inherit);
        EXPECT_EQ(file.HasOwn(2, PDF_NAME(Resources)), !inherit);
        EXPECT_TRUE(file.HasOwn(1, PDF_NAME(MediaBox)));  // differs from the root's
        PageHandle rotated = file.Page(1);
        const fz_rect bounds = guarded(file.ctx(), [&] { return fz_bound_page(file.ctx(), rotated.get()); });
        EXPECT_FLOAT_EQ(bounds.x1 - bounds.x0, 780);  // crop box, turned by 90 degrees
        EXPECT_FLOAT_EQ(bounds.y1 - bounds.y0, 490);
    }
}

TEST(FixtureBuilder, TextImagesAndAppearancesAppearWhereAsked) {
    for (bool inherit : {false, true}) {
        SCOPED_TRACE(inherit ? "inherited" : "own");
        PdfBuilder builder = TypicalFile();
        Opened file(builder.InheritAttributes(inherit).Build());
        PageHandle page = file.Page(0);
        fz_quad hits[4];
        int mark[4];
        const int count = guarded(file.ctx(), [&] { return fz_search_page(file.ctx(), page.get(), "Café crème", mark, hits, 4); });
        ASSERT_EQ(count, 1);
        EXPECT_NEAR(hits[0].ll.x, 72, 1);
        EXPECT_NEAR(hits[0].ll.y, 792 - 700, 6);  // descent below the baseline

        EXPECT_EQ(PixelAt(file, 0, 150, 450), 0xFF0000u);
        const uint32_t image = PixelAt(file, 0, 350, 450);  // green at half opacity over white
        EXPECT_NEAR(image >> 16, 127, 2);
        EXPECT_EQ((image >> 8) & 0xFF, 255u);
        EXPECT_EQ(PixelAt(file, 0, 150, 250), 0x0000FFu);
        EXPECT_EQ(PixelAt(file, 0, 350, 250), 0xFFFFFFu);  // hidden annotation
    }
}

TEST(FixtureBuilder, LinksAndDestinationsResolve) {
    Opened file(TypicalFile().Build());
    PageHandle page = file.Page(0);
    LinkHandle links(file.ctx(), guarded(file.ctx(), [&] { return fz_load_links(file.ctx(), page.get()); }));
    std::vector<std::string> uris;
    for (fz_link* l = links.get(); l != nullptr; l = l->next) uris.push_back(l->uri);
    ASSERT_EQ(uris.size(), 4u);
    EXPECT_EQ(uris[0], "https://example.org/a(b)");

    fz_link_dest xyz = file.Resolve(uris[1].c_str());
    EXPECT_EQ(xyz.loc.page, 1);
    EXPECT_EQ(xyz.type, FZ_LINK_DEST_XYZ);
    fz_link_dest named = file.Resolve(uris[2].c_str());
    EXPECT_EQ(named.loc.page, 2);
    EXPECT_FLOAT_EQ(named.x, 50);
    EXPECT_FLOAT_EQ(named.y, 792 - 600);
    fz_link_dest fitr = file.Resolve(uris[3].c_str());
    EXPECT_EQ(fitr.loc.page, 2);
    EXPECT_EQ(fitr.type, FZ_LINK_DEST_FIT_R);
    EXPECT_FLOAT_EQ(fitr.w, 100);

    // The same through an old-style /Dests dictionary (MuPDF resolves a named
    // /Dest while loading the links).
    PageSpec linking;
    linking.links.push_back({});
    linking.links[0].rect = {0, 100, 100, 0};
    linking.links[0].namedDestination = "old name";
    PdfBuilder oldStyle;
    oldStyle.AddPage(linking).AddNumberedPages(2).AddNamedDestination("old name", 2, 0, 100, false);
    Opened old(oldStyle.Build());
    PageHandle oldPage = old.Page(0);
    LinkHandle oldLinks(old.ctx(), guarded(old.ctx(), [&] { return fz_load_links(old.ctx(), oldPage.get()); }));
    ASSERT_TRUE(oldLinks);
    EXPECT_EQ(old.Resolve(oldLinks.get()->uri).loc.page, 2);
}

TEST(FixtureBuilder, EncryptionNeedsPasswordAndKeepsPermissions) {
    using M = EncryptionSpec::Method;
    const int32_t noCopyNoModify = -4 & ~(PDF_PERM_COPY | PDF_PERM_MODIFY);
    for (M method : {M::Rc4_40, M::Rc4_128, M::Aes128, M::Aes256}) {
        SCOPED_TRACE(static_cast<int>(method));
        PdfBuilder builder;
        builder.AddNumberedPages(2).Encrypt({"user", "owner", noCopyNoModify, method});
        Opened file(builder.Build());
        fz_context* ctx = file.ctx();
        EXPECT_TRUE(guarded(ctx, [&] { return pdf_needs_password(ctx, file.doc()); }));
        EXPECT_EQ(guarded(ctx, [&] { return pdf_authenticate_password(ctx, file.doc(), "wrong"); }), 0);
        EXPECT_TRUE(guarded(ctx, [&] { return pdf_authenticate_password(ctx, file.doc(), "user"); }) & 2);
        EXPECT_TRUE(guarded(ctx, [&] { return pdf_authenticate_password(ctx, file.doc(), "owner"); }) & 4);
        EXPECT_EQ(file.PageCount(), 2);
        EXPECT_EQ(guarded(ctx, [&] { return pdf_to_int(ctx, pdf_dict_getp(ctx, pdf_trailer(ctx, file.doc()), "Encrypt/P")); }),
                  noCopyNoModify);
    }
}

TEST(FixtureBuilder, EncryptsOnThreadsWithoutTheEngine) {
    std::vector<std::string> files(4);
    std::vector<std::thread> threads;
    for (std::string& bytes : files)
        threads.emplace_back([&bytes] {
            PdfBuilder builder;
            builder.AddNumberedPages(3).Encrypt({"u", "o", -4, EncryptionSpec::Method::Aes256});
            bytes = builder.Build();
        });
    for (std::thread& t : threads) t.join();
    for (const std::string& bytes : files) {
        Opened file(bytes);
        EXPECT_TRUE(guarded(file.ctx(), [&] { return pdf_authenticate_password(file.ctx(), file.doc(), "u"); }));
        EXPECT_EQ(file.PageCount(), 3);
    }
}

TEST(FixtureBuilder, QpdfAcceptsBuiltFilesAndTheSample) {
    TempDir dir;
    TypicalFile().Save(dir.File("plain.pdf"));
    TypicalFile().InheritAttributes().Save(dir.File("inherited.pdf"));
    EXPECT_EQ(QpdfCheck(dir.File("plain.pdf")), 0);
    EXPECT_EQ(QpdfCheck(dir.File("inherited.pdf")), 0);

    const auto sample = SamplesDir() / "sample.pdf";
    ASSERT_TRUE(std::filesystem::exists(sample));
    EXPECT_EQ(QpdfCheck(sample), 0);
    EXPECT_LT(std::filesystem::file_size(sample), 50u * 1024);
    Opened file(ReadFile(sample));
    EXPECT_EQ(file.PageCount(), 3);
    EXPECT_EQ(file.Rotate(2), 90);
}

TEST(FixtureBuilder, RejectsWhatItCannotWrite) {
    auto withText = [](const std::string& text) {
        PageSpec page;
        page.text = {{72, 720, 12, text}};
        return PdfBuilder().AddPage(page).Build();
    };
    EXPECT_NO_THROW(withText("\xC3\xA9t\xC3\xA9 (\\)"));
    EXPECT_THROW(withText("two\nlines"), std::runtime_error);
    EXPECT_THROW(withText("\xE2\x82\xAC uro"), std::runtime_error);  // not in Latin-1
    PageSpec page;
    page.links.push_back({});
    page.links[0].targetPage = 3;
    EXPECT_THROW(PdfBuilder().AddPage(page).Build(), std::runtime_error);
}

TEST(FixtureTempDir, RemovesItsTreeWhenGone) {
    std::filesystem::path kept;
    {
        TempDir dir;
        kept = dir.Path();
        std::filesystem::create_directories(dir.File("a/b"));
        WriteFile(dir.File("a/b/c.txt"), "x");
        EXPECT_EQ(ReadFile(dir.File("a/b/c.txt")), "x");
        TempDir other;
        EXPECT_NE(other.Path(), kept);
    }
    EXPECT_FALSE(std::filesystem::exists(kept));
}
