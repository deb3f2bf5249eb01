// The quirelle command line run as people run it, on files built here: each
// row of a table is one command with the exit status and output it must give.
// Rows run in order in one directory, so a row may read what an earlier one
// wrote. A failing command must say why in exactly one line on stderr; a
// successful one must leave stderr empty (no progress bar when stderr is not
// a terminal), as must a search that finds nothing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QImage>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include <Quirelle>

#include "tests/cli/CliRun.h"
#include "tests/support/DamagedPdf.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {
namespace {

using ::testing::HasSubstr;
using json = nlohmann::json;
namespace fs = std::filesystem;

using Result = CliResult;

struct Row {
    std::string args;
    int status = 0;
    std::string out;  // a part of stdout
    std::string err;  // a part of stderr
    std::function<void(const Result&)> check = nullptr;
};

// doc.pdf: pages 1-10 A4, 11 Letter landscape, 12 Letter landscape turned
// 90 degrees; each says "Page N", page 3 also "Quirelle and quirelle", page
// 11 "Quirellex"; page 2 links to page 5 and to a URI. edit.pdf is a copy for
// edits in place. locked.pdf (and its copy locked-edit.pdf) needs a password and forbids
// copying, extracting and changing pages unless opened with the owner password.
class Cli : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir = new TempDir;
        PdfBuilder doc;
        for (int n = 1; n <= 12; ++n) {
            PageLayout page;
            page.width = n > 10 ? 792 : 595;
            page.height = n > 10 ? 612 : 842;
            page.rotate = n == 12 ? 90 : 0;
            page.text = {{72, 500, 12, "Page " + std::to_string(n)}};
            if (n == 3) page.text.push_back({72, 400, 12, "Quirelle and quirelle"});
            if (n == 11) page.text.push_back({72, 400, 12, "Quirellex"});
            if (n == 2) page.links = {{{72, 700, 200, 680}, "", 4}, {{72, 660, 200, 640}, "https://example.org/"}};
            doc.AddPage(page);
        }
        doc.Save(dir->File("doc.pdf"));
        doc.Save(dir->File("edit.pdf"));
        PdfBuilder()
            .AddNumberedPages(2)
            .Encrypt({"secret", "owner", -4 & ~(1 << 4) & ~(1 << 10)})
            .Save(dir->File("locked.pdf"));
        fs::copy_file(dir->File("locked.pdf"), dir->File("locked-edit.pdf"));
        WriteFile(dir->File("bad.pdf"), "this is not a PDF\n");
        // As a file cut short before its page tree.
        WriteFile(dir->File("cut.pdf"), RawPdf({"<< /Type /Catalog /Pages 9 0 R >>"}));
        WriteFile(dir->File("cycle.pdf"),
                  RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                          "<< /Type /Pages /Parent 2 0 R /Kids [2 0 R] /Count 1 >>"}));
        // photo.pdf: page 1 holds a photograph of 3000 x 3000 pixels (27 MB
        // decoded), page 2 only text.
        PageLayout photo;
        photo.width = 595;
        photo.height = 842;
        photo.images = {{{50, 800, 545, 300}, 3000, 3000, 0x3080C0}};
        photo.text = {{72, 200, 12, "Under the photograph"}};
        PdfBuilder().AddPage(photo).AddNumberedPages(1, 595, 842).Save(dir->File("photo.pdf"));
        // Page 1 cannot be read (its branch of the page tree loops), page 2 can.
        WriteFile(dir->File("broken.pdf"),
                  RawPdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [4 0 R 3 0 R] /Count 2 >>",
                          "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>",
                          "<< /Type /Pages /Parent 2 0 R /Kids [2 0 R] /Count 1 >>"}));
        // Opens with the empty user password, and then allows nothing.
        PdfBuilder().AddNumberedPages(1).Encrypt({"", "owner", -4 & ~0xF3C}).Save(dir->File("nothing.pdf"));
        // Thousands of pages and no cross-reference table: rebuilding it
        // takes longer than a budget of 1 ms.
        PdfBuilder many;
        many.AddNumberedPages(5000);
        many.Save(dir->File("many.pdf"));
        WriteFile(dir->File("noxref.pdf"), WithoutXref(ReadFile(dir->File("many.pdf"))));
        WriteFile(dir->File("scan.tiff"), MultiFrameTiff(40, 30, {0xFF0000, 0x00FF00, 0x0000FF}));
    }
    static void TearDownTestSuite() { delete dir; }

    static Result Run(const std::string& args) { return RunCli(dir->Path(), args); }

    static void RunAll(const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE("quirelle " + row.args);
            const Result result = Run(row.args);
            EXPECT_EQ(result.status, row.status) << result.err;
            EXPECT_THAT(result.out, HasSubstr(row.out));
            if (row.status == 0 || row.err.empty()) {
                EXPECT_EQ(result.err, "");
            } else {
                EXPECT_THAT(result.err, HasSubstr(row.err));
                EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
            }
            if (row.check) row.check(result);
        }
    }

    static TempDir* dir;
};

