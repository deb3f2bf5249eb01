// outline, info's document information and page labels, pages by label and
// render --region, run as people run them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/cli/CliRun.h"

namespace QuirelleTest {
namespace {

using ::testing::HasSubstr;
using json = nlohmann::json;

using Output = CliResult;

class ReadingCli : public ::testing::Test {
protected:
    void SetUp() override {
        // Pages i, ii, then 1, 2, then A-1; an outline of two levels.
        std::vector<std::string> objects = {
            "<< /Type /Catalog /Pages 2 0 R /Outlines 3 0 R /PageLabels << /Nums [0 << /S /r >> 2 << /S /D >> 4 "
            "<< /S /D /P (A-) >>] >> >>",
            "<< /Type /Pages /Count 5 /Kids [7 0 R 8 0 R 9 0 R 10 0 R 11 0 R] >>",
            "<< /First 4 0 R >>",
            "<< /Title (Body) /Next 6 0 R /First 5 0 R /Count 1 /Dest [9 0 R /XYZ 0 700 0] >>",
            "<< /Title (Section) /Dest [10 0 R /Fit] >>",
            "<< /Title (Appendix) /Dest [11 0 R /Fit] >>",
        };
        // Pages 7 to 11 show "Page 1" to "Page 5" (contents 12 to 16, font 17).
        for (int i = 0; i < 5; ++i) {
            objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents " +
                              std::to_string(12 + i) + " 0 R /Resources << /Font << /F 17 0 R >> >> >>");
        }
        for (int i = 0; i < 5; ++i)
            objects.push_back(RawStream("", "BT /F 12 Tf 20 100 Td (Page " + std::to_string(i + 1) + ") Tj ET"));
        objects.push_back("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
        WriteFile(temp.File("book.pdf"), RawPdf(objects));
    }

    Output Run(const std::string& args) { return RunCli(temp.Path(), args); }

    TempDir temp;
};

TEST_F(ReadingCli, OutlineInfoLabelsAndRegion) {
    Output r = Run("outline book.pdf");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Body  1 (page 3)\n  Section  2 (page 4)\nAppendix  A-1 (page 5)\n");

    r = Run("outline --json book.pdf");
    const json outline = json::parse(r.out);
    EXPECT_EQ(outline[0]["title"], "Body");
    EXPECT_EQ(outline[0]["page"], 3);
    EXPECT_EQ(outline[0]["label"], "1");
    EXPECT_EQ(outline[0]["y"], 700);
    EXPECT_EQ(outline[0]["open"], true);
    EXPECT_EQ(outline[0]["children"][0]["label"], "2");
    EXPECT_TRUE(outline[1]["uri"].is_null());

    r = Run("info --json book.pdf");
    const json info = json::parse(r.out);
    EXPECT_EQ(info["pageLabels"], json({"i", "ii", "1", "2", "A-1"}));
    EXPECT_EQ(info["version"], "1.7");
    for (const char* key : {"title", "author", "subject", "keywords", "creator", "producer", "created", "modified"}) {
        EXPECT_TRUE(info.contains(key)) << key;
    }
    EXPECT_THAT(Run("info book.pdf").out, HasSubstr("page labels: i, ii, 1, 2, A-1"));

    // Pages by label, alone and as a range.
    r = Run("text book.pdf label:ii..A-1,label:i");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\f'), 4);
    r = Run("text book.pdf label:xx");
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.err, HasSubstr("no page is labelled \"xx\""));
    // --pages-by-label: every item a label; what no label names, page numbers.
    const struct {
        const char* args;
        int status;
        const char* text;  // the output starts so
    } byLabel[] = {
        {"--pages-by-label text book.pdf 1", 0, "Page 3"},
        {"text --pages-by-label book.pdf ii..1,A-1", 0, "Page 2\n\fPage 3\n\fPage 5"},
        {"--pages-by-label text book.pdf label:i", 0, "Page 1"},
        {"--pages-by-label text book.pdf 4-z", 0, "Page 4\n\fPage 5"},
        {"--pages-by-label text book.pdf", 0, "Page 1\n\fPage 2"},
        {"--pages-by-label text book.pdf iii", 2, ""},
    };
    for (const auto& row : byLabel) {
        r = Run(row.args);
        EXPECT_EQ(r.status, row.status) << row.args << ": " << r.err;
        EXPECT_EQ(r.out.rfind(row.text, 0), 0u) << row.args << ": " << r.out;
    }
    EXPECT_THAT(r.err, HasSubstr("no page is labelled \"iii\""));

    // One region at 144 dpi: 50 x 25 points are 100 x 50 pixels.
    r = Run("render book.pdf label:A-1 --region 10,10,60,35 --dpi 144 --out tile.png");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("tile.png: page 5, 100 x 50 pixels"));
    EXPECT_EQ(ReadFile(temp.File("tile.png")).substr(1, 3), "PNG");
    r = Run("render book.pdf 1 --region 10,10,5 --out tile.png");
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.err, HasSubstr("--region"));
    EXPECT_EQ(Run("render book.pdf 1-2 --region 0,0,10,10 --out tile.png").status, 2);
}

}  // namespace
}  // namespace QuirelleTest
