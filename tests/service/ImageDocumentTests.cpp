// Image files open as documents: one page per frame, one point per pixel.

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using ImageDocuments = ServiceTest;

TEST_F(ImageDocuments, EachFrameBecomesAPageOfItsPixelSize) {
    const auto tiff = temp.File("scan.TIFF");  // the extension's case does not matter
    const std::vector<QRgb> colours = {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255)};
    WriteFile(tiff, MultiFrameTiff(40, 30, colours));
    const int64_t doc = Open(tiff);
    ASSERT_EQ(service->GetPageCount(doc), 3);
    for (unsigned page = 0; page < 3; ++page) {
        const Size size = Await(service->GetPageInfo(doc, page)).size;
        EXPECT_EQ(std::make_pair(size.width, size.height), std::make_pair(40.0, 30.0));
        const QImage image = Await(service->GeneratePageImage(doc, page, -1, -1));
        ASSERT_EQ(image.size(), QSize(40, 30));
        EXPECT_EQ(image.pixel(20, 15), colours[page]) << "page " << page;
    }
    // A document made from an image has no path: save it under a new one.
    EXPECT_TRUE(service->GetDocumentPath(doc).empty());
    EXPECT_FALSE(Await(service->SaveDocument(doc)));
    EXPECT_TRUE(Await(service->SaveDocumentAs(doc, temp.File("scan.pdf").string())));
    EXPECT_EQ(service->GetPageCount(Open(temp.File("scan.pdf"))), 3);
}

TEST_F(ImageDocuments, TransparencyShowsThePageAndOnlyListedExtensionsAreImages) {
    QImage picture(800, 600, QImage::Format_ARGB32_Premultiplied);
    picture.fill(qRgba(0, 0, 0, 0));
    for (int y = 0; y < 300; ++y) {
        for (int x = 0; x < 800; ++x) picture.setPixel(x, y, qRgba(0, 0, 255, 255));
    }
    const auto png = temp.File("photo.png");
    ASSERT_TRUE(picture.save(QString::fromStdString(png.string()), "PNG"));
    const int64_t doc = Open(png);
    const Size size = Await(service->GetPageInfo(doc, 0)).size;
    EXPECT_EQ(std::make_pair(size.width, size.height), std::make_pair(800.0, 600.0));
    const QImage image = Await(service->GeneratePageImage(doc, 0, 80, 60));
    EXPECT_EQ(image.pixel(40, 10), qRgb(0, 0, 255));
    EXPECT_EQ(image.pixel(40, 50), qRgb(255, 255, 255));  // transparent: the white page shows

    // The same bytes under an extension not on the list go to the PDF engine,
    // and a PDF named like an image is read as an image: both fail.
    const auto jpe = temp.File("photo.jpe");
    std::filesystem::copy_file(png, jpe);
    const auto bmp = temp.File("document.bmp");
    PdfBuilder().AddNumberedPages(1).Save(bmp);
    // A 107-byte bitmap that claims 16777223 x 5 pixels is refused unread.
    const auto huge = temp.File("huge.bmp");
    WriteFile(huge, ReadFile(SamplesDir() / "../tests/regressions/image/bmp-16777223x5-pixels").substr(1));
    for (const auto& path : {jpe, bmp, huge}) {
        const auto failed = Await(service->OpenDocument(path.string(), ""));
        EXPECT_EQ(failed.id, -1) << path;
        EXPECT_FALSE(failed.passwordError) << path;
    }
}

}  // namespace
}  // namespace QuirelleTest