TempDir* Cli::dir = nullptr;

// Width and height from a PNG file's header.
std::pair<int, int> PngSize(const std::string& file) {
    const std::string bytes = ReadFile(file);
    auto number = [&](size_t at) {
        return (uint8_t(bytes.at(at)) << 24) | (uint8_t(bytes[at + 1]) << 16) | (uint8_t(bytes[at + 2]) << 8) |
               uint8_t(bytes[at + 3]);
    };
    return {number(16), number(20)};
}

TEST_F(Cli, InfoTextAndBadInput) {
    RunAll({
        {"info doc.pdf", 0,
         "page sizes:  1-10: A4 portrait\n             11: Letter landscape\n"
         "             12: Letter portrait, rotated 90\nencrypted:   no\n"
         "permissions: everything allowed\n"},
        {"info doc.pdf --links", 0,
         "links:       2\n  page 2 [72.0 700.0 200.0 680.0] -> page 5 at (0, 0)\n"
         "  page 2 [72.0 660.0 200.0 640.0] -> https://example.org/\n"},
        {"info doc.pdf --json --links", 0, "", "",
         [](const Result& r) {
             const json info = json::parse(r.out);
             EXPECT_EQ(info["pages"], 12);
             EXPECT_EQ(info["pageSizes"].size(), 3u);
             EXPECT_EQ(info["pageSizes"][0]["pages"], "1-10");
             EXPECT_EQ(info["pageSizes"][2]["rotation"], 90);
             EXPECT_EQ(info["links"][0]["target"]["page"], 5);
             EXPECT_EQ(info["links"][1]["uri"], "https://example.org/");
             EXPECT_EQ(info["permissions"]["extractPages"], true);
         }},
        {"info locked.pdf", 1, "", "locked.pdf: the document is encrypted: give its password with --password"},
        {"info locked.pdf --password wrong", 1, "", "locked.pdf: wrong password (--password)"},
        {"--password secret info locked.pdf", 0,
         "encrypted:   yes\npermissions: allowed: print, edit content; not allowed: copy text and graphics, edit "
         "pages, extract pages\n"},
        {"info locked.pdf --password owner", 0, "permissions: everything allowed\n"},
        {"info nothing.pdf", 0,
         "permissions: nothing allowed (print, edit content, copy text and graphics, edit pages, extract pages)\n"},
        {"info cut.pdf", 1, "", "quirelle: cut.pdf: no page could be read: the file is damaged"},
        {"text cut.pdf 1", 1, "", "quirelle: cut.pdf: no page could be read: the file is damaged"},
        {"text cycle.pdf 1", 1, "", "quirelle: cycle.pdf: "},
        {"info missing.pdf", 1, "", "quirelle: missing.pdf: no such file"},
        {"info bad.pdf", 1, "", "bad.pdf: not a PDF or image file"},
        {"info .", 1, "", ".: is a directory"},
        {"info", 2, "", "FILE is required"},
        {"frobnicate doc.pdf", 2, "", "unknown command \"frobnicate\""},
        {"info --help", 0, "--links"},
        {"--time-budget 0 info doc.pdf", 2, "", "--time-budget"},
        {"--time-budget 1 info noxref.pdf", 1, "", "noxref.pdf: the time budget of 1 ms ran out while opening it"},
        {"text doc.pdf 3,1", 0, "Page 3\nQuirelle and quirelle\n\fPage 1\n"},
        {"text doc.pdf z-11", 0, "Page 12\n\fPage 11\nQuirellex\n"},
        {"text doc.pdf 2-", 2, "", "bad page range \"2-\": write pages like 1-3,7,10-z"},
        {"text doc.pdf 0", 2, "", "page 0 is out of range: the document has 12 page(s)"},
        {"text doc.pdf 1,13", 2, "", "page 13 is out of range"},
    });
}

