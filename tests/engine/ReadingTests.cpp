// Outline, page labels, document information, selection and tiles, on files
// the tests build.

#include <gmock/gmock.h>

#include <cmath>
#include <functional>

#include "bench/common/CorpusDir.h"
#include "engine/Reading.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

// The engine's entry, not the fixture builder's.
using OutlineEntry = Orvane::PDF::OutlineEntry;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class Reading : public FileTest {};

// "title>page" for each entry, children indented by two spaces.
void Flatten(const std::vector<OutlineEntry>& entries, Strings& out, const std::string& indent = "") {
    for (const OutlineEntry& entry : entries) {
        out.push_back(indent + entry.title + ">" + std::to_string(entry.pageIndex));
        Flatten(entry.children, out, indent + "  ");
    }
}

TEST_F(Reading, OutlineResolvesEveryKindOfTargetAndCutsALoop) {
    auto document = Open(RawPdf({
        "<< /Type /Catalog /Pages 2 0 R /Outlines 6 0 R /Names << /Dests << /Names [(intro) [4 0 R /XYZ 10 700 2]] >> "
        ">> /Dests << /legacy [5 0 R /FitH 300] >> >>",
        "<< /Type /Pages /Count 3 /Kids [3 0 R 4 0 R 5 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
        "<< /Type /Outlines /First 7 0 R /Count 3 >>",
        // 7: explicit, open, with two children; 8: named (names tree); 9: named (old /Dests) whose /Next loops to 7.
        "<< /Title (Chapter 1) /Parent 6 0 R /Next 8 0 R /First 10 0 R /Count 2 /Dest [3 0 R /XYZ null 500 0] "
        "/C [1 0 0] /F 3 >>",
        "<< /Title <FEFF004300680061007000740065007200A00032> /Parent 6 0 R /Next 9 0 R /A << /S /GoTo /D (intro) >> "
        "/Count -1 /First 12 0 R >>",
        "<< /Title (Chapter 3) /Parent 6 0 R /Next 7 0 R /Dest /legacy >>",
        "<< /Title (Web) /Parent 7 0 R /Next 11 0 R /A << /S /URI /URI (https://example.com/) >> >>",
        "<< /Title (Lost) /Parent 7 0 R /Dest [99 0 R /Fit] >>",
        // 12: a child whose own child is itself.
        "<< /Title (Self) /Parent 8 0 R /First 12 0 R /Dest [2 /Fit] >>",
    }));
    const std::vector<OutlineEntry> outline = Pdfium::ReadOutline(*document);
    Strings flat;
    Flatten(outline, flat);
    EXPECT_THAT(flat, ElementsAre("Chapter 1>0", "  Web>-1", "  Lost>-1", "Chapter\u00A02>1", "  Self>2",
                                  "Chapter 3>2"));
    ASSERT_EQ(outline.size(), 3u);
    const OutlineEntry& first = outline[0];
    EXPECT_TRUE(first.open);
    EXPECT_TRUE(first.hasColor);
    EXPECT_EQ(first.color, 0xFF0000u);
    EXPECT_TRUE(first.bold && first.italic);
    EXPECT_EQ(first.y, 500);
    EXPECT_EQ(first.zoom, 0);
    EXPECT_EQ(first.children[0].uri, "https://example.com/");
    EXPECT_FALSE(outline[1].open);
    EXPECT_EQ(outline[1].x, 10);
    EXPECT_EQ(outline[1].y, 700);
    EXPECT_EQ(outline[1].zoom, 2);
    EXPECT_EQ(outline[2].y, 300);
    EXPECT_FALSE(outline[2].hasColor || outline[2].bold);
}

