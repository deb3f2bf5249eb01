// Image files open as documents: one page per frame, one point per pixel.

#include <array>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

// An uncompressed RGB TIFF with one directory per frame, each of one colour.
std::string MultiFrameTiff(int width, int height, const std::vector<QRgb>& colours) {
    std::string out = std::string("II*\0", 4);
    auto put16 = [&](uint16_t v) {
        out.push_back(char(v & 0xFF));
        out.push_back(char(v >> 8));
    };
    auto put32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) out.push_back(char((v >> (8 * i)) & 0xFF));
    };
    auto patch32 = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) out[at + i] = char((v >> (8 * i)) & 0xFF);
    };
    size_t nextIfdField = out.size();
    put32(0);
    for (QRgb colour : colours) {
        const uint32_t pixels = static_cast<uint32_t>(out.size());
        for (int i = 0; i < width * height; ++i) out += {char(qRed(colour)), char(qGreen(colour)), char(qBlue(colour))};
        const uint32_t bits = static_cast<uint32_t>(out.size());
        put16(8), put16(8), put16(8);
        if (out.size() % 2) out.push_back('\0');
        patch32(nextIfdField, static_cast<uint32_t>(out.size()));
        const std::vector<std::array<uint32_t, 4>> entries = {{256, 4, 1, uint32_t(width)},
                                                              {257, 4, 1, uint32_t(height)},
                                                              {258, 3, 3, bits},
                                                              {259, 3, 1, 1},
                                                              {262, 3, 1, 2},
                                                              {273, 4, 1, pixels},
                                                              {277, 3, 1, 3},
                                                              {278, 4, 1, uint32_t(height)},
                                                              {279, 4, 1, uint32_t(width * height * 3)},
                                                              {284, 3, 1, 1}};
        put16(static_cast<uint16_t>(entries.size()));
        for (const auto& [tag, type, count, value] : entries) {
            put16(uint16_t(tag)), put16(uint16_t(type)), put32(count);
            if (type == 3 && count == 1)
                put16(uint16_t(value)), put16(0);
            else
                put32(value);
        }
        nextIfdField = out.size();
        put32(0);
    }
    return out;
}

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