TEST_F(Cli, Search) {
    RunAll({
        {"search doc.pdf Quirelle", 0, "page 3: 2 hits\n  \"Quirelle\"  [72.0 ", "",
         [](const Result& r) { EXPECT_THAT(r.out, HasSubstr("page 11: 1 hit\n")); }},
        {"search doc.pdf Quirelle", 0, "3 hits on 2 of 12 page(s)\n"},
        {"search doc.pdf quirelle --case", 0, "1 hit on 1 of 12 page(s)\n"},
        {"search doc.pdf Quirelle --words", 0, "2 hits on 1 of 12 page(s)\n"},
        {"search doc.pdf nowhere", 1, "0 hits on 0 of 12 page(s)\n"},
        // The search wraps around from the start page, and prints as it goes.
        {"search doc.pdf Quirelle --from 5", 0, "", "",
         [](const Result& r) { EXPECT_LT(r.out.find("page 11:"), r.out.find("page 3:")); }},
        {"search doc.pdf 'and quirelle' --json", 0, "", "",
         [](const Result& r) {
             std::istringstream lines(r.out);
             std::string first, last;
             std::getline(lines, first);
             std::getline(lines, last);
             const json page = json::parse(first);
             EXPECT_EQ(page["page"], 3);
             EXPECT_EQ(page["hits"][0]["text"], "and quirelle");
             EXPECT_EQ(page["hits"][0]["rects"].size(), 1u);
             EXPECT_GT(page["hits"][0]["rects"][0]["top"], page["hits"][0]["rects"][0]["bottom"]);
             EXPECT_EQ(json::parse(last), json::parse(R"({"hits":1,"pagesWithHits":1,"pagesSearched":12})"));
         }},
        {"search doc.pdf Quirelle --from 13", 2, "", "--from 13 is out of range"},
        {"search doc.pdf ''", 2, "", "the text to search for is empty"},
        {"search locked.pdf Page", 1, "", "--password"},
    });
}