TEST_F(Reading, OutlineNestedBeyondTheLimitIsCut) {
    const int levels = Pdfium::kMaxOutlineDepth + 10;
    std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R /Outlines 4 0 R >>",
                                        "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
                                        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
                                        "<< /First 5 0 R >>"};
    for (int i = 0; i < levels; ++i) {
        const int num = 5 + i;
        objects.push_back("<< /Title (L" + std::to_string(i) + ") /Dest [3 0 R /Fit]" +
                          (i + 1 < levels ? " /First " + std::to_string(num + 1) + " 0 R" : "") + " >>");
    }
    const std::vector<OutlineEntry> outline = Pdfium::ReadOutline(*Open(RawPdf(objects)));
    int depth = 0;
    for (const std::vector<OutlineEntry>* level = &outline; !level->empty(); level = &level->front().children) ++depth;
    EXPECT_EQ(depth, Pdfium::kMaxOutlineDepth + 1);
    EXPECT_TRUE(Pdfium::ReadOutline(*Open(PdfBuilder().AddNumberedPages(1))).empty());
}

TEST_F(Reading, PageLabelsFollowTheNumberTree) {
    // Roman front matter, arabic body from 1, an appendix "A-" from 1, one
    // range of letters starting at 27, one of a prefix alone; the tree split
    // into kids.
    std::vector<std::string> objects = {
        "<< /Type /Catalog /Pages 2 0 R /PageLabels << /Kids [3 0 R 4 0 R] >> >>",
        "<< /Type /Pages /Count 12 /Kids [5 0 R 6 0 R 7 0 R 8 0 R 9 0 R 10 0 R 11 0 R 12 0 R 13 0 R 14 0 R 15 0 R "
        "16 0 R] >>",
        "<< /Limits [0 3] /Nums [0 << /S /r >> 3 << /S /D >>] >>",
        "<< /Limits [6 10] /Nums [6 << /S /D /P (A-) >> 8 << /S /A /St 27 >> 10 << /P (Cover) >>] >>",
    };
    for (int i = 0; i < 12; ++i) objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>");
    auto document = Open(RawPdf(objects));
    const Strings labels = Pdfium::ReadPageLabels(*document);
    EXPECT_THAT(labels, ElementsAre("i", "ii", "iii", "1", "2", "3", "A-1", "A-2", "AA", "BB", "Cover", "Cover"));
    struct Case {
        const char* typed;
        int page;
    };
    for (const Case& c : {Case{"iii", 2}, Case{" A-2 ", 7}, Case{"III", 2}, Case{"2", 4}, Case{"aa", 8},
                          Case{"12", 11}, Case{"13", -1}, Case{"xiv", -1}, Case{"", -1}}) {
        EXPECT_EQ(Pdfium::FindPageByLabel(labels, c.typed), c.page) << c.typed;
    }
    EXPECT_THAT(Pdfium::ReadPageLabels(*Open(PdfBuilder().AddNumberedPages(3))), ElementsAre("1", "2", "3"));
    EXPECT_EQ(Pdfium::FormatPageLabel('R', "", 1994), "MCMXCIV");
    EXPECT_EQ(Pdfium::FormatPageLabel('a', "x", 53), "xaaa");
    EXPECT_EQ(Pdfium::FormatPageLabel('r', "", 123456), "123456");
}

TEST_F(Reading, PageLabelTreeThatLoopsIsCut) {
    auto document = Open(RawPdf({
        "<< /Type /Catalog /Pages 2 0 R /PageLabels 4 0 R >>",
        "<< /Type /Pages /Count 2 /Kids [3 0 R 5 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>",
        "<< /Kids [4 0 R 6 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>",
        "<< /Nums [1 << /S /R /St 4 >>] >>",
    }));
    EXPECT_THAT(Pdfium::ReadPageLabels(*document), ElementsAre("1", "IV"));
}

