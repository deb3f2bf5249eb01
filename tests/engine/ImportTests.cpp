// The page importer: order, duplicates, insertion points, importing within
// one document, shared resources, inherited attributes and annotations.

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "engine/Engine.h"
#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using namespace DocumentSupport;
namespace fs = std::filesystem;
using Orvane::PDF::IDocument;
using Orvane::PDF::Pdfium::CreatePageImporter;
using Strings = std::vector<std::string>;

class ImportTest : public EngineTest {
protected:
    std::shared_ptr<IDocument> Open(const PdfBuilder& builder, const std::string& password = "") {
        const fs::path path = temp.File("source" + std::to_string(files_++) + ".pdf");
        builder.Save(path);
        return OpenFile(path, password);
    }
    // A document of one page per label, each showing its label.
    std::shared_ptr<IDocument> Labelled(const Strings& labels) {
        PdfBuilder builder;
        for (const std::string& label : labels) {
            PageSpec page;
            page.text.push_back({72, 720, 12, label});
            builder.AddPage(page);
        }
        return Open(builder);
    }
    fs::path SaveChecked(IDocument& document, const std::string& name) {
        document.Save(temp.File(name), 0);
        EXPECT_TRUE(QpdfClean(temp.File(name))) << name;
        return temp.File(name);
    }

private:
    int files_ = 0;
};

TEST_F(ImportTest, CopiesListedPagesInOrderWithDuplicates) {
    auto source = Open(PdfBuilder().AddNumberedPages(5));
    auto target = Labelled({"A", "B"});
    CreatePageImporter()->ImportPages(source, {3, 0, 3}, target, 1);
    const Strings expected{"A", "Page 4", "Page 1", "Page 4", "B"};
    EXPECT_EQ(Labels(*target), expected);
    EXPECT_EQ(source->GetPageCount(), 5u);
    EXPECT_EQ(Labels(*OpenFile(SaveChecked(*target, "ordered.pdf"))), expected);

    target->DeletePage(1);
    EXPECT_EQ(Labels(*OpenFile(SaveChecked(*target, "deleted.pdf"))), (Strings{"A", "Page 1", "Page 4", "B"}));
}

TEST_F(ImportTest, InsertionPoints) {
    auto source = Labelled({"S"});
    for (auto [index, expected] : std::vector<std::pair<int, Strings>>{{0, {"S", "A", "B"}},
                                                                       {1, {"A", "S", "B"}},
                                                                       {2, {"A", "B", "S"}},
                                                                       {1000, {"A", "B", "S"}},
                                                                       {-1, {"A", "B", "S"}}}) {
        auto target = Labelled({"A", "B"});
        CreatePageImporter()->ImportAllPages(source, target, index);
        EXPECT_EQ(Labels(*target), expected) << index;
    }
}

TEST_F(ImportTest, RefusesBadArgumentsWithoutChanges) {
    auto source = Open(PdfBuilder().AddNumberedPages(2));
    auto target = Labelled({"A"});
    auto importer = CreatePageImporter();
    EXPECT_THROW(importer->ImportPages(source, {0, 2}, target, 0), std::out_of_range);
    EXPECT_THROW(importer->ImportPages(nullptr, {0}, target, 0), std::invalid_argument);
    EXPECT_THROW(importer->ImportAllPages(source, nullptr, 0), std::invalid_argument);
    importer->ImportPages(source, {}, target, 0);
    EXPECT_EQ(Labels(*target), (Strings{"A"}));
}

TEST_F(ImportTest, ImportsWithinOneDocument) {
    auto doc = Open(PdfBuilder().AddNumberedPages(3));
    CreatePageImporter()->ImportPages(doc, {0, 2}, doc, 1);
    EXPECT_EQ(Labels(*doc), (Strings{"Page 1", "Page 1", "Page 3", "Page 2", "Page 3"}));
    CreatePageImporter()->ImportAllPages(doc, doc, -1);
    EXPECT_EQ(doc->GetPageCount(), 10u);

    // The copies are pages of their own: deleting an original keeps them.
    doc->DeletePage(0);
    const fs::path path = SaveChecked(*doc, "self.pdf");
    EXPECT_EQ(Labels(*OpenFile(path)),
              (Strings{"Page 1", "Page 3", "Page 2", "Page 3", "Page 1", "Page 1", "Page 3", "Page 2", "Page 3"}));
    EXPECT_EQ(CountObjects(path).pages, 9);
}

