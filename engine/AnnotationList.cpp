// A page's annotations as the file holds them, read straight from the PDF
// objects of its /Annots: MuPDF's own annotation list leaves out links and
// popups, and loading it would make an object per annotation.

#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>

#include "engine/Annotations.h"
#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PdfDocument.h"
#include "engine/PdfPage.h"
#include "engine/Reading.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

const char* const kSubtypes[] = {
    "Text",        "Link",      "FreeText",       "Line",     "Square",    "Circle",    "Polygon",
    "PolyLine",    "Highlight", "Underline",      "Squiggly", "StrikeOut", "Stamp",     "Caret",
    "Ink",         "Popup",     "FileAttachment", "Sound",    "Movie",     "Widget",    "Screen",
    "PrinterMark", "TrapNet",   "Watermark",      "3D",       "RichMedia", "XFAWidget", "Redact",
};
constexpr int kSubtypeCount = int(sizeof kSubtypes / sizeof kSubtypes[0]);

// One annotation dictionary, read inside guarded(): C values and strings
// borrowed from the document.
struct AnnotRead {
    int isDict;
    int num;  // object number, 0 when written directly into /Annots
    const char* subtype;
    int hasRect;
    float rect[4];
    const char* text[5];  // Contents, T, Subj, M, CreationDate
    int colours;          // components of /C
    float colour[4];
    int interiors;  // components of /IC
    float interior[4];
    int hasOpacity;
    float opacity;
    int hasWidth;
    float width;
    const char* style;
    pdf_obj* quads;  // borrowed arrays, read afterwards
    int quadCount;
    pdf_obj* ink;
    int strokeCount;
    int lineCount;
    float line[4];
    const char* ending[2];
    const char* icon;
    const char* appearance;  // /DA
    int flags;
    int replyTo;
    int popup;
};

int readColour(fz_context* ctx, pdf_obj* array, float* out) {
    const int n = pdf_array_len(ctx, array);
    if (n != 1 && n != 3 && n != 4) return 0;
    for (int i = 0; i < n; ++i) out[i] = pdf_to_real(ctx, pdf_array_get(ctx, array, i));
    return n;
}

const char* textOf(fz_context* ctx, pdf_obj* value) {
    return pdf_is_string(ctx, value) ? pdf_to_text_string(ctx, value) : NULL;
}

void readAnnot(fz_context* ctx, pdf_obj* entry, AnnotRead* out) {
    pdf_obj* dict = pdf_resolve_indirect(ctx, entry);
    if (!pdf_is_dict(ctx, dict)) return;
    out->isDict = 1;
    out->num = pdf_is_indirect(ctx, entry) ? pdf_to_num(ctx, entry) : 0;
    out->subtype = pdf_to_name(ctx, pdf_dict_get(ctx, dict, PDF_NAME(Subtype)));
    pdf_obj* rect = pdf_dict_get(ctx, dict, PDF_NAME(Rect));
    if (pdf_array_len(ctx, rect) >= 4) {
        out->hasRect = 1;
        for (int i = 0; i < 4; ++i) out->rect[i] = pdf_array_get_real(ctx, rect, i);
    }
    out->text[0] = textOf(ctx, pdf_dict_get(ctx, dict, PDF_NAME(Contents)));
    out->text[1] = textOf(ctx, pdf_dict_get(ctx, dict, PDF_NAME(T)));
    out->text[2] = textOf(ctx, pdf_dict_gets(ctx, dict, "Subj"));
    out->text[3] = textOf(ctx, pdf_dict_get(ctx, dict, PDF_NAME(M)));
    out->text[4] = textOf(ctx, pdf_dict_get(ctx, dict, PDF_NAME(CreationDate)));
    out->colours = readColour(ctx, pdf_dict_get(ctx, dict, PDF_NAME(C)), out->colour);
    out->interiors = readColour(ctx, pdf_dict_get(ctx, dict, PDF_NAME(IC)), out->interior);
    pdf_obj* opacity = pdf_dict_get(ctx, dict, PDF_NAME(CA));
    if (pdf_is_number(ctx, opacity)) {
        out->hasOpacity = 1;
        out->opacity = pdf_to_real(ctx, opacity);
    }
    pdf_obj* bs = pdf_dict_get(ctx, dict, PDF_NAME(BS));
    pdf_obj* width = pdf_dict_get(ctx, bs, PDF_NAME(W));
    if (pdf_is_number(ctx, width)) {
        out->hasWidth = 1;
        out->width = pdf_to_real(ctx, width);
    } else {
        pdf_obj* border = pdf_dict_get(ctx, dict, PDF_NAME(Border));
        if (pdf_array_len(ctx, border) >= 3) {
            out->hasWidth = 1;
            out->width = pdf_array_get_real(ctx, border, 2);
        }
    }
    pdf_obj* style = pdf_dict_get(ctx, bs, PDF_NAME(S));
    out->style = pdf_is_name(ctx, style) ? pdf_to_name(ctx, style) : NULL;
    out->quads = pdf_dict_get(ctx, dict, PDF_NAME(QuadPoints));
    out->quadCount = pdf_array_len(ctx, out->quads) / 8;
    out->ink = pdf_dict_get(ctx, dict, PDF_NAME(InkList));
    out->strokeCount = pdf_array_len(ctx, out->ink);
    pdf_obj* line = pdf_dict_get(ctx, dict, PDF_NAME(L));
    if (pdf_array_len(ctx, line) >= 4) {
        out->lineCount = 2;
        for (int i = 0; i < 4; ++i) out->line[i] = pdf_array_get_real(ctx, line, i);
    }
    pdf_obj* endings = pdf_dict_get(ctx, dict, PDF_NAME(LE));
    for (int i = 0; i < 2 && i < pdf_array_len(ctx, endings); ++i) {
        pdf_obj* name = pdf_array_get(ctx, endings, i);
        out->ending[i] = pdf_is_name(ctx, name) ? pdf_to_name(ctx, name) : NULL;
    }
    pdf_obj* icon = pdf_dict_get(ctx, dict, PDF_NAME(Name));
    out->icon = pdf_is_name(ctx, icon) ? pdf_to_name(ctx, icon) : NULL;
    pdf_obj* da = pdf_dict_get(ctx, dict, PDF_NAME(DA));
    out->appearance = pdf_is_string(ctx, da) ? pdf_to_str_buf(ctx, da) : NULL;
    out->flags = pdf_dict_get_int(ctx, dict, PDF_NAME(F));
    pdf_obj* irt = pdf_dict_get(ctx, dict, PDF_NAME(IRT));
    out->replyTo = pdf_is_indirect(ctx, irt) ? pdf_to_num(ctx, irt) : 0;
    pdf_obj* popup = pdf_dict_get(ctx, dict, PDF_NAME(Popup));
    out->popup = pdf_is_indirect(ctx, popup) ? pdf_to_num(ctx, popup) : 0;
}

