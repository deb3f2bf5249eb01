// Image files open as documents: one page per frame, one point per pixel.

#include <array>

#include <QImageWriter>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

// An uncompressed RGB TIFF with one directory per frame, each of one colour.
std::string MultiFrameTiff(int width, int height, const std::vector<QRgb>& colours) {
    std::string out = std::string("II*\0", 4);
    auto put16 = [&](uint16_t v) { out.push_back(char(v & 0xFF)); out.push_back(char(v >> 8)); };
    auto put32 = [&](uint32_t v) { for (int i = 0; i < 4; ++i) out.push_back(char((v >> (8 * i)) & 0xFF)); };
    auto patch32 = [&](size_t at, uint32_t v) { for (int i = 0; i < 4; ++i) out[at + i] = char((v >> (8 * i)) & 0xFF); };
    size_t nextIfdField = out.size();
    put32(0);
    for (QRgb colour : colours) {
        const uint32_t pixels = static_cast<uint32_t>(out.size());
        for (int i = 0; i < width * height; ++i) {
            out.push_back(char(qRed(colour)));
            out.push_back(char(qGreen(colour)));
            out.push_back(char(qBlue(colour)));
        }
        const uint32_t bits = static_cast<uint32_t>(out.size());
        put16(8), put16(8), put16(8);
        if (out.size() % 2) out.push_back('\0');
        patch32(nextIfdField, static_cast<uint32_t>(out.size()));
        const std::vector<std::array<uint32_t, 4>> entries = {
            {256, 4, 1, uint32_t(width)}, {257, 4, 1, uint32_t(height)}, {258, 3, 3, bits}, {259, 3, 1, 1},
            {262, 3, 1, 2},  {273, 4, 1, pixels}, {277, 3, 1, 3}, {278, 4, 1, uint32_t(height)},
            {279, 4, 1, uint32_t(width * height * 3)}, {284, 3, 1, 1}};
        put16(static_cast<uint16_t>(entries.size()));
        for (const auto& [tag, type, count, value] : entries) {
            put16(uint16_t(tag)), put16(uint16_t(type)), put32(count);
            if (type == 3 && count == 1) put16(uint16_t(value)), put16(0);
            else put32(value);
        }
        nextIfdField = out.size();
        put32(0);
    }
    return out;
}

using ImageDocuments = ServiceTest;

TEST_F(ImageDocuments, EachFrameBecomesAPageOfItsPixelSize) {
    const auto tiff = temp.File("scan.TIFF");  // the extension's case does not matter
    WriteFile(tiff, MultiFrameTiff(40, 30, {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255)}));
    const int64_t doc = Open(tiff);
    ASSERT_EQ(service->GetPageCount(doc), 3);
    EXPECT_TRUE(service->GetDocumentPath(doc).empty());
    const QRgb expected[] = {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255)};
    for (unsigned page = 0; page < 3; ++page) {
        const auto info = Await(service->GetPageInfo(doc, page));
        EXPECT_DOUBLE_EQ(info.size.width, 40);
        EXPECT_DOUBLE_EQ(info.size.height, 30);
        const QImage image = Await(service->GeneratePageImage(doc, page, -1, -1));
        ASSERT_EQ(image.size(), QSize(40, 30));
        EXPECT_EQ(image.pixel(20, 15), expected[page]) << "page " << page;
    }
    // A document made from an image has no path: save it under a new one.
    EXPECT_FALSE(Await(service->SaveDocument(doc)));
    EXPECT_TRUE(Await(service->SaveDocumentAs(doc, temp.File("scan.pdf").string())));
    EXPECT_EQ(service->GetPageCount(Open(temp.File("scan.pdf"))), 3);
}

TEST_F(ImageDocuments, TransparentPicturesKeepTheirAlpha) {
    QImage picture(800, 600, QImage::Format_ARGB32_Premultiplied);
    picture.fill(qRgba(0, 0, 0, 0));
    for (int y = 0; y < 300; ++y) {
        for (int x = 0; x < 800; ++x) picture.setPixel(x, y, qRgba(0, 0, 255, 255));
    }
    const auto png = temp.File("photo.png");
    ASSERT_TRUE(picture.save(QString::fromStdString(png.string()), "PNG"));
    const int64_t doc = Open(png);
    const auto info = Await(service->GetPageInfo(doc, 0));
    EXPECT_DOUBLE_EQ(info.size.width, 800);
    EXPECT_DOUBLE_EQ(info.size.height, 600);
    const QImage image = Await(service->GeneratePageImage(doc, 0, 80, 60));
    EXPECT_EQ(image.pixel(40, 10), qRgb(0, 0, 255));
    EXPECT_EQ(image.pixel(40, 50), qRgb(255, 255, 255));  // transparent: the white page shows
}

TEST_F(ImageDocuments, OnlyImageExtensionsTakeTheImageRoute) {
    QImage picture(16, 16, QImage::Format_RGB32);
    picture.fill(qRgb(10, 20, 30));
    const auto jpeg = temp.File("photo.JPG");
    ASSERT_TRUE(picture.save(QString::fromStdString(jpeg.string()), "JPEG"));
    EXPECT_EQ(service->GetPageCount(Open(jpeg)), 1);

    // The same bytes under an extension that is not on the list go to the PDF engine.
    const auto jpe = temp.File("photo.jpe");
    std::filesystem::copy_file(jpeg, jpe);
    EXPECT_EQ(Await(service->OpenDocument(jpe.string(), "")).id, -1);
    // A PDF named like an image is read as an image, and fails.
    const auto fake = temp.File("document.bmp");
    PdfBuilder().AddNumberedPages(1).Save(fake);
    const auto failed = Await(service->OpenDocument(fake.string(), ""));
    EXPECT_EQ(failed.id, -1);
    EXPECT_FALSE(failed.passwordError);
}

}  // namespace
}  // namespace QuirelleTest