TEST_F(ImportTest, SharedResourcesArriveOncePerCall) {
    PageSpec withImage;
    withImage.images.push_back({{100, 500, 300, 300}, 16, 16, 0x00FF00, 200});
    auto source = Open(PdfBuilder().InheritAttributes().AddNumberedPages(19).AddPage(withImage));
    auto target = NewDocument();
    CreatePageImporter()->ImportAllPages(source, target, 0);
    FileObjects objects = CountObjects(SaveChecked(*target, "shared.pdf"));
    EXPECT_EQ(objects.fonts, 1);
    EXPECT_EQ(objects.images, 2);  // the picture and its soft mask
    EXPECT_EQ(objects.pages, 20);

    // Twenty pages sharing one image within a document, copied across.
    auto images = NewDocument();
    images->CreatePageFromImage(0, std::make_shared<TestBitmap>(8, 8, Orvane::PDF::IBitmap::Bgrx), 100, 100);
    CreatePageImporter()->ImportPages(images, std::vector<unsigned>(19, 0), images, -1);
    auto copy = NewDocument();
    CreatePageImporter()->ImportAllPages(images, copy, 0);
    objects = CountObjects(SaveChecked(*copy, "images.pdf"));
    EXPECT_EQ(objects.images, 1);
    EXPECT_EQ(objects.pages, 20);
}

TEST_F(ImportTest, CopiesCarryInheritedAttributesAndLeaveSourceAlone) {
    PageSpec page;
    page.width = 400;
    page.height = 250;
    page.rotate = 270;
    auto source = Open(PdfBuilder().InheritAttributes().AddPage(page));
    auto target = NewDocument();
    CreatePageImporter()->ImportAllPages(source, target, 0);
    EXPECT_TRUE(HasOwn(*target, 0, "MediaBox") && HasOwn(*target, 0, "Resources"));
    EXPECT_EQ(MediaSize(*target, 0), std::make_pair(400.0, 250.0));
    EXPECT_EQ(target->GetPage(0)->GetRotation(), Orvane::PDF::IPage::Rotate270);
    EXPECT_FALSE(HasOwn(*source, 0, "MediaBox") || HasOwn(*source, 0, "Resources"));

    // Pages of an encrypted file arrive decrypted in an unencrypted one.
    auto secret = Open(PdfBuilder().AddNumberedPages(2).Encrypt({"u", "o", -4, EncryptionSpec::Method::Aes256}), "u");
    auto open = NewDocument();
    CreatePageImporter()->ImportPages(secret, {1}, open, 0);
    EXPECT_EQ(Labels(*OpenFile(SaveChecked(*open, "open.pdf"))), (Strings{"Page 2"}));
}

// Object number of an annotation's entry (the first element of an array).
int AnnotationRef(IDocument& doc, int page, int annotation, const char* key) {
    fz_context* ctx = Ctx(doc);
    return guarded(ctx, [&] {
        pdf_obj* annot = pdf_array_get(ctx, pdf_dict_get(ctx, PageObject(doc, page), PDF_NAME(Annots)), annotation);
        pdf_obj* value = pdf_dict_gets(ctx, annot, key);
        return pdf_to_num(ctx, pdf_is_array(ctx, value) ? pdf_array_get(ctx, value, 0) : value);
    });
}

int PageNum(IDocument& doc, int page) {
    pdf_obj* obj = PageObject(doc, page);
    return guarded(Ctx(doc), [&] { return pdf_to_num(Ctx(doc), obj); });
}

int AnnotationCount(IDocument& doc, int page) {
    fz_context* ctx = Ctx(doc);
    pdf_obj* obj = PageObject(doc, page);
    return guarded(ctx, [&] { return pdf_array_len(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Annots))); });
}

