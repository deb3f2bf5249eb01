// Annotations made through the service: each kind drawn where it lies and
// nowhere else, saved as an update appended to the original bytes, and read
// back with the values it was made with; changes and deletions kept.

#include <cmath>
#include <cstdlib>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

using Annotation = Orvane::PDF::Annotation;

class AnnotationService : public ServiceTest {
protected:
    // The page at one pixel per point.
    QImage Picture(int64_t doc) { return Await(service->GeneratePageImage(doc, 0, 612, 792)); }
    std::vector<Annotation> List(int64_t doc) { return Await(service->GetAnnotations(doc, 0)); }
    // The page's annotations but popups (a note comes with one).
    std::vector<Annotation> Listed(int64_t doc) {
        std::vector<Annotation> all = List(doc), shown;
        for (const Annotation& a : all)
            if (a.type != AnnotPopup) shown.push_back(a);
        return shown;
    }
    bool Save(int64_t doc) { return Await(service->SaveDocument(doc)); }
};

// The box of the pixels that differ between two pictures, in page space;
// empty (right < left) when none do.
Rect Changed(const QImage& before, const QImage& after) {
    Rect box{1e9, -1e9, -1e9, 1e9};
    for (int y = 0; y < after.height(); ++y) {
        for (int x = 0; x < after.width(); ++x) {
            if (before.pixel(x, y) == after.pixel(x, y)) continue;
            box.left = std::min(box.left, double(x));
            box.right = std::max(box.right, double(x + 1));
            box.top = std::max(box.top, 792.0 - y);
            box.bottom = std::min(box.bottom, 792.0 - (y + 1));
        }
    }
    return box;
}

bool Inside(const Rect& inner, const Rect& outer, double margin) {
    return inner.left >= outer.left - margin && inner.right <= outer.right + margin &&
           inner.top <= outer.top + margin && inner.bottom >= outer.bottom - margin;
}

// What a save and reopen must keep.
void ExpectSame(const Annotation& a, const Annotation& b) {
    EXPECT_EQ(a.id, b.id);
    EXPECT_EQ(a.type, b.type);
    EXPECT_EQ(Sides(a.rect), Sides(b.rect));
    EXPECT_EQ(a.contents, b.contents);
    EXPECT_EQ(a.author, b.author);
    EXPECT_EQ(a.color, b.color);
    EXPECT_EQ(a.interiorColor, b.interiorColor);
    EXPECT_FLOAT_EQ(a.opacity, b.opacity);
    EXPECT_EQ(a.quadPoints.size(), b.quadPoints.size());
    EXPECT_EQ(a.inkStrokes.size(), b.inkStrokes.size());
    EXPECT_EQ(a.linePoints.size(), b.linePoints.size());
    EXPECT_EQ(a.lineEnd, b.lineEnd);
    EXPECT_EQ(a.fontSize, b.fontSize);
    EXPECT_EQ(a.inReplyTo, b.inReplyTo);
    EXPECT_EQ(a.modified.raw, b.modified.raw);
}

struct Kind {
    const char* name;
    NewAnnotation request;
};