// The numbers of array into out (count of them). C only.
void readNumbers(fz_context* ctx, pdf_obj* array, float* out, int count) {
    for (int i = 0; i < count; ++i) out[i] = pdf_array_get_real(ctx, array, i);
}

// The vertex count of each stroke of an ink list. C only.
void readStrokeSizes(fz_context* ctx, pdf_obj* ink, int* sizes, int count) {
    for (int i = 0; i < count; ++i) sizes[i] = pdf_array_len(ctx, pdf_array_get(ctx, ink, i)) / 2;
}

// The vertices of every stroke, one after another. C only.
void readStrokes(fz_context* ctx, pdf_obj* ink, const int* sizes, int count, float* out) {
    for (int i = 0; i < count; ++i) {
        pdf_obj* stroke = pdf_array_get(ctx, ink, i);
        for (int j = 0; j < 2 * sizes[i]; ++j) *out++ = pdf_array_get_real(ctx, stroke, j);
    }
}

uint32_t channel(float value) {
    if (!(value > 0.0f)) return 0;
    if (value >= 1.0f) return 255;
    return uint32_t(std::lround(value * 255.0f));
}

uint32_t toRgb(const float* c, int n) {
    float r = 0, g = 0, b = 0;
    if (n == 1) {
        r = g = b = c[0];
    } else if (n == 3) {
        r = c[0], g = c[1], b = c[2];
    } else if (n == 4) {
        r = (1 - c[0]) * (1 - c[3]);
        g = (1 - c[1]) * (1 - c[3]);
        b = (1 - c[2]) * (1 - c[3]);
    }
    return channel(r) << 16 | channel(g) << 8 | channel(b);
}

std::vector<Position> toPoints(const std::vector<float>& numbers) {
    std::vector<Position> points(numbers.size() / 2);
    for (size_t i = 0; i < points.size(); ++i) points[i] = {numbers[2 * i], numbers[2 * i + 1]};
    return points;
}

// The font size and text colour of a default appearance string ("/Helv 12 Tf
// 1 0 0 rg"): the operands of its last Tf and colour operator.
void readAppearance(const std::string& da, Annotation& out) {
    std::istringstream in(da);
    std::vector<std::string> operands;
    std::string token;
    auto number = [&](size_t back) {
        return operands.size() >= back ? std::strtof(operands[operands.size() - back].c_str(), nullptr) : 0.0f;
    };
    while (in >> token) {
        const unsigned char first = static_cast<unsigned char>(token[0]);
        if (!std::isalpha(first) && first != '\'' && first != '"') {
            operands.push_back(token);
            continue;
        }
        if (token == "Tf") {
            out.fontSize = number(1);
        } else if (token == "rg" || token == "g" || token == "k") {
            const int n = token == "rg" ? 3 : token == "g" ? 1 : 4;
            float c[4] = {};
            for (int i = 0; i < n; ++i) c[i] = number(size_t(n - i));
            out.textColor = toRgb(c, n);
        }
        operands.clear();
    }
}

