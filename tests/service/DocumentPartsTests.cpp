// Save As, export and import keep what a document carries besides its pages:
// outline, page labels, form fields, attachments, metadata, layers, structure
// and encryption. Files are compared by their summaries (DocumentSummary.h).

#include <cstdlib>
#include <iostream>
#include <functional>
#include <optional>
#include <set>

#include "tests/service/ServiceTest.h"
#include "tests/support/DocumentSummary.h"

namespace QuirelleTest {
namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;
using Kind = FieldLayout::Kind;

// Six pages labelled i ii 1 2 3 4, with everything a document carries.
PdfBuilder Rich(const std::string& title) {
    // Page 1 links to page 6, page 2 to the name of page 4 (whole pages).
    PdfBuilder builder;
    for (int i = 0; i < 6; ++i) {
        PageLayout page;
        page.text.push_back({72, 720, 12, "Page " + std::to_string(i + 1)});
        LinkLayout link;
        link.rect = {0, 792, 612, 0};
        if (i == 0) link.targetPage = 5;
        if (i == 1) link.namedDestination = "sec11";
        if (i < 2) page.links.push_back(link);
        builder.AddPage(page);
    }
    builder.AddNamedDestination("sec11", 3, 0, 700)
        .AddOutline({{"Front", 0, 0},
                     {"Chapter 1", 0, 2},
                     {"1.1", 1, -1, "sec11"},
                     {"1.2", 1, 3},
                     {"Chapter 2", 0, 4, "", false},
                     {"2.1", 1, 5},
                     {"Web", 0}})
        .AddPageLabels({{0, "r"}, {2, "D"}})
        .AddField({Kind::Text, "name", "Ann", {}, {{0, {100, 700, 300, 680}}}})
        .AddField({Kind::CheckBox, "agree", "Yes", {}, {{2, {100, 700, 110, 690}}}})
        .AddField({Kind::Radio, "size", "L", {"S", "L"}, {{2, {100, 600, 110, 590}}, {3, {100, 600, 110, 590}}}})
        .AddField({Kind::Choice, "colour", "Green", {"Red", "Green"}, {{4, {100, 700, 200, 680}}}, true})
        .AddField({Kind::Text, "total", "12", {}, {{5, {100, 700, 200, 680}}}, true, "sums"})
        .AddAttachment("notes.txt", "what the form is for")
        .SetTitle(title)
        .AddLayer("Callouts")
        .AddStructureTree()
        .AddCatalogEntries("/PageMode /UseOutlines /ViewerPreferences << /DisplayDocTitle true >> /Zz (kept)");
    return builder;
}

struct Protection {
    const char* name;
    std::optional<Encryption> encryption;
};

const Protection kProtections[] = {
    {"plain", std::nullopt},
    {"aes256", Encryption{"user", "owner", -3904, Encryption::Method::Aes256}},
    {"rc4-128", Encryption{"user", "owner", -3904, Encryption::Method::Rc4_128}},
};

class DocumentPartsTest : public ServiceTest {
protected:
    fs::path Build(const PdfBuilder& builder, const std::string& name) {
        const fs::path path = temp.File(name);
        builder.Save(path);
        return path;
    }
    Strings Diff(const fs::path& a, const fs::path& b, const std::string& password = "") {
        return Differences(Summarize(a, password), Summarize(b, password));
    }
};

TEST_F(DocumentPartsTest, SaveAsAfterEachEditKeepsWhatASaveInPlaceKeepsAndDecryptingNeedsTheOwner) {
    const fs::path other = Build(Rich("Other"), "other.pdf");
    // Each edit, applied before a save in place and before a Save As: the two files must carry the same.
    const std::pair<const char*, std::function<void(int64_t)>> edits[] = {
        {"none", [](int64_t) {}},
        {"rotate", [&](int64_t id) { Await(service->RotatePage(id, 1, IPDFProvider::RotateClockwise)); }},
        {"move", [&](int64_t id) { Await(service->MovePages(id, {4, 5}, 0)); }},
        {"blank", [&](int64_t id) { Await(service->AddBlankPage(id, 2, 300, 300)); }},
        {"import",
         [&](int64_t id) {
             const int64_t source = Open(other);
             Await(service->ImportAllPages(source, id, 6));
             service->CloseDoument(source);
         }},
        // Outline entries and widgets of the deleted page go with it.
        {"delete", [&](int64_t id) { Await(service->DeletePages(id, {3})); }},
    };
    for (const Protection& protection : kProtections) {
        PdfBuilder builder = Rich("Fixture");
        if (protection.encryption) builder.Encrypt(*protection.encryption);
        const std::string password = protection.encryption ? "owner" : "";
        const fs::path original = Build(builder, std::string(protection.name) + ".pdf");
        const DocumentSummary before = Summarize(original, password);
        EXPECT_EQ(before.Count("outline"), 7u);
        EXPECT_EQ(before.Lines("labels"), Strings{"i ii 1 2 3 4"});
        EXPECT_EQ(before.Count("field"), 5u);
        EXPECT_EQ(before.Lines("attachment"), Strings{"notes.txt (20 bytes)"});
        EXPECT_EQ(before.Count("xmp") + before.Count("layer") + before.Count("info"), 4u);
        EXPECT_EQ(before.Lines("structure"), Strings{"7 elements"});
        EXPECT_EQ(before.Lines("encryption").at(0) == "none", !protection.encryption);
        for (const auto& [name, apply] : edits) {
            SCOPED_TRACE(std::string(protection.name) + " " + name);
            const fs::path inPlace = temp.File(std::string(protection.name) + "-" + name + "-in-place.pdf");
            const fs::path savedAs = temp.File(std::string(protection.name) + "-" + name + "-as.pdf");
            fs::copy_file(original, inPlace);
            const int64_t a = Open(inPlace, password);
            apply(a);
            ASSERT_TRUE(Await(service->SaveDocument(a)));
            const int64_t b = Open(original, password);
            apply(b);
            ASSERT_TRUE(Await(service->SaveDocumentAs(b, savedAs)));
            service->CloseDoument(a);
            service->CloseDoument(b);

            EXPECT_TRUE(QpdfClean(savedAs, password));
            EXPECT_EQ(Diff(inPlace, savedAs, password), Strings());
            // The outline keeps its order.
            EXPECT_EQ(Summarize(savedAs, password).Lines("outline"), Summarize(inPlace, password).Lines("outline"));
        }
        if (!protection.encryption) continue;
        // Opened with the user password, the copy has the original's permissions.
        const int64_t original_ = Open(original, "user");
        const int64_t copy = Open(temp.File(std::string(protection.name) + "-none-as.pdf"), "user");
        EXPECT_TRUE(service->IsPrintProtected(copy));
        EXPECT_EQ(service->IsPrintProtected(copy), service->IsPrintProtected(original_));
        EXPECT_EQ(service->IsEditContentProtected(copy), service->IsEditContentProtected(original_));
        EXPECT_EQ(service->IsCopyTextAndGraphicsProtected(copy), service->IsCopyTextAndGraphicsProtected(original_));
        EXPECT_EQ(Await(service->OpenDocument(temp.File(std::string(protection.name) + "-none-as.pdf").string(), ""))
                      .passwordError,
                  true);
        // Saved as by a user, the copy still opens with both passwords, its
        // pages drawn from streams encrypted again.
        const fs::path byUser = temp.File(std::string(protection.name) + "-by-user.pdf");
        ASSERT_TRUE(Await(service->SaveDocumentAs(original_, byUser)));
        EXPECT_EQ(Diff(original, byUser, "owner"), Strings());
        const int64_t reopened = Open(byUser, "user");
        EXPECT_EQ(Await(service->GetPageTextObject(reopened, 5))->GetText().substr(0, 6), L"Page 6");
        // An unencrypted copy needs the owner password, and differs only in its encryption.
        const fs::path open = temp.File(std::string(protection.name) + "-open.pdf");
        EXPECT_FALSE(Await(service->SaveDocumentAsDecrypted(original_, open)));
        EXPECT_FALSE(fs::exists(open));
        ASSERT_TRUE(Await(service->SaveDocumentAsDecrypted(Open(original, "owner"), open)));
        EXPECT_TRUE(QpdfClean(open));
        EXPECT_EQ(Diff(original, open, "owner"),
                  Strings({"-encryption: " + before.Lines("encryption").at(0), "+encryption: none"}));
    }
}

TEST_F(DocumentPartsTest, ExportKeepsTheOutlineFieldsAndLabelsOfItsPagesAndNothingElse) {
    const int64_t id = Open(Build(Rich("Fixture"), "rich.pdf"));
    struct Case {
        std::vector<unsigned> pages;
        Strings outline, labels, fields;
    };
    const std::vector<Case> cases = {
        {{2, 3},
         {"Chapter 1 -> page 0", "  1.1 -> page 1", "  1.2 -> page 1"},
         {"1 2"},
         {"agree [checkbox] = Yes on pages 0", "size [radiobutton] = L on pages 0 1"}},
        {{1, 5},
         {"Chapter 2 -> nothing", "  2.1 -> page 1"},
         {"ii 4"},
         {"sums.total [text] = 12 on pages 1"}},
    };
    for (const Case& c : cases) {
        const fs::path out = temp.File("export" + std::to_string(c.pages.front()) + ".pdf");
        ASSERT_TRUE(Await(service->ExportPagesTo(id, c.pages, out)));
        EXPECT_TRUE(QpdfClean(out, ""));
        const DocumentSummary summary = Summarize(out);
        EXPECT_EQ(summary.Lines("outline"), c.outline);
        EXPECT_EQ(summary.Lines("labels"), c.labels);
        EXPECT_EQ(summary.Lines("field"), c.fields);
        EXPECT_EQ(summary.Count("attachment"), 0u);
        EXPECT_EQ(summary.Count("structure"), 0u);
    }
    // The link to a page left behind is gone; the one by name to a copied page works.
    const fs::path out = temp.File("links.pdf");
    ASSERT_TRUE(Await(service->ExportPagesTo(id, {0, 1, 3}, out)));
    const int64_t exported = Open(out);
    EXPECT_FALSE(Await(service->IsInsideLinkArea(exported, 0, 300, 400)));
    EXPECT_EQ(Await(service->HandleLink(exported, 1, 300, 400)).pageIndex, 2);
}

TEST_F(DocumentPartsTest, ImportIntoADocumentWithPagesAddsItsPartsBesideTheTargetsOwn) {
    const int64_t source = Open(Build(Rich("Fixture"), "source.pdf"));
    const int64_t target = Open(Build(Rich("Target"), "target.pdf"));
    Await(service->ImportPages(source, target, {0, 2}, 1));
    const fs::path out = temp.File("merged.pdf");
    ASSERT_TRUE(Await(service->SaveDocumentAs(target, out)));
    EXPECT_TRUE(QpdfClean(out, ""));
    const DocumentSummary summary = Summarize(out);
    EXPECT_EQ(summary.Lines("labels"), Strings{"i i 1 ii 1 2 3 4"});
    const Strings outline = summary.Lines("outline");
    ASSERT_EQ(outline.size(), 10u);
    EXPECT_EQ(Strings(outline.end() - 3, outline.end()),
              Strings({"Fixture -> page 1", "  Front -> page 1", "  Chapter 1 -> page 2"}));
    EXPECT_EQ(outline.front(), "Front -> page 0");
    const Strings fields = summary.Lines("field");
    EXPECT_EQ(std::set<std::string>(fields.begin(), fields.end()).size(), 8u);
    EXPECT_NE(std::find(fields.begin(), fields.end(), "name_2 [text] = Ann on pages 1"), fields.end());
    EXPECT_NE(std::find(fields.begin(), fields.end(), "agree_2 [checkbox] = Yes on pages 2"), fields.end());
    EXPECT_NE(std::find(fields.begin(), fields.end(), "size_2 [radiobutton] = L on pages 2"), fields.end());
    EXPECT_EQ(summary.Lines("info"), Summarize(temp.File("target.pdf")).Lines("info"));
}

// Real documents, when QUIRELLE_CORPUS names a directory of them: Save As of
// an unedited document carries everything the document had.
TEST_F(DocumentPartsTest, SaveAsOfARealDocumentKeepsWhatItCarries) {
    const char* corpus = std::getenv("QUIRELLE_CORPUS");
    if (corpus == nullptr) GTEST_SKIP() << "QUIRELLE_CORPUS names no directory of documents";
    int checked = 0;
    for (const auto& entry : fs::recursive_directory_iterator(corpus)) {
        if (entry.path().extension() != ".pdf") continue;
        SCOPED_TRACE(entry.path().string());
        const IPDFProvider::OpenDocInfo info = Await(service->OpenDocument(entry.path().string(), ""));
        if (info.id < 0) continue;
        const fs::path copy = temp.File("copy.pdf");
        ASSERT_TRUE(Await(service->SaveDocumentAs(info.id, copy)));
        service->CloseDoument(info.id);
        const DocumentSummary before = Summarize(entry.path());
        EXPECT_EQ(Differences(before, Summarize(copy)), Strings());
        if (QpdfClean(entry.path(), "")) {
            EXPECT_TRUE(QpdfClean(copy, ""));
        }
        std::cout << entry.path().filename().string() << ": " << before.Count("outline") << " outline entries, "
                  << before.Count("field") << " fields, " << before.Count("attachment") << " attachments\n";
        ++checked;
    }
    EXPECT_GT(checked, 0);
}

TEST_F(DocumentPartsTest, LoopsInTheOutlineAndTheFieldsEndTheCopyAndFieldsWithoutWidgetsStay) {
    // Outline items 5 and 6 name each other as /Next and 5 is its own child;
    // field 7 is its own kid; field 9 has no widget.
    const fs::path path = temp.File("loops.pdf");
    WriteFile(path, RawPdf({"<< /Type /Catalog /Pages 2 0 R /Outlines 4 0 R /AcroForm << /Fields [7 0 R 9 0 R] >> >>",
                            "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [8 0 R] >>",
                            "<< /Type /Outlines /First 5 0 R /Last 6 0 R /Count 2 >>",
                            "<< /Title (a) /Parent 4 0 R /Next 6 0 R /First 5 0 R /Dest [3 0 R /Fit] >>",
                            "<< /Title (b) /Parent 4 0 R /Next 5 0 R /Dest [3 0 R /Fit] >>",
                            "<< /T (f) /FT /Tx /Kids [7 0 R 8 0 R] >>",
                            "<< /Type /Annot /Subtype /Widget /Rect [0 0 10 10] /Parent 7 0 R >>",
                            "<< /T (data) /FT /Tx /V (kept) >>"}));
    const int64_t id = Open(path);
    const fs::path copy = temp.File("copy.pdf");
    ASSERT_TRUE(Await(service->SaveDocumentAs(id, copy)));
    EXPECT_TRUE(QpdfClean(copy, ""));
    EXPECT_EQ(Summarize(copy).Lines("outline"), Strings({"a -> page 0", "b -> page 0"}));
    EXPECT_EQ(Summarize(copy).Lines("field"), Strings({"f [text] =  on pages 0", "data [text] = kept on pages -1"}));
}

}  // namespace
}  // namespace QuirelleTest
