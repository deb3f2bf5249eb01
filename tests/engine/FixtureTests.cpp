// The test file builder, where other tests rely on what it writes and do not
// check it themselves: encryption as asked, and files an independent reader accepts.

#include <gtest/gtest.h>

#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using Fixture = FileTest;

TEST_F(Fixture, EncryptedFilesNeedTheirPasswordAndKeepTheirPermissions) {
    using M = Encryption::Method;
    const int32_t noCopyNoModify = -4 & ~(PDF_PERM_COPY | PDF_PERM_MODIFY);
    for (M method : {M::Rc4_40, M::Rc4_128, M::Aes128, M::Aes256}) {
        SCOPED_TRACE(int(method));
        auto doc = Open(PdfBuilder().AddNumberedPages(2).Encrypt({"user", "owner", noCopyNoModify, method}), "user");
        fz_context* ctx = doc->Core()->ctx;
        pdf_document* pdf = doc->Core()->doc;
        EXPECT_TRUE(guarded(ctx, [&] { return pdf_needs_password(ctx, pdf); }));
        EXPECT_EQ(guarded(ctx, [&] { return pdf_authenticate_password(ctx, pdf, "wrong"); }), 0);
        EXPECT_TRUE(guarded(ctx, [&] { return pdf_authenticate_password(ctx, pdf, "owner"); }) & 4);
        EXPECT_EQ(guarded(ctx, [&] { return pdf_to_int(ctx, pdf_dict_getp(ctx, pdf_trailer(ctx, pdf), "Encrypt/P")); }),
                  noCopyNoModify);
    }
}

TEST_F(Fixture, QpdfAcceptsBuiltFilesAndTheSample) {
    PageLayout page;
    page.rotate = 90;
    page.cropBox = Rect{10, 700, 500, 20};
    page.text = {{72, 700, 20, "Caf\xC3\xA9 (cr\xC3\xA8me)"}};
    page.rects = {{{100, 500, 200, 400}, 0xFF0000}};
    page.images = {{{300, 500, 400, 400}, 4, 4, 0x00FF00, 128}};
    page.annotations = {{"Square", {100, 300, 200, 200}, 4, 0x0000FF}, {"Text", {300, 300, 400, 200}, 2}};
    page.links = {{{72, 720, 300, 690}, "https://example.org/a(b)"}, {{72, 680, 300, 660}, "", 1, 72, std::nullopt}};
    page.links.push_back({{72, 650, 300, 630}});
    page.links.back().namedDestination = "end";
    for (bool inherit : {false, true}) {
        const auto path = temp.File(inherit ? "inherited.pdf" : "plain.pdf");
        PdfBuilder()
            .AddPage(page)
            .AddNumberedPages(2)
            .AddNamedDestination("end", 2, 50, 600)
            .AddNamedDestination("old", 1, 0, 0, false)
            .InheritAttributes(inherit)
            .Save(path);
        EXPECT_TRUE(QpdfClean(path)) << path;
    }
    const auto sample = SamplesDir() / "sample.pdf";
    EXPECT_TRUE(QpdfClean(sample));
    EXPECT_EQ(OpenFile(sample)->GetPageCount(), 3u);
}

}  // namespace
}  // namespace QuirelleTest
