// Annotations made, changed and deleted through MuPDF's annotation calls.
// Geometry arrives in page space and is handed to MuPDF in its own space
// (the page's transform applied); MuPDF writes it back in page space. Every
// edit regenerates the appearance at once and counts as a change of the
// document, so no recording made before it is drawn again.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>
#include <stdexcept>
#include <string>

#include "engine/Annotations.h"
#include "engine/DocumentCore.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/PdfDocument.h"
#include "engine/PdfPage.h"

namespace Orvane::PDF::Pdfium {
namespace {

// ---- arguments ----

bool finite(const Position& p) {
    return std::isfinite(p.x) && std::isfinite(p.y);
}

bool usable(const Rect& r) {
    return std::isfinite(r.left) && std::isfinite(r.top) && std::isfinite(r.right) && std::isfinite(r.bottom) &&
           r.right > r.left && r.top > r.bottom;
}

[[noreturn]] void malformed(const std::string& what) {
    throw std::invalid_argument("annotation: " + what);
}

bool isMarkup(int type) {
    return type == AnnotHighlight || type == AnnotUnderline || type == AnnotSquiggly || type == AnnotStrikeOut;
}

void check(const NewAnnotation& a) {
    if (!(a.opacity >= 0.0f && a.opacity <= 1.0f)) malformed("opacity outside 0 to 1");
    if (!(a.borderWidth >= 0.0f && a.borderWidth < 1000.0f)) malformed("border width out of range");
    if (a.inReplyTo != 0) return;
    if (isMarkup(a.type)) {
        if (a.lines.empty()) malformed("text markup needs at least one line");
        for (const Rect& r : a.lines)
            if (!usable(r)) malformed("a line rectangle is empty or not finite");
    } else if (a.type == AnnotText) {
        if (!finite(a.at)) malformed("the note's point is not finite");
    } else if (a.type == AnnotInk) {
        if (a.strokes.empty()) malformed("ink needs at least one stroke");
        for (const auto& stroke : a.strokes) {
            if (stroke.empty()) malformed("an ink stroke has no points");
            for (const Position& p : stroke)
                if (!finite(p)) malformed("an ink point is not finite");
        }
    } else if (a.type == AnnotSquare || a.type == AnnotCircle || a.type == AnnotFreeText) {
        if (!usable(a.rect)) malformed("the rectangle is empty or not finite");
        if (a.type == AnnotFreeText && !(a.fontSize > 0.0f && a.fontSize < 1000.0f))
            malformed("font size out of range");
    } else if (a.type == AnnotLine) {
        if (!finite(a.from) || !finite(a.to)) malformed("a line end is not finite");
    } else {
        malformed("cannot create annotations of type " + std::to_string(a.type));
    }
}

// ---- in MuPDF's space ----

// Plain data for the C bodies below: MuPDF-space geometry and borrowed strings.
struct CreateSpec {
    const char* subtype;
    int markup;
    const fz_quad* quads;
    int quadCount;
    const int* strokeSizes;
    const fz_point* points;
    int strokeCount;
    fz_rect rect;
    int hasRect;
    fz_point from, to;
    int isLine, arrow;
    int hasColor;
    float color[3];
    int hasInterior;
    float interior[3];
    float opacity;
    float borderWidth;
    const char* author;
    const char* contents;
    int freeText;
    float fontSize;
    float textColor[3];
    int replyTo;  // object number of the annotation answered
    int64_t now;
};

void toFloats(uint32_t rgb, float* out) {
    out[0] = float((rgb >> 16) & 255) / 255.0f;
    out[1] = float((rgb >> 8) & 255) / 255.0f;
    out[2] = float(rgb & 255) / 255.0f;
}

// The annotation whose dictionary is dict among the page's annotations and
// widgets; NULL for one MuPDF does not list (links, popups). C only.
pdf_annot* findAnnot(fz_context* ctx, pdf_page* page, pdf_obj* dict) {
    for (pdf_annot* a = pdf_first_annot(ctx, page); a; a = pdf_next_annot(ctx, a))
        if (pdf_resolve_indirect(ctx, pdf_annot_obj(ctx, a)) == dict) return a;
    for (pdf_annot* a = pdf_first_widget(ctx, page); a; a = pdf_next_widget(ctx, a))
        if (pdf_resolve_indirect(ctx, pdf_annot_obj(ctx, a)) == dict) return a;
    return NULL;
}

// The place in the page's /Annots of the annotation id, or -1. C only.
int placeOf(fz_context* ctx, pdf_page* page, int64_t id) {
    pdf_obj* annots = pdf_dict_get(ctx, page->obj, PDF_NAME(Annots));
    const int n = pdf_array_len(ctx, annots);
    if (id < 0) return -id - 1 < n && pdf_is_dict(ctx, pdf_array_get(ctx, annots, int(-id - 1))) ? int(-id - 1) : -1;
    for (int i = 0; i < n; ++i) {
        pdf_obj* entry = pdf_array_get(ctx, annots, i);
        if (pdf_is_indirect(ctx, entry) && pdf_to_num(ctx, entry) == id && pdf_is_dict(ctx, entry)) return i;
    }
    return -1;
}

void fillAnnot(fz_context* ctx, pdf_page* page, pdf_annot* annot, const CreateSpec* s) {
    pdf_obj* obj = pdf_annot_obj(ctx, annot);
    if (s->markup) pdf_set_annot_quad_points(ctx, annot, s->quadCount, s->quads);
    if (s->strokeCount > 0) pdf_set_annot_ink_list(ctx, annot, s->strokeCount, s->strokeSizes, s->points);
    if (s->isLine) {
        pdf_set_annot_line(ctx, annot, s->from, s->to);
        if (s->arrow) pdf_set_annot_line_end_style(ctx, annot, PDF_ANNOT_LE_OPEN_ARROW);
    }
    if (s->hasRect) pdf_set_annot_rect(ctx, annot, s->rect);
    if (s->freeText) pdf_set_annot_default_appearance(ctx, annot, "Helv", s->fontSize, 3, s->textColor);
    if (s->hasColor) pdf_set_annot_color(ctx, annot, 3, s->color);
    if (s->hasInterior) pdf_set_annot_interior_color(ctx, annot, 3, s->interior);
    if (s->borderWidth > 0) pdf_set_annot_border(ctx, annot, s->borderWidth);
    pdf_set_annot_opacity(ctx, annot, s->opacity);
    if (s->author[0]) pdf_set_annot_author(ctx, annot, s->author);
    if (s->contents[0]) pdf_set_annot_contents(ctx, annot, s->contents);
    if (s->replyTo > 0) pdf_dict_put_drop(ctx, obj, PDF_NAME(IRT), pdf_new_indirect(ctx, page->doc, s->replyTo, 0));
    pdf_set_annot_creation_date(ctx, annot, s->now);
    pdf_set_annot_modification_date(ctx, annot, s->now);
    pdf_update_annot(ctx, annot);
}

// Makes the annotation; on failure the half-made one leaves the page. C only.
int createAnnot(fz_context* ctx, pdf_page* page, const CreateSpec* s) {
    pdf_annot* annot = pdf_create_annot(ctx, page, pdf_annot_type_from_string(ctx, s->subtype));
    int num = 0;
    fz_try(ctx) {
        fillAnnot(ctx, page, annot, s);
        num = pdf_to_num(ctx, pdf_annot_obj(ctx, annot));
    }
    fz_catch(ctx) {
        fz_try(ctx) {
            pdf_delete_annot(ctx, page, annot);
        }
        fz_catch(ctx) {}
        pdf_drop_annot(ctx, annot);
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot make the annotation");
    }
    pdf_drop_annot(ctx, annot);
    return num;
}

// A change, in page space (raw PDF values).
struct ChangeSpec {
    int place;
    const char* contents;  // NULL: unchanged
    const char* author;
    int hasColor;
    float color[3];
    int hasOpacity;
    float opacity;
    int hasRect;
    float from[4];  // old rect: x0 y0 x1 y1
    float to[4];    // new rect
    int64_t now;
};

// Maps the numbers of array (x, y pairs) from rect `from` to rect `to`.
void mapPairs(fz_context* ctx, pdf_obj* array, const ChangeSpec* s) {
    const float sx = (s->to[2] - s->to[0]) / (s->from[2] - s->from[0]);
    const float sy = (s->to[3] - s->to[1]) / (s->from[3] - s->from[1]);
    const int n = pdf_array_len(ctx, array) & ~1;
    for (int i = 0; i < n; i += 2) {
        const float x = pdf_array_get_real(ctx, array, i);
        const float y = pdf_array_get_real(ctx, array, i + 1);
        pdf_array_put_drop(ctx, array, i, pdf_new_real(ctx, s->to[0] + (x - s->from[0]) * sx));
        pdf_array_put_drop(ctx, array, i + 1, pdf_new_real(ctx, s->to[1] + (y - s->from[1]) * sy));
    }
}

void changeAnnot(fz_context* ctx, pdf_page* page, const ChangeSpec* s) {
    pdf_obj* dict = pdf_array_get(ctx, pdf_dict_get(ctx, page->obj, PDF_NAME(Annots)), s->place);
    dict = pdf_resolve_indirect(ctx, dict);
    pdf_annot* annot = findAnnot(ctx, page, dict);
    if (s->contents) pdf_dict_put_text_string(ctx, dict, PDF_NAME(Contents), s->contents);
    if (s->author) pdf_dict_put_text_string(ctx, dict, PDF_NAME(T), s->author);
    if (s->hasColor) {
        pdf_obj* c = pdf_dict_put_array(ctx, dict, PDF_NAME(C), 3);
        for (int i = 0; i < 3; ++i) pdf_array_push_real(ctx, c, s->color[i]);
    }
    if (s->hasOpacity) pdf_dict_put_real(ctx, dict, PDF_NAME(CA), s->opacity);
    if (s->hasRect) {
        mapPairs(ctx, pdf_dict_get(ctx, dict, PDF_NAME(QuadPoints)), s);
        mapPairs(ctx, pdf_dict_get(ctx, dict, PDF_NAME(L)), s);
        mapPairs(ctx, pdf_dict_get(ctx, dict, PDF_NAME(Vertices)), s);
        pdf_obj* ink = pdf_dict_get(ctx, dict, PDF_NAME(InkList));
        for (int i = 0; i < pdf_array_len(ctx, ink); ++i) mapPairs(ctx, pdf_array_get(ctx, ink, i), s);
        pdf_obj* rect = pdf_dict_put_array(ctx, dict, PDF_NAME(Rect), 4);
        for (int i = 0; i < 4; ++i) pdf_array_push_real(ctx, rect, s->to[i]);
    }
    if (!annot) return;
    pdf_set_annot_modification_date(ctx, annot, s->now);
    pdf_dirty_annot(ctx, annot);
    pdf_update_annot(ctx, annot);
}

// Removes the annotations ids from the page: through MuPDF where it lists
// them (a popup goes with its parent), else from /Annots. Each is found
// again by its dictionary before it goes, as every removal moves the places
// behind it. C only.
void deleteAll(fz_context* ctx, pdf_page* page, const int64_t* ids, int count, pdf_obj** dicts) {
    pdf_obj* annots = pdf_dict_get(ctx, page->obj, PDF_NAME(Annots));
    fz_try(ctx) {
        for (int i = 0; i < count; ++i) {
            const int place = placeOf(ctx, page, ids[i]);
            if (place >= 0) dicts[i] = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, pdf_array_get(ctx, annots, place)));
        }
        for (int i = 0; i < count; ++i) {
            if (!dicts[i]) continue;
            int place = -1;
            for (int j = 0, n = pdf_array_len(ctx, annots); j < n && place < 0; ++j)
                if (pdf_resolve_indirect(ctx, pdf_array_get(ctx, annots, j)) == dicts[i]) place = j;
            if (place < 0) continue; /* a popup MuPDF removed with its parent */
            pdf_annot* annot = findAnnot(ctx, page, dicts[i]);
            if (annot)
                pdf_delete_annot(ctx, page, annot);
            else
                pdf_array_delete(ctx, annots, place);
        }
    }
    fz_always(ctx) {
        for (int i = 0; i < count; ++i) pdf_drop_obj(ctx, dicts[i]);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// ---- the document side ----

struct Target {
    PdfDocument* document;
    std::shared_ptr<IPage> page;
    PdfPage* pdfPage;
    fz_context* ctx;
};

Target targetOf(IDocument& document, unsigned page) {
    auto* pdf = dynamic_cast<PdfDocument*>(&document);
    if (pdf == nullptr) throw std::invalid_argument("annotations: not a PDF document");
    Target t{pdf, document.GetPage(page), nullptr, nullptr};
    t.pdfPage = dynamic_cast<PdfPage*>(t.page.get());
    t.ctx = t.pdfPage->Context();
    return t;
}

int placeOrThrow(const Target& t, int64_t id) {
    const int place = guarded(t.ctx, [&] { return placeOf(t.ctx, t.pdfPage->Native(), id); });
    if (place < 0) throw std::invalid_argument("annotation " + std::to_string(id) + ": not on this page");
    return place;
}

fz_point toMuPdf(const Position& p, const fz_matrix& ctm) {
    return fz_transform_point(fz_make_point(float(p.x), float(p.y)), ctm);
}

fz_rect toMuPdf(const Rect& r, const fz_matrix& ctm) {
    return fz_transform_rect(fz_make_rect(float(r.left), float(r.bottom), float(r.right), float(r.top)), ctm);
}

}  // namespace

int64_t CreateAnnotation(IDocument& document, unsigned page, const NewAnnotation& a) {
    check(a);
    Target t = targetOf(document, page);
    fz_context* ctx = t.ctx;
    pdf_page* native = t.pdfPage->Native();
    const std::shared_ptr<DocumentCore>& core = t.pdfPage->Core();
    ScopedFontProvider fonts(core->fonts.get());
    fz_matrix ctm;
    guarded(ctx, [&] { pdf_page_transform(ctx, native, NULL, &ctm); });

    const int type = a.inReplyTo != 0 ? int(AnnotText) : a.type;
    CreateSpec s{};
    s.subtype = AnnotationSubtypeName(type);
    std::vector<fz_quad> quads;
    std::vector<int> sizes;
    std::vector<fz_point> points;
    Position at = a.at;
    if (a.inReplyTo != 0) {
        placeOrThrow(t, a.inReplyTo);
        if (a.inReplyTo < 0)
            throw std::invalid_argument("annotation " + std::to_string(a.inReplyTo) + ": cannot be answered");
        s.replyTo = int(a.inReplyTo);
        for (const Annotation& other : ListAnnotations(document, page))
            if (other.id == a.inReplyTo) at = {other.rect.left, other.rect.top};
    }
    if (isMarkup(type)) {
        s.markup = 1;
        for (const Rect& r : a.lines) {
            quads.push_back(fz_quad{toMuPdf(Position{r.left, r.top}, ctm), toMuPdf(Position{r.right, r.top}, ctm),
                                    toMuPdf(Position{r.left, r.bottom}, ctm),
                                    toMuPdf(Position{r.right, r.bottom}, ctm)});
        }
        s.quads = quads.data();
        s.quadCount = int(quads.size());
    } else if (type == AnnotText) {
        s.hasRect = 1;
        s.rect = toMuPdf(Rect{at.x, at.y, at.x + 20, at.y - 20}, ctm);
    } else if (type == AnnotInk) {
        for (const auto& stroke : a.strokes) {
            sizes.push_back(int(stroke.size()));
            for (const Position& p : stroke) points.push_back(toMuPdf(p, ctm));
        }
        s.strokeSizes = sizes.data();
        s.points = points.data();
        s.strokeCount = int(sizes.size());
    } else if (type == AnnotLine) {
        s.isLine = 1;
        s.from = toMuPdf(a.from, ctm);
        s.to = toMuPdf(a.to, ctm);
        s.arrow = a.arrow;
    } else {
        s.hasRect = 1;
        s.rect = toMuPdf(a.rect, ctm);
        s.freeText = type == AnnotFreeText;
        s.fontSize = a.fontSize;
        toFloats(a.textColor, s.textColor);
    }
    s.hasColor = a.hasColor;
    toFloats(a.color, s.color);
    s.hasInterior = a.hasInteriorColor && (type == AnnotSquare || type == AnnotCircle);
    toFloats(a.interiorColor, s.interior);
    s.opacity = a.opacity;
    s.borderWidth = a.borderWidth;
    s.author = a.author.c_str();
    s.contents = a.contents.c_str();
    s.now = int64_t(std::time(nullptr));

    core->Changed();
    const int num = guarded(ctx, [&] { return createAnnot(ctx, native, &s); });
    core->userAnnotations.insert(num);
    return num;
}

void ChangeAnnotation(IDocument& document, unsigned page, int64_t id, const AnnotationChange& change) {
    if (change.opacity && !(*change.opacity >= 0.0f && *change.opacity <= 1.0f)) malformed("opacity outside 0 to 1");
    if (change.rect && !usable(*change.rect)) malformed("the rectangle is empty or not finite");
    Target t = targetOf(document, page);
    ChangeSpec s{};
    s.place = placeOrThrow(t, id);
    if (change.contents) s.contents = change.contents->c_str();
    if (change.author) s.author = change.author->c_str();
    if (change.color) {
        s.hasColor = 1;
        toFloats(*change.color, s.color);
    }
    if (change.opacity) {
        s.hasOpacity = 1;
        s.opacity = *change.opacity;
    }
    if (change.rect) {
        Rect old{};
        for (const Annotation& a : ListAnnotations(document, page))
            if (a.id == id) old = a.rect;
        s.hasRect = usable(old);
        const Rect& r = *change.rect;
        const float from[4] = {float(old.left), float(old.bottom), float(old.right), float(old.top)};
        const float to[4] = {float(r.left), float(r.bottom), float(r.right), float(r.top)};
        std::copy(from, from + 4, s.from);
        std::copy(to, to + 4, s.to);
        if (!s.hasRect) malformed("annotation " + std::to_string(id) + " has no rectangle to move");
    }
    s.now = int64_t(std::time(nullptr));
    const std::shared_ptr<DocumentCore>& core = t.pdfPage->Core();
    ScopedFontProvider fonts(core->fonts.get());
    core->Changed();
    guarded(t.ctx, [&] { changeAnnot(t.ctx, t.pdfPage->Native(), &s); });
    if (id > 0) core->userAnnotations.insert(int(id));
}

void DeleteAnnotation(IDocument& document, unsigned page, int64_t id) {
    Target t = targetOf(document, page);
    placeOrThrow(t, id);
    // The annotation, its replies and theirs, each with its popup.
    const std::vector<Annotation> all = ListAnnotations(document, page);
    std::set<int64_t> doomed{id};
    for (bool grew = true; grew;) {
        grew = false;
        for (const Annotation& a : all) {
            if (a.inReplyTo != 0 && doomed.count(a.inReplyTo) && doomed.insert(a.id).second) grew = true;
        }
    }
    for (const Annotation& a : all)
        if (doomed.count(a.id) && a.popup != 0) doomed.insert(a.popup);
    const std::vector<int64_t> ids(doomed.begin(), doomed.end());
    std::vector<pdf_obj*> dicts(ids.size(), nullptr);
    const std::shared_ptr<DocumentCore>& core = t.pdfPage->Core();
    core->Changed();
    guarded(t.ctx, [&] { deleteAll(t.ctx, t.pdfPage->Native(), ids.data(), int(ids.size()), dicts.data()); });
    for (int64_t gone : ids)
        if (gone > 0) core->userAnnotations.erase(int(gone));
}

}  // namespace Orvane::PDF::Pdfium