TEST_F(Cli, Render) {
    RunAll({
        {"render doc.pdf 1,12,2 --dpi 36 --out pics", 0, "pics: 3 of 3 page(s) rendered (page-001.png to page-012.png)",
         "",
         [](const Result&) {
             EXPECT_EQ(PngSize(dir->File("pics/page-001.png")), std::make_pair(298, 421));
             EXPECT_EQ(PngSize(dir->File("pics/page-012.png")), std::make_pair(306, 396));  // as displayed
             // Compressed, and grey as the page is.
             EXPECT_LT(fs::file_size(dir->File("pics/page-001.png")), 20'000u);
             EXPECT_EQ(ReadFile(dir->File("pics/page-001.png")).at(25), 0);
         }},
        {"render photo.pdf 1 --dpi 36 --png-level 1 --out pics", 0, "(page-001.png)", "",
         [](const Result&) {
             const QImage picture(QString::fromStdString(dir->File("pics/page-001.png").string()));
             EXPECT_EQ(picture.pixel(150, 150) & 0xFFFFFF, 0x3080C0u);       // the channels in their order
             EXPECT_EQ(ReadFile(dir->File("pics/page-001.png")).at(25), 2);  // RGB
         }},
        {"render doc.pdf 11 --width 200 --out pics", 0, "(page-011.png)", "",
         [](const Result&) { EXPECT_EQ(PngSize(dir->File("pics/page-011.png")), std::make_pair(200, 155)); }},
        {"render doc.pdf 3 --height 100 --format jpg --out pics", 0, "(page-003.jpg)", "",
         [](const Result&) { EXPECT_EQ(ReadFile(dir->File("pics/page-003.jpg")).substr(0, 2), "\xFF\xD8"); }},
        {"render doc.pdf 13 --out pics", 2, "", "page 13 is out of range"},
        {"render doc.pdf --dpi 72 --width 10 --out pics", 2, "", "--dpi excludes --width"},
        {"render doc.pdf --dpi 0 --out pics", 2, "", "quirelle: --dpi: 0 is not between 1 and 2400 (see --help)"},
        {"render doc.pdf --width 2.5 --out pics", 2, "", "--width: 2.5 is not a whole number"},
        {"render cycle.pdf --out pics", 1, "", "quirelle: cycle.pdf: "},
        {"render doc.pdf --out pics --format gif", 2, "", "--format"},
        {"render doc.pdf --out doc.pdf", 1, "", "doc.pdf: cannot make the directory"},
    });
}

// A page that cannot be drawn whole is an error, and no picture of it is
// written; --keep-going goes on with the others, still with status 1. The
// photograph alone needs more memory than the limit allows: decoded whole for
// a whole picture, and at 600 dpi even for one strip of it.
TEST_F(Cli, RenderCutShortOrBeyondTheMemoryLimitIsAnError) {
    RunAll({
        {"render broken.pdf --out cut", 1, "", "quirelle: broken.pdf: page 1: cycle in page tree (--keep-going",
         [](const Result&) { EXPECT_FALSE(fs::exists(dir->File("cut/page-002.png"))); }},
        {"render broken.pdf --keep-going --out cut", 1, "cut: 1 of 2 page(s) rendered (page-002.png)",
         "quirelle: broken.pdf: page 1: cycle in page tree\n"},
        {"--time-budget 1 render photo.pdf --dpi 300 --out short", 1, "", "quirelle: photo.pdf: page 1: ",
         [](const Result&) { EXPECT_FALSE(fs::exists(dir->File("short/page-001.png"))); }},
        {"--memory-limit 16 render photo.pdf 1 --dpi 300 --format jpg --out short", 1, "",
         "quirelle: photo.pdf: page 1: the page could not be drawn completely"},
        {"--memory-limit 16 render photo.pdf 1 --dpi 600 --out short", 1, "",
         "quirelle: photo.pdf: page 1: the page could not be drawn completely"},
    });
}

// A run stopped in the middle (by Ctrl+C, or here SIGTERM, since a command
// started in the background ignores SIGINT) leaves whole pictures and
// nothing else.
TEST_F(Cli, InterruptedRenderLeavesOnlyWholePictures) {
    const std::string command = "cd '" + dir->Path().string() +
                                "' && ('" QUIRELLE_CLI
                                "' render doc.pdf --dpi 300 --out stop & sleep 0.4; kill -TERM $!; wait $!)";
    const int raw = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(raw));
    EXPECT_EQ(WEXITSTATUS(raw), 128 + SIGTERM);  // the run was cut short
    for (const auto& entry : fs::directory_iterator(dir->File("stop"))) {
        const std::string name = entry.path().filename().string();
        EXPECT_EQ(name.substr(0, 5), "page-") << name;
        const std::string bytes = ReadFile(entry.path());
        ASSERT_GE(bytes.size(), 8u) << name;
        EXPECT_EQ(bytes.substr(bytes.size() - 8), std::string("IEND\xAE\x42\x60\x82", 8)) << name;
    }
}