TEST_F(ImportTest, AnnotationsFollowTheirPages) {
    PageSpec first;
    LinkSpec toSecond, web, named;
    toSecond.rect = {10, 60, 60, 10};
    toSecond.targetPage = 1;
    web.rect = {100, 60, 160, 10};
    web.uri = "https://example.org/";
    named.rect = {300, 60, 360, 10};
    named.namedDestination = "there";
    first.links = {toSecond, web, named};
    first.annotations.push_back({"Square", {200, 60, 260, 10}, 4, 0xFF0000});
    auto source = Open(PdfBuilder().AddPage(first).AddNumberedPages(1).AddNamedDestination("there", 1, 0, 400));

    // With both pages, links (also the named one) lead to the copy of the second.
    auto both = NewDocument();
    CreatePageImporter()->ImportPages(source, {0, 1}, both, 0);
    ASSERT_EQ(AnnotationCount(*both, 0), 4);
    EXPECT_EQ(AnnotationRef(*both, 0, 0, "Dest"), PageNum(*both, 1));
    EXPECT_EQ(AnnotationRef(*both, 0, 2, "Dest"), PageNum(*both, 1));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(AnnotationRef(*both, 0, i, "P"), PageNum(*both, 0));
    const fs::path path = SaveChecked(*both, "links.pdf");
    EXPECT_EQ(CountObjects(path).pages, 2);
    EXPECT_EQ(OpenFile(path)->GetPage(0)->GetAnnotations(Orvane::PDF::IAnnotation::Link).size(), 3u);

    // Alone, links to the page left behind go; nothing of the source's page
    // tree comes along.
    auto alone = NewDocument();
    CreatePageImporter()->ImportPages(source, {0}, alone, 0);
    EXPECT_EQ(AnnotationCount(*alone, 0), 2);
    EXPECT_EQ(CountObjects(SaveChecked(*alone, "alone.pdf")).pages, 1);

    // Within the document, links keep their target; the copies are new
    // annotations of the new page.
    CreatePageImporter()->ImportPages(source, {0}, source, -1);
    ASSERT_EQ(AnnotationCount(*source, 2), 4);
    EXPECT_EQ(AnnotationRef(*source, 2, 0, "Dest"), PageNum(*source, 1));
    EXPECT_EQ(AnnotationRef(*source, 2, 3, "P"), PageNum(*source, 2));
}

TEST_F(ImportTest, WidgetsKeepFieldValuesAndPopupsTheirParent) {
    const fs::path path = temp.File("form.pdf");
    WriteFile(path, HandMadePdf({
        "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>",
        "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [5 0 R 7 0 R 6 0 R] >>",
        "<< /FT /Tx /T (name) /V (hello) /Kids [5 0 R] >>",
        "<< /Type /Annot /Subtype /Widget /Parent 4 0 R /P 3 0 R /Rect [10 10 100 30] >>",
        "<< /Type /Annot /Subtype /Popup /Parent 7 0 R /P 3 0 R /Rect [50 50 150 100] >>",
        "<< /Type /Annot /Subtype /Text /P 3 0 R /Rect [10 50 30 70] /Popup 6 0 R >>",
    }));
    auto source = OpenFile(path);
    auto target = NewDocument();
    CreatePageImporter()->ImportAllPages(source, target, 0);
    ASSERT_EQ(AnnotationCount(*target, 0), 3);
    fz_context* ctx = Ctx(*target);
    pdf_obj* annots = guarded(ctx, [&] { return pdf_dict_get(ctx, PageObject(*target, 0), PDF_NAME(Annots)); });
    pdf_obj* widget = guarded(ctx, [&] { return pdf_array_get(ctx, annots, 0); });
    EXPECT_STREQ(guarded(ctx, [&] { return pdf_dict_get_text_string(ctx, widget, PDF_NAME(V)); }), "hello");
    EXPECT_STREQ(guarded(ctx, [&] { return pdf_dict_get_text_string(ctx, widget, PDF_NAME(T)); }), "name");
    const int text = guarded(ctx, [&] { return pdf_to_num(ctx, pdf_array_get(ctx, annots, 1)); });
    const int popup = guarded(ctx, [&] { return pdf_to_num(ctx, pdf_array_get(ctx, annots, 2)); });
    EXPECT_EQ(AnnotationRef(*target, 0, 1, "Popup"), popup);
    EXPECT_EQ(AnnotationRef(*target, 0, 2, "Parent"), text);
    EXPECT_EQ(CountObjects(SaveChecked(*target, "form-copy.pdf")).pages, 1);
}

}  // namespace
}  // namespace QuirelleTest