TEST_F(Reading, DocumentInformation) {
    auto document = Open(RawPdf({
        "<< /Type /Catalog /Pages 2 0 R /Version /1.7 /PageLayout /TwoColumnLeft /PageMode /UseOutlines /MarkInfo "
        "<< /Marked true >> /AcroForm << /Fields [4 0 R] >> /OCProperties << /OCGs [5 0 R] >> /Names << "
        "/EmbeddedFiles << /Names [(a.txt) 6 0 R] >> >> >>",
        "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>",
        "<< /FT /Tx /T (name) >>",
        "<< /Type /OCG /Name (Layer) >>",
        "<< /Type /Filespec /F (a.txt) >>",
        "<< /Title <FEFF0054006900740072006500200C9E> /Author (Ann Writer) /Subject (S) /Keywords (k1, k2) "
        "/Creator (Maker) /Producer (Press) /CreationDate (D:20240131235959-05'30') /ModDate (D:2023) >>",
    }));
    // RawPdf has no /Info in its trailer: point it at object 7.
    fz_context* ctx = document->Core()->ctx;
    pdf_document* doc = document->Core()->doc;
    guarded(ctx, [&] { pdf_dict_put_drop(ctx, pdf_trailer(ctx, doc), PDF_NAME(Info), pdf_new_indirect(ctx, doc, 7, 0)); });
    const DocumentInformation info = Pdfium::ReadDocumentInformation(*document);
    EXPECT_EQ(info.title, "Titre \u0C9E");
    EXPECT_EQ(info.author, "Ann Writer");
    EXPECT_EQ(info.keywords, "k1, k2");
    EXPECT_EQ(info.creator, "Maker");
    EXPECT_EQ(info.producer, "Press");
    EXPECT_EQ(info.created.raw, "D:20240131235959-05'30'");
    EXPECT_TRUE(info.created.valid);
    EXPECT_EQ(info.created.offsetMinutes, -330);
    EXPECT_EQ(info.created.secondsSinceEpoch, 1706745599 + 330 * 60);
    EXPECT_TRUE(info.modified.valid);
    EXPECT_EQ(info.modified.month, 1);
    EXPECT_FALSE(info.modified.hasOffset);
    EXPECT_EQ(info.version, "1.7");
    EXPECT_EQ(info.pageLayout, "TwoColumnLeft");
    EXPECT_EQ(info.pageMode, "UseOutlines");
    EXPECT_TRUE(info.tagged && info.hasForm && info.hasLayers && info.hasAttachments);
    EXPECT_EQ(info.encryption, "");

    EXPECT_FALSE(Pdfium::ParsePdfDate("D:2024133").valid);
    EXPECT_FALSE(Pdfium::ParsePdfDate("yesterday").valid);
    EXPECT_EQ(Pdfium::ParsePdfDate("D:19700101000000Z").secondsSinceEpoch, 0);

    Encryption aes;
    aes.userPassword = "u";
    const DocumentInformation plain =
        Pdfium::ReadDocumentInformation(*Open(PdfBuilder().AddNumberedPages(1).Encrypt(aes), "u"));
    EXPECT_EQ(plain.encryption, "AES 128-bit");
    EXPECT_TRUE(plain.title.empty());
    EXPECT_FALSE(plain.created.valid || plain.tagged || plain.hasForm || plain.hasLayers || plain.hasAttachments);
}

// Two columns, written column after column: the reading order.
PageLayout TwoColumns() {
    PageLayout page;
    const char* left[] = {"Left one", "Left two", "Left three"};
    const char* right[] = {"Right one", "Right two", "Right three"};
    for (int i = 0; i < 3; ++i) page.text.push_back({72, 700.0 - 20 * i, 12, left[i]});
    for (int i = 0; i < 3; ++i) page.text.push_back({320, 690.0 - 20 * i, 12, right[i]});
    return page;
}

