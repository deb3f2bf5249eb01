// The test file builder writes files an independent reader accepts.

#include <gtest/gtest.h>

#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using Fixture = FileTest;

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