// Pictures are drawn and written in strips: a page of text and rules comes
// out as the service draws it whole, turned every way, grey or in colour (a
// page whose colour shows only near its bottom is begun in grey and written
// again).
TEST_F(Cli, RenderedInStripsAsDrawnWhole) {
    PdfBuilder builder;
    for (int rotate : {0, 90, 180, 270}) {
        PageLayout page;
        page.width = 595;
        page.height = 842;
        page.rotate = rotate;
        page.cropBox = Rect{20, 830, 580, 15};
        page.text = {{72, 700, 30, "Strips " + std::to_string(rotate)}};
        page.text.push_back({60, 300, 9, "A line of smaller text, and a rule across the page under it"});
        page.rects = {{{30, 760, 565, 120}, 0x606060}, {{50, 700, 545, 140}, 0xFFFFFF}};
        if (rotate != 0) page.rects.push_back({{400, 60, 500, 30}, 0xC03020});
        builder.AddPage(page);
    }
    builder.Save(dir->File("strips.pdf"));
    ASSERT_EQ(Run("render strips.pdf --dpi 150 --out strips").status, 0);

    Orvane::PDF::Quirelle service(nullptr);
    const int64_t id = service.OpenDocument(dir->File("strips.pdf"), "").get().id;
    for (unsigned n = 0; n < 4; ++n) {
        SCOPED_TRACE(n);
        const std::string file = dir->File("strips/page-00" + std::to_string(n + 1) + ".png").string();
        EXPECT_EQ(ReadFile(file).at(25), n == 0 ? 0 : 2);  // grey, else RGB
        const QImage strips = QImage(QString::fromStdString(file)).convertToFormat(QImage::Format_RGB32);
        const QImage whole = service.GeneratePageImage(id, n, strips.width(), strips.height())
                                 .get()
                                 .convertToFormat(QImage::Format_RGB32);
        EXPECT_GT(strips.height(), 1000);
        EXPECT_TRUE(strips == whole);
    }
}