TEST_F(Reading, SelectionFollowsReadingOrderAcrossColumns) {
    const auto text = FirstPage(TwoColumns())->GetTextObject();
    // From inside "two" of the left column to inside "two" of the right one.
    const Rect leftTwo = text->GetCharBox(static_cast<int>(text->GetText().find(L"two")));
    const size_t rightTwoAt = text->GetText().find(L"two", text->GetText().find(L"Right"));
    const Rect rightTwo = text->GetCharBox(static_cast<int>(rightTwoAt) + 1);
    const Position from{leftTwo.left + 0.1, (leftTwo.top + leftTwo.bottom) / 2};
    const Position to{rightTwo.right - 0.1, (rightTwo.top + rightTwo.bottom) / 2};
    const TextSelection drag = Pdfium::SelectBetween(*text, from, to);
    EXPECT_EQ(drag.text, "two\nLeft three\nRight one\nRight tw");
    EXPECT_EQ(drag.rects.size(), 4u);
    EXPECT_EQ(Pdfium::SelectBetween(*text, to, from).text, drag.text);  // a drag upward
    EXPECT_EQ(Pdfium::SelectBetween(*text, from, from).charCount, 0);

    EXPECT_EQ(Pdfium::SelectWordAt(*text, to).text, "two");
    const TextSelection line = Pdfium::SelectLineAt(*text, {330, 630});  // below the right column: its last line
    EXPECT_EQ(line.text, "Right three");
    EXPECT_EQ(line.rects.size(), 1u);
    const TextSelection all = Pdfium::SelectAllText(*text);
    EXPECT_EQ(all.text, "Left one\nLeft two\nLeft three\nRight one\nRight two\nRight three");
    EXPECT_EQ(all.rects.size(), 6u);
}

TEST_F(Reading, CopiedTextJoinsHyphenatedWordsAndSpellsOutLigatures) {
    PageLayout page;
    page.text = {{72, 700, 12, "a docu-"}, {72, 686, 12, "ment that is \xEF\xAC\x81ne,"}, {72, 672, 12, "well"}};
    const auto text = FirstPage(page)->GetTextObject();
    EXPECT_EQ(Pdfium::SelectAllText(*text).text, "a document that is fine,\nwell");
    EXPECT_TRUE(Pdfium::SelectAllText(*FirstPage(PageLayout{})->GetTextObject()).text.empty());
}

// The pixels of a tile against the same pixels of the whole picture: how many
// differ, and by how much at most in any channel.
std::pair<int, int> CompareTile(const std::shared_ptr<IPage>& page, const Rect& region, double scale, int wholeWidth,
                                int wholeHeight, int left, int top) {
    const QImage tile = Pdfium::RenderTile(page, region, scale, false);
    EXPECT_EQ(tile.size(), QSize(300, 300));
    const Picture whole(page, wholeWidth, wholeHeight);
    int differing = 0, most = 0;
    for (int y = 0; y < tile.height(); ++y) {
        const auto* row = reinterpret_cast<const uint32_t*>(tile.constScanLine(y));
        for (int x = 0; x < tile.width(); ++x) {
            const uint32_t a = row[x], b = whole.At(left + x, top + y);
            differing += a != b;
            for (int shift = 0; shift < 32; shift += 8) {
                most = std::max(most, std::abs(int((a >> shift) & 0xFF) - int((b >> shift) & 0xFF)));
            }
        }
    }
    return {differing, most};
}

