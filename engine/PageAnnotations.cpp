#include "engine/PageAnnotations.h"

#include <glog/logging.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PdfPage.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Runs inside guarded(): plain C.
int annotationType(const char* subtype) {
    // In the order of the type numbers, from 1.
    static const char* const names[] = {
        "Text",        "Link",      "FreeText",       "Line",     "Square",    "Circle",    "Polygon",
        "PolyLine",    "Highlight", "Underline",      "Squiggly", "StrikeOut", "Stamp",     "Caret",
        "Ink",         "Popup",     "FileAttachment", "Sound",    "Movie",     "Widget",    "Screen",
        "PrinterMark", "TrapNet",   "Watermark",      "3D",       "RichMedia", "XFAWidget", "Redact",
    };
    for (int i = 0; i < int(sizeof names / sizeof names[0]); ++i) {
        if (std::strcmp(subtype, names[i]) == 0) return i + 1;
    }
    return IAnnotation::Unknown;
}

}  // namespace

std::vector<std::shared_ptr<IAnnotation>> PdfPage::ReadAnnotations(int subtype) {
    std::vector<std::shared_ptr<IAnnotation>> result;
    fz_context* ctx = Context();
    pdf_obj* pageObj = Native()->obj;
    const int count = guarded(ctx, [&] { return pdf_array_len(ctx, pdf_dict_get(ctx, pageObj, PDF_NAME(Annots))); });

    struct Entry {
        int state;  // 0 usable, 1 not a dictionary, 2 no usable /Rect
        int type;
        fz_rect rect;
        pdf_obj* link;  // kept reference, links only
    };
    // A broken entry is skipped; one line tells how many and why the first was.
    int skipped = 0;
    std::string firstProblem;
    auto skip = [&](int i, const std::string& why) {
        if (skipped++ == 0) firstProblem = "annotation " + std::to_string(i) + ": " + why;
    };
    for (int i = 0; i < count; ++i) {
        Entry entry{};
        try {
            entry = guarded(ctx, [&] {
                Entry e{};
                pdf_obj* annot = pdf_array_get(ctx, pdf_dict_get(ctx, pageObj, PDF_NAME(Annots)), i);
                if (!pdf_is_dict(ctx, annot)) {
                    e.state = 1;
                    return e;
                }
                e.type = annotationType(pdf_to_name(ctx, pdf_dict_get(ctx, annot, PDF_NAME(Subtype))));
                if (subtype >= 0 && e.type != subtype) return e;
                pdf_obj* rect = pdf_dict_get(ctx, annot, PDF_NAME(Rect));
                if (pdf_array_len(ctx, rect) < 4) {
                    e.state = 2;
                    return e;
                }
                e.rect = pdf_to_rect(ctx, rect);
                if (e.type == IAnnotation::Link) e.link = pdf_keep_obj(ctx, annot);
                return e;
            });
        } catch (const Orvane::Exception& e) {
            skip(i, e.what());
            continue;
        }
        PdfObjHandle link(ctx, entry.link);
        if (entry.state == 1) {
            skip(i, "not a dictionary");
            continue;
        }
        if (subtype >= 0 && entry.type != subtype) continue;
        if (entry.state == 2) {
            skip(i, "no /Rect");
            continue;
        }
        const fz_rect r = entry.rect;
        const Rect rect{std::min(r.x0, r.x1), std::max(r.y0, r.y1), std::max(r.x0, r.x1), std::min(r.y0, r.y1)};
        if (entry.type == IAnnotation::Link) {
            result.push_back(MakeLinkAnnotation(rect, core_, std::move(link), Number()));
        } else {
            result.push_back(std::make_shared<Annotation>(static_cast<IAnnotation::Type>(entry.type), rect));
        }
    }
    if (skipped > 0) {
        LOG(WARNING) << "page " << Number() << ": " << skipped << " broken annotation(s) skipped; " << firstProblem;
    }
    return result;
}

std::vector<std::shared_ptr<IAnnotation>> PdfPage::GetAnnotations(int subtype) {
    if (subtype < 0) return {};
    return ReadAnnotations(subtype);
}

std::vector<std::shared_ptr<IAnnotation>> PdfPage::GetAllAnnotations() {
    return ReadAnnotations(-1);
}

}  // namespace Orvane::PDF::Pdfium