TEST_F(Cli, EditsWriteNewFilesOrInPlaceAndNeverOverTheirInputs) {
    RunAll({
        {"export doc.pdf 3,1 --out two.pdf", 0, "two.pdf: 2 pages exported from doc.pdf\n"},
        {"text two.pdf", 0, "Page 3\nQuirelle and quirelle\n\fPage 1\n"},
        {"export doc.pdf 1 --out nodir/x.pdf", 1, "", "nodir/x.pdf: cannot write the file: no directory nodir"},
        {"export locked.pdf 1 --password secret --out x.pdf", 1, "", "does not allow extracting its pages"},
        {"export locked.pdf 2,1 --password owner --out unlocked.pdf", 0, ""},
        {"text unlocked.pdf", 0, "Page 2\n\fPage 1\n"},
        {"merge two.pdf doc.pdf:12-11 scan.tiff:2 --out all.pdf", 0, "all.pdf: 5 pages from 3 file(s)\n"},
        {"info all.pdf", 0,
         "1-2: A4 portrait\n             3: Letter portrait, rotated 90\n"
         "             4: Letter landscape\n             5: 40 x 30 pt landscape\n"},
        {"merge two.pdf doc.pdf:40 --out x.pdf", 2, "", "doc.pdf: page 40 is out of range"},
        {"merge two.pdf missing.pdf --out x.pdf", 1, "", "missing.pdf: no such file"},
        {"rotate two.pdf 2 --by 180 --out turned.pdf", 0, "turned.pdf: 1 page rotated by 180 degrees\n"},
        {"info turned.pdf", 0, "1: A4 portrait\n             2: A4 portrait, rotated 180\n"},
        {"rotate two.pdf 1 --by 90", 2, "", "--out NEW.pdf or --in-place"},
        {"rotate locked.pdf 1 --by 90 --password secret --out x.pdf", 1, "", "does not allow changing its pages"},
        {"rotate locked.pdf 1 --by 90 --password owner --out kept.pdf", 0,
         "kept.pdf: 1 page rotated by 90 degrees\n"},
        {"info kept.pdf --password secret", 0, "encrypted:   yes\n"},
        {"rotate locked.pdf 1 --by 90 --password owner --decrypt --out plain.pdf", 0,
         "plain.pdf: 1 page rotated by 90 degrees (written without encryption)\n"},
        {"info plain.pdf", 0, "encrypted:   no\n"},
        {"rotate locked.pdf 1 --by 90 --password owner --decrypt --in-place", 2, "", "use it with --out"},
        {"rotate locked-edit.pdf 1 --by 90 --password owner --in-place", 0,
         "locked-edit.pdf: 1 page rotated by 90 degrees\n"},
        {"info locked-edit.pdf --password secret", 0, "page sizes:  1: Letter landscape, rotated 90\n"},
        {"delete doc.pdf 2-z --out one.pdf", 0, "one.pdf: 11 pages deleted, 1 page left\n"},
        {"delete one.pdf 1 --in-place", 2, "", "cannot delete every page"},
        {"move doc.pdf 11-12 --to 2 --out moved.pdf", 0, "moved.pdf: 2 pages moved to page 2\n"},
        {"text moved.pdf 1-4", 0, "Page 1\n\fPage 11\nQuirellex\n\fPage 12\n\fPage 2\n"},
        {"move doc.pdf 1,3 --to 11 --out moved.pdf", 0, ""},
        {"text moved.pdf 9-z", 0, "Page 11\nQuirellex\n\fPage 12\n\fPage 1\n\fPage 3\n"},
        {"move doc.pdf 1 --to 13 --out x.pdf", 2, "", "--to 13 is out of range"},
        {"blank edit.pdf --at 13 --size Letter --in-place", 0, "edit.pdf: blank page of 612 x 792 pt added as page 13"},
        {"blank edit.pdf --at 1 --in-place", 0, "blank page of 595 x 842 pt added as page 1"},
        {"info edit.pdf", 0, "pages:       14\npage sizes:  1-11: A4 portrait\n"},
        {"text edit.pdf 2", 0, "Page 1\n"},
        {"blank edit.pdf --at 16 --in-place", 2, "", "--at 16 is out of range: it can be from 1 to 15"},
        {"blank edit.pdf --at 1 --size 0x5 --in-place", 2, "", "--size 0x5"},
        {"images-to-pdf scan.tiff scan.tiff --out scans.pdf", 0, "scans.pdf: 6 pages from 2 image(s)\n"},
        {"info scans.pdf", 0, "1-6: 40 x 30 pt landscape\n"},
        {"images-to-pdf doc.pdf --out x.pdf", 2, "", "doc.pdf: not an image file name"},
        {"images-to-pdf missing.png --out x.pdf", 1, "", "missing.png: no such file"},
        // Only --out and --in-place name a file to write: the old form with the
        // new file first, or an output that is one of the inputs, changes nothing.
        {"merge two.pdf doc.pdf", 2, "", "say where the result goes: quirelle merge two.pdf doc.pdf --out NEW.pdf"},
        {"images-to-pdf scan.tiff scan.tiff", 2, "", "quirelle images-to-pdf scan.tiff scan.tiff --out NEW.pdf"},
        {"merge doc.pdf two.pdf:1 --out two.pdf", 2, "", "two.pdf: is an input of the command"},
        {"export two.pdf 1 --out ./two.pdf", 2, "", "./two.pdf: is the same file as two.pdf, an input"},
        {"rotate two.pdf 1 --by 90 --out two.pdf", 2, "", "to change the file itself, use --in-place"},
        {"images-to-pdf scan.tiff --out scan.tiff", 2, "", "scan.tiff: is an input"},
        {"rotate scan.tiff 1 --by 90 --in-place", 2, "", "scan.tiff: an image file cannot be replaced by a PDF"},
        {"text two.pdf", 0, "Page 3\nQuirelle and quirelle\n\fPage 1\n"},
        {"info scan.tiff", 0, "pages:       3\n"},
    });
}

}  // namespace
}  // namespace QuirelleTest