TEST_F(Reading, TilesHoldThePixelsOfTheWholePictureAndCheckTheirArguments) {
    PageLayout page = TwoColumns();
    page.rects = {{{100, 650, 400, 400}, 0x3366CC}};
    page.images = {{{150, 380, 350, 250}, 16, 16, 0xCC2200, 128}};
    for (int rotate : {0, 90}) {
        SCOPED_TRACE(rotate);
        page.rotate = rotate;
        page.extraContent.clear();
        // At 1.5 pixels a point the page is 918 x 1188 (turned: 1188 x 918).
        const Rect region{100, 500, 300, 300};
        const int left = rotate ? 450 : 150, top = rotate ? 150 : 438;
        const int width = rotate ? 1188 : 918, height = rotate ? 918 : 1188;
        EXPECT_EQ(CompareTile(FirstPage(page), region, 1.5, width, height, left, top), std::make_pair(0, 0));
        // MuPDF's anti-aliasing rasteriser clips every edge to the
        // rectangle it draws into (its destination), and steps an edge
        // clipped there from the rounded crossing point rather than from
        // the edge's own start: a slanted edge that crosses a tile's border
        // lands up to a sub-pixel off along its length. The destination is
        // the tile's memory, so only a tile of the whole picture is exact.
        page.extraContent = "0 0.5 0 RG 3 w 40 40 m 560 760 l 300 100 l S";
        const auto [differing, most] = CompareTile(FirstPage(page), region, 1.5, width, height, left, top);
        EXPECT_LT(differing, 400);
        EXPECT_LE(most, 8);
        const QImage all = Pdfium::RenderTile(FirstPage(page), {0, 792, 612, 0}, 1.5, false);
        const Picture whole(FirstPage(page), width, height);
        int unequal = 0;
        for (int y = 0; y < all.height(); ++y)
            for (int x = 0; x < all.width(); ++x) unequal += all.pixel(x, y) != whole.At(x, y);
        EXPECT_EQ(unequal, 0);
    }

    // Arguments are checked.
    const auto plain = FirstPage(TwoColumns());
    const std::function<void()> calls[] = {
        [&] { Pdfium::RenderTile(plain, {0, 0, 10, 10}, 1, false); },             // empty (top below bottom)
        [&] { Pdfium::RenderTile(plain, {700, 900, 800, 800}, 1, false); },       // off the page
        [&] { Pdfium::RenderTile(plain, {0, 100, 100, 0}, 0, false); },           // no scale
        [&] { Pdfium::RenderTile(plain, {0, 792, 612, 0}, 100, false); },         // 3,7 gigapixels
        [&] { Pdfium::RenderTile(plain, {0, NAN, 100, 0}, 1, false); },           // not finite
    };
    for (const auto& call : calls) EXPECT_THROW(call(), std::invalid_argument);
    // At 3200 % a tile of 512 x 512 pixels is 16 x 16 points, and white where nothing is drawn.
    const QImage tile = Pdfium::RenderTile(plain, {500, 100, 516, 84}, 32, false);
    EXPECT_EQ(tile.size(), QSize(512, 512));
    EXPECT_EQ(tile.pixel(0, 0), 0xFFFFFFFFu);
}

// MuPDF's own outline reader as a reference: "title>page" as Flatten writes
// them. MuPDF gives page 0 to an entry that leads to no page of the document
// (another file, no action at all), where the service answers -1.
void FlattenMuPdf(fz_context* ctx, fz_outline* item, Strings& out, const std::string& indent = "") {
    for (; item != nullptr; item = item->next) {
        const bool inDocument = item->uri != nullptr && !fz_is_external_link(ctx, item->uri);
        out.push_back(indent + (item->title ? item->title : "") + ">" +
                      std::to_string(inDocument ? item->page.page : -1));
        FlattenMuPdf(ctx, item->down, out, indent + "  ");
    }
}

// The Debian manuals the benchmarks fetch (bench/fetch-corpus.sh), when present.
TEST_F(Reading, OutlinesOfRealManualsMatchMuPdfsOwnReader) {
    const auto root = QuirelleBench::CorpusDir() / "x" / "usr" / "share" / "doc";
    std::error_code error;
    if (!std::filesystem::is_directory(root, error)) GTEST_SKIP() << "no corpus at " << root;
    int compared = 0, entries = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(root, error)) {
        if (file.path().extension() != ".pdf") continue;
        std::shared_ptr<Pdfium::PdfDocument> document;
        try {
            document = OpenFile(file.path());
        } catch (const std::exception&) {
            continue;  // not the outline's business
        }
        Strings ours, theirs;
        Flatten(Pdfium::ReadOutline(*document), ours);
        fz_context* ctx = document->Core()->ctx;
        fz_outline* outline = guarded(ctx, [&] { return fz_load_outline(ctx, &document->Core()->doc->super); });
        FlattenMuPdf(ctx, outline, theirs);
        fz_drop_outline(ctx, outline);
        if (ours != theirs) {
            size_t i = 0;
            while (i < ours.size() && i < theirs.size() && ours[i] == theirs[i]) ++i;
            ADD_FAILURE() << file.path() << ": entry " << i << " of " << ours.size() << "/" << theirs.size() << ": "
                          << (i < ours.size() ? ours[i] : "-") << " | " << (i < theirs.size() ? theirs[i] : "-");
        }
        ++compared;
        entries += static_cast<int>(ours.size());
    }
    std::printf("outlines of %d manuals compared, %d entries\n", compared, entries);
}

}  // namespace
}  // namespace QuirelleTest