Annotation toAnnotation(fz_context* ctx, const AnnotRead& r, int index) {
    Annotation a;
    a.id = r.num > 0 ? r.num : -(int64_t(index) + 1);
    a.subtype = r.subtype;
    a.type = AnnotationTypeOf(r.subtype);
    if (r.hasRect) {
        a.rect = Rect{std::min(r.rect[0], r.rect[2]), std::max(r.rect[1], r.rect[3]), std::max(r.rect[0], r.rect[2]),
                      std::min(r.rect[1], r.rect[3])};
    }
    auto text = [&](int i) { return r.text[i] ? std::string(r.text[i]) : std::string(); };
    a.contents = text(0);
    a.author = text(1);
    a.subject = text(2);
    if (r.text[3]) a.modified = ParsePdfDate(text(3));
    if (r.text[4]) a.created = ParsePdfDate(text(4));
    a.hasColor = r.colours > 0;
    if (a.hasColor) a.color = toRgb(r.colour, r.colours);
    a.hasInteriorColor = r.interiors > 0;
    if (a.hasInteriorColor) a.interiorColor = toRgb(r.interior, r.interiors);
    if (r.hasOpacity) a.opacity = r.opacity;
    if (r.hasWidth) a.borderWidth = r.width;
    if (r.style) a.borderStyle = r.style;
    if (r.quadCount > 0) {
        std::vector<float> numbers(size_t(r.quadCount) * 8);
        guarded(ctx, [&] { readNumbers(ctx, r.quads, numbers.data(), int(numbers.size())); });
        a.quadPoints = toPoints(numbers);
    }
    if (r.strokeCount > 0) {
        std::vector<int> sizes(size_t(r.strokeCount));
        guarded(ctx, [&] { readStrokeSizes(ctx, r.ink, sizes.data(), r.strokeCount); });
        size_t total = 0;
        for (int n : sizes) total += size_t(n) * 2;
        std::vector<float> numbers(total);
        guarded(ctx, [&] { readStrokes(ctx, r.ink, sizes.data(), r.strokeCount, numbers.data()); });
        size_t at = 0;
        for (int n : sizes) {
            std::vector<float> stroke(numbers.begin() + long(at), numbers.begin() + long(at + size_t(n) * 2));
            a.inkStrokes.push_back(toPoints(stroke));
            at += size_t(n) * 2;
        }
    }
    if (r.lineCount == 2) a.linePoints = {{r.line[0], r.line[1]}, {r.line[2], r.line[3]}};
    if (r.ending[0]) a.lineStart = r.ending[0];
    if (r.ending[1]) a.lineEnd = r.ending[1];
    if (r.icon) a.icon = r.icon;
    if (r.appearance) readAppearance(r.appearance, a);
    a.hidden = (r.flags & 2) != 0;
    a.printable = (r.flags & 4) != 0;
    a.locked = (r.flags & 128) != 0;
    a.inReplyTo = r.replyTo;
    a.popup = r.popup;
    return a;
}

}  // namespace

int AnnotationTypeOf(const char* subtype) {
    for (int i = 0; i < kSubtypeCount; ++i) {
        if (std::strcmp(subtype, kSubtypes[i]) == 0) return i + 1;
    }
    return AnnotOther;
}

const char* AnnotationSubtypeName(int type) {
    return type >= 1 && type <= kSubtypeCount ? kSubtypes[type - 1] : nullptr;
}

std::vector<Annotation> ListAnnotations(const IDocument& document, unsigned page) {
    if (dynamic_cast<const PdfDocument*>(&document) == nullptr) {
        throw std::invalid_argument("annotations: not a PDF document");
    }
    const std::shared_ptr<IPage> loaded = document.GetPage(page);
    const auto* pdfPage = dynamic_cast<const PdfPage*>(loaded.get());
    fz_context* ctx = pdfPage->Context();
    pdf_obj* annots = guarded(ctx, [&] { return pdf_dict_get(ctx, pdfPage->Native()->obj, PDF_NAME(Annots)); });
    const int count = guarded(ctx, [&] { return pdf_array_len(ctx, annots); });
    std::vector<Annotation> result;
    result.reserve(size_t(count));
    int broken = 0;
    for (int i = 0; i < count; ++i) {
        try {
            const AnnotRead read = guarded(ctx, [&] {
                AnnotRead r{};
                readAnnot(ctx, pdf_array_get(ctx, annots, i), &r);
                return r;
            });
            if (read.isDict) {
                result.push_back(toAnnotation(ctx, read, i));
                continue;
            }
        } catch (const Orvane::Exception& e) {
            if (RequestBudget::Expired()) throw;
            VLOG(1) << "page " << page << ", annotation " << i << ": " << e.what();
        }
        ++broken;
    }
    if (broken > 0) LOG(WARNING) << "page " << page << ": " << broken << " broken annotation(s) skipped";
    return result;
}

}  // namespace Orvane::PDF::Pdfium