std::vector<Kind> Kinds() {
    auto with = [](int type, auto fill) {
        NewAnnotation a;
        a.type = type;
        a.author = "Ann";
        a.contents = "about this";
        fill(a);
        return a;
    };
    const std::vector<Rect> lines{{72, 732, 130, 716}};  // over "Page 1" at (72, 720)
    return {
        {"highlight", with(AnnotHighlight, [&](NewAnnotation& a) { a.lines = lines; })},
        {"underline", with(AnnotUnderline, [&](NewAnnotation& a) { a.lines = lines; })},
        {"squiggly", with(AnnotSquiggly, [&](NewAnnotation& a) { a.lines = lines; })},
        {"strike-out", with(AnnotStrikeOut, [&](NewAnnotation& a) { a.lines = lines, a.opacity = 0.5f; })},
        {"note", with(AnnotText,
                      [](NewAnnotation& a) {
                          a.at = {300, 500};
                      })},
        {"ink", with(AnnotInk,
                     [](NewAnnotation& a) {
                         a.strokes = {{{100, 300}, {150, 350}, {200, 300}}};
                     })},
        {"square", with(AnnotSquare,
                        [](NewAnnotation& a) {
                            a.rect = {100, 400, 200, 300}, a.hasColor = true, a.color = 0x0000FF,
                            a.hasInteriorColor = true, a.interiorColor = 0x00FF00;
                        })},
        {"circle", with(AnnotCircle,
                        [](NewAnnotation& a) {
                            a.rect = {300, 400, 400, 300}, a.borderWidth = 3;
                        })},
        {"line", with(AnnotLine,
                      [](NewAnnotation& a) {
                          a.from = {100, 200}, a.to = {300, 250};
                      })},
        {"arrow", with(AnnotLine,
                       [](NewAnnotation& a) {
                           a.from = {100, 200}, a.to = {300, 250}, a.arrow = true;
                       })},
        {"free text",
         with(AnnotFreeText,
              [](NewAnnotation& a) {
                  a.rect = {100, 600, 300, 560}, a.fontSize = 14, a.textColor = 0xFF0000, a.contents = "Read me";
              })},
    };
}

TEST_F(AnnotationService, EachKindIsDrawnWhereItLiesSavedAsAnUpdateAndReadBack) {
    for (const Kind& kind : Kinds()) {
        SCOPED_TRACE(kind.name);
        const auto path = NumberedPdf(1, std::string(kind.name) + ".pdf");
        const std::string original = ReadFile(path);
        int64_t doc = Open(path);
        const QImage before = Picture(doc);  // recorded before the change: must not be drawn again
        const int64_t id = Await(service->CreateAnnotation(doc, 0, kind.request));
        const std::vector<Annotation> made = Listed(doc);
        ASSERT_EQ(made.size(), 1u);
        const Annotation& a = made[0];
        EXPECT_EQ(a.id, id);
        EXPECT_EQ(a.type, kind.request.type);
        EXPECT_EQ(a.author, "Ann");
        EXPECT_EQ(a.contents, kind.request.contents);
        EXPECT_FLOAT_EQ(a.opacity, kind.request.opacity);
        EXPECT_TRUE(a.printable);
        EXPECT_TRUE(a.modified.valid);
        if (kind.request.hasColor) {
            EXPECT_EQ(a.color, kind.request.color);
        }

        const Rect changed = Changed(before, Picture(doc));
        ASSERT_LT(changed.left, changed.right) << "nothing drawn";
        EXPECT_TRUE(Inside(changed, a.rect, 1.5)) << "drawn outside its rectangle";

        ASSERT_TRUE(Save(doc));
        const std::string saved = ReadFile(path);
        ASSERT_GT(saved.size(), original.size());
        EXPECT_EQ(saved.compare(0, original.size(), original), 0) << "the original bytes changed";
        Await(service->CloseDoument(doc));

        doc = Open(path);
        const std::vector<Annotation> read = Listed(doc);
        ASSERT_EQ(read.size(), 1u);
        ExpectSame(read[0], a);
        Await(service->CloseDoument(doc));
    }
}

