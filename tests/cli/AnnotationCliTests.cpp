// annotations, highlight, annotate and delete-annotations, run as people run
// them, and refused for a document that forbids annotating.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/cli/CliRun.h"

namespace QuirelleTest {
namespace {

using ::testing::HasSubstr;
using json = nlohmann::json;

using Output = CliResult;

class AnnotationCli : public ::testing::Test {
protected:
    void SetUp() override { PdfBuilder().AddNumberedPages(3).Save(temp.File("doc.pdf")); }

    Output Run(const std::string& args) { return RunCli(temp.Path(), args); }

    TempDir temp;
};

TEST_F(AnnotationCli, HighlightAnnotateListAndDelete) {
    const std::string original = ReadFile(temp.File("doc.pdf"));
    Output r = Run("highlight doc.pdf 1-z Page --color '#00FF00' --author Ann --in-place");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "doc.pdf: 3 highlights on 3 pages\n");
    EXPECT_EQ(ReadFile(temp.File("doc.pdf")).compare(0, original.size(), original), 0) << "appended";

    r = Run("annotate doc.pdf 2 note --at 300,500 --text 'Look here' --in-place");
    ASSERT_EQ(r.status, 0) << r.err;
    r = Run("annotate doc.pdf 2 arrow --from 100,100 --to 200,150 --out arrow.pdf");
    ASSERT_EQ(r.status, 0) << r.err;

    r = Run("annotations doc.pdf 2");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("\tHighlight\t"));
    EXPECT_THAT(r.out, HasSubstr("\tAnn\t"));
    EXPECT_THAT(r.out, HasSubstr("\tText\t"));
    EXPECT_THAT(r.out, HasSubstr("\tLook here\n"));
    r = Run("annotations arrow.pdf 2 --json");
    const json list = json::parse(r.out);
    EXPECT_EQ(list.back()["type"], "Line");

    r = Run("delete-annotations doc.pdf 1-2 --type highlight --in-place");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "doc.pdf: 2 annotations deleted\n");
    r = Run("annotations doc.pdf");
    EXPECT_NE(r.out.rfind("1\t", 0), 0u) << "page 1 has none left";
    EXPECT_THAT(r.out, HasSubstr("\n3\t"));

    EXPECT_EQ(Run("annotate doc.pdf 1 square --in-place").status, 2);
    EXPECT_EQ(Run("highlight doc.pdf 1 Page --color red --in-place").status, 2);
    EXPECT_EQ(Run("highlight doc.pdf 1 Absent --in-place").status, 1);
}

TEST_F(AnnotationCli, ADocumentThatForbidsAnnotatingIsRefusedWithoutItsOwnerPassword) {
    Encryption encryption;
    encryption.ownerPassword = "owner";
    encryption.permissions = -4 & ~32;  // bit 6: no annotations
    PdfBuilder().AddNumberedPages(1).Encrypt(encryption).Save(temp.File("locked.pdf"));
    Output r = Run("highlight locked.pdf 1 Page --out new.pdf");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, HasSubstr("does not allow adding or changing annotations"));
    r = Run("highlight locked.pdf 1 Page --out new.pdf --password owner");
    EXPECT_EQ(r.status, 0) << r.err;
}

}  // namespace
}  // namespace QuirelleTest
