// Annotations as files hold them: every numbered type with the values its
// dictionary gives; before an update, hidden annotations are looked for
// only in what it writes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "engine/Annotations.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using Annotation = Orvane::PDF::Annotation;

class Annotations : public FileTest {};

std::vector<double> Sides(const Rect& r) {
    return {r.left, r.top, r.right, r.bottom};
}

TEST_F(Annotations, EveryNumberedTypeIsReadWithTheValuesTheFileHolds) {
    const char* const subtypes[] = {
        "Text",    "Link",      "FreeText",  "Line",        "Square",         "Circle",
        "Polygon", "PolyLine",  "Highlight", "Underline",   "Squiggly",       "StrikeOut",
        "Stamp",   "Caret",     "Ink",       "Popup",       "FileAttachment", "Sound",
        "Movie",   "Widget",    "Screen",    "PrinterMark", "TrapNet",        "Watermark",
        "3D",      "RichMedia", "XFAWidget", "Redact",      "Unheard",
    };
    PageLayout page;
    for (const char* subtype : subtypes)
        page.annotations.push_back(
            {subtype, {10, 30, 40, 20}, 4, std::nullopt, "/Contents (on " + std::string(subtype) + ")"});
    // One of each value the list reports, on the first.
    page.annotations[0].flags = 2 | 4 | 128;
    page.annotations[0].entries =
        "/Contents <FEFF00E9> /T (Ann) /Subj (Check) /M (D:20240131120000+01'00') /CreationDate (D:2023) "
        "/C [1 0 0] /IC [0.5] /CA 0.25 /BS << /W 3 /S /D >> /Name /Comment /IRT 9 0 R /Popup 18 0 R";
    page.annotations[2].entries += " /DA (/Helv 14 Tf 0 0 1 rg) /Border [0 0 2]";
    page.annotations[3].entries += " /L [10 20 40 30] /LE [/None /OpenArrow]";
    page.annotations[8].entries += " /QuadPoints [10 30 40 30 10 20 40 20] /C [0 0 0 1]";
    page.annotations[14].entries += " /InkList [[10 20 15 25] [30 30]]";
    const std::vector<Annotation> list = Pdfium::ListAnnotations(*Open(PdfBuilder().AddPage(page)), 0);

    ASSERT_EQ(list.size(), std::size(subtypes));
    for (size_t i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].type, i + 1 < std::size(subtypes) ? int(i + 1) : 0) << subtypes[i];
        EXPECT_EQ(list[i].subtype, subtypes[i]);
        EXPECT_EQ(Sides(list[i].rect), Sides(Rect{10, 30, 40, 20}));
        if (i > 0) {
            EXPECT_EQ(list[i].contents, "on " + std::string(subtypes[i]));
            EXPECT_TRUE(list[i].printable && !list[i].hidden && !list[i].locked);
        }
    }
    const Annotation& text = list[0];
    EXPECT_GT(text.id, 0);
    EXPECT_EQ(text.contents, "\u00E9");
    EXPECT_EQ(text.author, "Ann");
    EXPECT_EQ(text.subject, "Check");
    EXPECT_EQ(text.modified.hour, 12);
    EXPECT_EQ(text.modified.offsetMinutes, 60);
    EXPECT_EQ(text.created.year, 2023);
    EXPECT_EQ(text.color, 0xFF0000u);
    EXPECT_EQ(text.interiorColor, 0x808080u);
    EXPECT_FLOAT_EQ(text.opacity, 0.25f);
    EXPECT_EQ(text.borderWidth, 3);
    EXPECT_EQ(text.borderStyle, "D");
    EXPECT_EQ(text.icon, "Comment");
    EXPECT_TRUE(text.hidden && text.printable && text.locked);
    EXPECT_EQ(text.inReplyTo, 9);
    EXPECT_EQ(text.popup, 18);
    EXPECT_EQ(list[2].fontSize, 14);
    EXPECT_EQ(list[2].textColor, 0x0000FFu);
    EXPECT_EQ(list[2].borderWidth, 2);
    ASSERT_EQ(list[3].linePoints.size(), 2u);
    EXPECT_EQ(list[3].linePoints[1].y, 30);
    EXPECT_EQ(list[3].lineStart, "None");
    EXPECT_EQ(list[3].lineEnd, "OpenArrow");
    ASSERT_EQ(list[8].quadPoints.size(), 4u);
    EXPECT_EQ(list[8].quadPoints[2].x, 10);
    EXPECT_EQ(list[8].color, 0x000000u);
    ASSERT_EQ(list[14].inkStrokes.size(), 2u);
    EXPECT_EQ(list[14].inkStrokes[0].size(), 2u);
    EXPECT_EQ(list[14].inkStrokes[1][0].x, 30);
}

// Saved over its own file, a document appends an update and looks for hidden
// annotations only in what the update writes: the untouched page keeps its
// hidden annotation (its bytes stay in the file whatever is removed). When
// the file changed on disk in between, the save rewrites it and looks at
// every page first.
TEST_F(Annotations, BeforeAnUpdateOnlyTheChangedPagesLoseHiddenAnnotations) {
    PageLayout page;
    page.annotations.push_back({"Square", {10, 30, 40, 20}, 2});
    const std::string original = PdfBuilder().AddPage(page).AddPage(page).Build();
    for (const bool touched : {false, true}) {
        const auto path = temp.File(touched ? "touched.pdf" : "update.pdf");
        WriteFile(path, original);
        auto document = OpenFile(path);
        NewAnnotation note;
        note.type = AnnotText;
        note.at = {100, 100};
        Pdfium::CreateAnnotation(*document, 1, note);
        document->RemoveHiddenObjectsBeforeSave(path);
        if (touched)
            std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) + std::chrono::seconds(5));
        document->Save(path, 0);
        EXPECT_EQ(ReadFile(path).compare(0, original.size(), original) == 0, !touched);
        auto saved = OpenFile(path);
        EXPECT_EQ(Pdfium::ListAnnotations(*saved, 0).size(), touched ? 0u : 1u) << touched;
        std::vector<int> changed;
        for (const Annotation& a : Pdfium::ListAnnotations(*saved, 1)) changed.push_back(a.type);
        EXPECT_THAT(changed, ::testing::ElementsAre(AnnotText, AnnotPopup)) << touched;
    }
}

}  // namespace
}  // namespace QuirelleTest