TEST_F(AnnotationService, TheSpecialisedValuesOfEachKindAreWrittenInPageSpace) {
    std::map<std::string, Annotation> listed;
    const int64_t doc = OpenNumbered(1);
    for (const Kind& kind : Kinds()) {
        const int64_t id = Await(service->CreateAnnotation(doc, 0, kind.request));
        for (const Annotation& a : List(doc))
            if (a.id == id) listed[kind.name] = a;
    }
    const Annotation& highlight = listed["highlight"];
    ASSERT_EQ(highlight.quadPoints.size(), 4u);
    EXPECT_EQ(highlight.quadPoints[0].x, 72);
    EXPECT_EQ(highlight.quadPoints[0].y, 732);
    EXPECT_EQ(highlight.quadPoints[3].x, 130);
    EXPECT_EQ(highlight.quadPoints[3].y, 716);
    ASSERT_EQ(listed["ink"].inkStrokes.size(), 1u);
    EXPECT_EQ(listed["ink"].inkStrokes[0].size(), 3u);
    EXPECT_EQ(listed["ink"].inkStrokes[0][1].y, 350);
    ASSERT_EQ(listed["arrow"].linePoints.size(), 2u);
    EXPECT_EQ(listed["arrow"].linePoints[1].x, 300);
    EXPECT_EQ(listed["arrow"].lineEnd, "OpenArrow");
    EXPECT_NE(listed["line"].lineEnd, "OpenArrow");
    EXPECT_EQ(listed["square"].interiorColor, 0x00FF00u);
    EXPECT_EQ(listed["circle"].borderWidth, 3);
    EXPECT_NEAR(listed["note"].rect.left, 300, 2);  // the icon's box, from its point
    EXPECT_NEAR(listed["note"].rect.top, 500, 2);
    EXPECT_EQ(listed["free text"].fontSize, 14);
    EXPECT_EQ(listed["free text"].textColor, 0xFF0000u);
}

TEST_F(AnnotationService, ChangesAndDeletionsAreDrawnAtOnceAndSurviveASave) {
    const auto path = NumberedPdf(1);
    int64_t doc = Open(path);
    NewAnnotation square;
    square.type = AnnotSquare;
    square.rect = {100, 400, 200, 300};
    const int64_t kept = Await(service->CreateAnnotation(doc, 0, square));
    NewAnnotation highlight;
    highlight.lines = {{72, 732, 130, 716}};
    const int64_t gone = Await(service->CreateAnnotation(doc, 0, highlight));
    NewAnnotation reply;
    reply.inReplyTo = gone;
    reply.contents = "agreed";
    const int64_t answer = Await(service->CreateAnnotation(doc, 0, reply));
    const Rect marked = Listed(doc)[1].rect;
    const Annotation replied = Listed(doc).back();
    EXPECT_EQ(replied.id, answer);
    EXPECT_EQ(replied.inReplyTo, gone);

    const QImage before = Picture(doc);
    AnnotationChange change;
    change.contents = "moved";
    change.author = "Bo";
    change.color = 0xFF0000;
    change.rect = Rect{300, 600, 350, 550};
    Await(service->ChangeAnnotation(doc, 0, kept, change));
    const Rect redrawn = Changed(before, Picture(doc));
    EXPECT_LT(redrawn.left, 200);  // the old place cleared...
    EXPECT_GT(redrawn.top, 550);   // ...and the new one drawn

    const QImage withHighlight = Picture(doc);
    Await(service->DeleteAnnotation(doc, 0, gone));
    const Rect cleared = Changed(withHighlight, Picture(doc));
    // The highlight and the reply's note at its corner.
    const Rect both{std::min(marked.left, replied.rect.left), std::max(marked.top, replied.rect.top),
                    std::max(marked.right, replied.rect.right), std::min(marked.bottom, replied.rect.bottom)};
    EXPECT_TRUE(Inside(cleared, both, 1.5));
    ASSERT_EQ(List(doc).size(), 1u) << "the reply and its popup go with the annotation it answers";

    auto unknown = service->DeleteAnnotation(doc, 0, answer);
    EXPECT_THROW(Await(std::move(unknown)), std::invalid_argument);
    ASSERT_TRUE(Save(doc));
    Await(service->CloseDoument(doc));
    doc = Open(path);
    const std::vector<Annotation> read = List(doc);
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0].id, kept);
    EXPECT_EQ(read[0].contents, "moved");
    EXPECT_EQ(read[0].author, "Bo");
    EXPECT_EQ(read[0].color, 0xFF0000u);
    EXPECT_EQ(Sides(read[0].rect), Sides(Rect{300, 600, 350, 550}));
}