namespace QuirelleTest {
namespace {

TEST_F(Cli, FieldsFillAndFlatten) {
    using Kind = FieldLayout::Kind;
    auto form = [](PdfBuilder& builder) -> PdfBuilder& {
        return builder.AddNumberedPages(1)
            .AddField({Kind::Text, "name", "Ann", {}, {{0, {100, 700, 300, 680}}}})
            .AddField({Kind::CheckBox, "agree", "Off", {}, {{0, {100, 650, 115, 635}}}})
            .AddField({Kind::Radio, "size", "s", {"s", "m"}, {{0, {100, 600, 115, 585}}, {0, {130, 600, 145, 585}}}})
            .AddField({Kind::Choice, "colour", "Red", {"Red", "Blue"}, {{0, {100, 550, 250, 530}}}});
    };
    PdfBuilder plain;
    form(plain).Save(dir->File("form.pdf"));
    PdfBuilder locked;  // opens without a password, forbids changes (bit 4) but not filling in
    form(locked).Encrypt({"", "owner", -4 & ~(1 << 3)}).Save(dir->File("form-locked.pdf"));
    PdfBuilder closed;  // forbids changes, comments (bit 6) and filling in (bit 9)
    form(closed).Encrypt({"", "owner", -4 & ~(1 << 3) & ~(1 << 5) & ~(1 << 8)}).Save(dir->File("form-closed.pdf"));
    RunAll({
        {"fields form.pdf", 0, "name\ttext\tAnn\t1\nagree\tcheckbox\tOff\t1\nsize\tradio\ts\t1\ncolour\tcombobox\tRed\t1\n"},
        {"fill form.pdf name=Zoe agree=on size=m colour=Blue --out filled.pdf", 0, "filled.pdf: 4 fields filled\n"},
        {"fields filled.pdf", 0, "name\ttext\tZoe\t1\nagree\tcheckbox\tYes\t1\nsize\tradio\tm\t1\ncolour\tcombobox\tBlue\t1\n"},
        {"fill form.pdf agree=maybe --out x.pdf", 2, "", "agree=maybe: a check box takes on or off"},
        {"fill form.pdf colour=Green --out x.pdf", 1, "", "no option 'Green'"},
        {"fill form.pdf nosuch=1 --out x.pdf", 2, "", "no field named nosuch"},
        {"fill form.pdf name --out x.pdf", 2, "", "write NAME=VALUE"},
        {"fill form.pdf name=Zoe", 2, "", "say where the result goes"},
        {"fill form-closed.pdf name=Zoe --out x.pdf", 1, "", "does not allow filling in its form"},
        {"--password owner fill form-closed.pdf name=Zoe --out unlocked-form.pdf", 0, "1 field filled"},
        {"fill form-locked.pdf name=Zoe --out filled-locked.pdf", 0, "1 field filled"},
        {"flatten form-locked.pdf --out x.pdf", 1, "", "does not allow changing its pages"},
        {"fields filled.pdf --json", 0, "\"fields\"", "",
         [](const Result& result) {
             json values = json::parse(result.out);
             values["fields"][0]["value"] = "Kim";
             values["fields"][1]["value"] = "off";
             WriteFile(dir->File("values.json"), values.dump());
         }},
        {"fill filled.pdf --from values.json --in-place", 0, "filled.pdf: 2 fields filled\n"},
        {"fields filled.pdf", 0, "name\ttext\tKim\t1\nagree\tcheckbox\tOff\t1\nsize\tradio\tm\t1\n"},
        {"flatten filled.pdf --out flat.pdf", 0, "flat.pdf: 4 fields turned into page content\n"},
        {"fields flat.pdf", 0, ""},
        {"text flat.pdf", 0, "Kim"},
    });
}

}  // namespace
}  // namespace QuirelleTest