TEST_F(AnnotationService, AnUpdateKeepsASignedRangeAndPassesAStructureCheck) {
    const auto path = temp.File("signed.pdf");
    FieldLayout signature;
    signature.kind = FieldLayout::Kind::Signature;
    signature.name = "Signature1";
    signature.value = "signed";
    signature.widgets = {{0, {400, 100, 550, 50}}};
    PdfBuilder().AddNumberedPages(2).AddField(signature).Save(path);
    const std::string original = ReadFile(path);
    const int64_t doc = Open(path);
    NewAnnotation highlight;
    highlight.lines = {{72, 732, 130, 716}};
    Await(service->CreateAnnotation(doc, 1, highlight));
    ASSERT_TRUE(Save(doc));
    const std::string saved = ReadFile(path);
    EXPECT_EQ(saved.compare(0, original.size(), original), 0);
    EXPECT_EQ(std::system(("qpdf --check '" + path.string() + "' >/dev/null").c_str()), 0);

    // The service rewrites the whole file once it changed on disk since it was opened.
    WriteFile(path, original);
    Await(service->CreateAnnotation(doc, 1, highlight));
    ASSERT_TRUE(Save(doc));
    EXPECT_NE(ReadFile(path).compare(0, original.size(), original), 0);
    EXPECT_EQ(std::system(("qpdf --check '" + path.string() + "' >/dev/null").c_str()), 0);
}

TEST_F(AnnotationService, AnUpdateOfAnEncryptedFileIsEncryptedAlikeAndKeepsItsPermissions) {
    for (const auto method : {Encryption::Method::Aes256, Encryption::Method::Rc4_128}) {
        SCOPED_TRACE(int(method));
        const auto path = temp.File("encrypted" + std::to_string(int(method)) + ".pdf");
        Encryption encryption;
        encryption.userPassword = "user";
        encryption.ownerPassword = "owner";
        encryption.permissions = -4 & ~4;  // no printing
        encryption.method = method;
        PdfBuilder().AddNumberedPages(2).Encrypt(encryption).Save(path);
        const std::string original = ReadFile(path);
        int64_t doc = Open(path, "user");
        NewAnnotation highlight;
        highlight.lines = {{72, 732, 130, 716}};
        highlight.contents = "secret note";
        Await(service->CreateAnnotation(doc, 0, highlight));
        ASSERT_TRUE(Save(doc));
        Await(service->CloseDoument(doc));
        const std::string saved = ReadFile(path);
        EXPECT_EQ(saved.compare(0, original.size(), original), 0);
        EXPECT_EQ(saved.find("secret note", original.size()), std::string::npos) << "written in clear";

        EXPECT_EQ(Await(service->OpenDocument(path.string(), "")).id, -1);
        doc = Open(path, "user");
        const std::vector<Annotation> read = Listed(doc);
        ASSERT_EQ(read.size(), 1u);
        EXPECT_EQ(read[0].contents, "secret note");
        EXPECT_TRUE(service->IsProtected(doc));
        EXPECT_TRUE(service->IsPrintProtected(doc));
        Await(service->CloseDoument(doc));
    }
}

TEST_F(AnnotationService, SaveAsCopiesThemAndErrorsComeThroughTheFuture) {
    const auto path = NumberedPdf(1);
    const int64_t doc = Open(path);
    NewAnnotation note;
    note.type = AnnotText;
    note.at = {300, 500};
    const int64_t id = Await(service->CreateAnnotation(doc, 0, note));
    ASSERT_TRUE(Await(service->SaveDocumentAs(doc, (temp.Path() / "copy.pdf").string())));
    const int64_t copy = Open(temp.Path() / "copy.pdf");
    ASSERT_EQ(Listed(copy).size(), 1u);
    EXPECT_EQ(Listed(copy)[0].type, AnnotText);
    EXPECT_EQ(Listed(doc)[0].id, id);

    auto badPage = service->GetAnnotations(doc, 3);
    EXPECT_THROW(Await(std::move(badPage)), std::out_of_range);
    auto notOpen = service->GetAnnotations(kNotOpen, 0);
    EXPECT_THROW(Await(std::move(notOpen)), std::invalid_argument);
    NewAnnotation empty;
    auto malformed = service->CreateAnnotation(doc, 0, empty);
    EXPECT_THROW(Await(std::move(malformed)), std::invalid_argument);
}

}  // namespace
}  // namespace QuirelleTest
