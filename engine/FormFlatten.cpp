// Flattening: every widget's current appearance is drawn into its page's
// content as a form XObject placed on the widget's rectangle, the widgets
// leave the pages and the form leaves the catalog. The page shows what it
// showed, and nothing is left to fill in.

#include <glog/logging.h>

#include <stdexcept>
#include <string>

#include "engine/DocumentCore.h"
#include "engine/Form.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Runs inside guarded(): C only. The appearance the widget shows, NULL for
// none or when it is hidden.
pdf_obj* shownAppearance(fz_context* ctx, pdf_obj* widget) {
    const int flags = pdf_dict_get_int(ctx, widget, PDF_NAME(F));
    if (flags & (PDF_ANNOT_IS_HIDDEN | PDF_ANNOT_IS_NO_VIEW)) return NULL;
    pdf_obj* normal = pdf_dict_getl(ctx, widget, PDF_NAME(AP), PDF_NAME(N), NULL);
    if (pdf_is_stream(ctx, normal)) return normal;
    pdf_obj* state = pdf_dict_get(ctx, normal, pdf_dict_get(ctx, widget, PDF_NAME(AS)));
    return pdf_is_stream(ctx, state) ? state : NULL;
}

// Runs inside guarded(): C only. Draws the page's widgets into buf (one
// "q cm Do Q" each, their appearances named in xobjects) and removes them
// from /Annots; returns how many were drawn.
int bakeWidgets(fz_context* ctx, pdf_document* doc, pdf_obj* page, pdf_obj* xobjects, fz_buffer* buf) {
    pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
    int drawn = 0;
    for (int i = 0; i < pdf_array_len(ctx, annots);) {
        pdf_obj* annot = pdf_array_get(ctx, annots, i);
        if (!pdf_name_eq(ctx, pdf_dict_get(ctx, annot, PDF_NAME(Subtype)), PDF_NAME(Widget))) {
            ++i;
            continue;
        }
        pdf_obj* ap = shownAppearance(ctx, annot);
        if (ap) {
            fz_rect rect = normalized(pdf_dict_get_rect(ctx, annot, PDF_NAME(Rect)));
            fz_rect box = fz_transform_rect(pdf_dict_get_rect(ctx, ap, PDF_NAME(BBox)),
                                            pdf_dict_get_matrix(ctx, ap, PDF_NAME(Matrix)));
            if (!fz_is_empty_rect(box) && !fz_is_empty_rect(rect)) {
                const float sx = (rect.x1 - rect.x0) / (box.x1 - box.x0);
                const float sy = (rect.y1 - rect.y0) / (box.y1 - box.y0);
                char name[32];
                fz_snprintf(name, sizeof name, "QFlat%d_%d", pdf_to_num(ctx, annot), drawn);
                pdf_dict_put(ctx, ap, PDF_NAME(Type), PDF_NAME(XObject));
                pdf_dict_put(ctx, ap, PDF_NAME(Subtype), PDF_NAME(Form));
                pdf_dict_puts(ctx, xobjects, name, ap);
                fz_append_printf(ctx, buf, "q %g 0 0 %g %g %g cm /%s Do Q\n", sx, sy, rect.x0 - box.x0 * sx,
                                 rect.y0 - box.y0 * sy, name);
                ++drawn;
            }
        }
        pdf_array_delete(ctx, annots, i);
    }
    (void)doc;
    return drawn;
}

// Runs inside guarded(): C only. Wraps the page's content in q ... Q and
// appends buf after it.
void appendContent(fz_context* ctx, pdf_document* doc, pdf_obj* page, fz_buffer* buf) {
    pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
    pdf_obj* array = pdf_new_array(ctx, doc, 3);
    fz_buffer* open = NULL;
    fz_var(open);
    fz_try(ctx) {
        open = fz_new_buffer_from_copied_data(ctx, (const unsigned char*)"q\n", 2);
        pdf_array_push_drop(ctx, array, pdf_add_stream(ctx, doc, open, NULL, 0));
        if (pdf_is_array(ctx, contents)) {
            for (int i = 0; i < pdf_array_len(ctx, contents); ++i) pdf_array_push(ctx, array, pdf_array_get(ctx, contents, i));
        } else if (contents) {
            pdf_array_push(ctx, array, contents);
        }
        pdf_array_push_drop(ctx, array, pdf_add_stream(ctx, doc, buf, NULL, 0));
        pdf_dict_put(ctx, page, PDF_NAME(Contents), array);
    }
    fz_always(ctx) {
        fz_drop_buffer(ctx, open);
        pdf_drop_obj(ctx, array);
    }
    fz_catch(ctx) fz_rethrow(ctx);
}

}  // namespace

bool FlattenForm(IDocument& document) {
    auto* pdf = dynamic_cast<PdfDocument*>(&document);
    if (!pdf) throw std::invalid_argument("not a PDF document");
    fz_context* ctx = pdf->Core()->ctx;
    pdf_document* doc = pdf->Core()->doc;
    pdf_obj* root = guarded(ctx, [&] { return pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root)); });
    const bool hadForm = guarded(ctx, [&] { return pdf_dict_get(ctx, root, PDF_NAME(AcroForm)) != NULL; });
    const PageTree tree = ReadPageTree(ctx, doc);
    for (size_t p = 0; p < tree.leaves.size(); ++p) {
        pdf_obj* page = tree.leaves[p].page;
        const bool widgets = guarded(ctx, [&] {
            pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
            for (int i = 0; i < pdf_array_len(ctx, annots); ++i) {
                if (pdf_name_eq(ctx, pdf_dict_get(ctx, pdf_array_get(ctx, annots, i), PDF_NAME(Subtype)), PDF_NAME(Widget)))
                    return 1;
            }
            return 0;
        });
        if (!widgets) continue;
        // Appearances made current first (a field changed without one
        // drawn), and made for good where the file has none: MuPDF draws
        // those for the screen only, and they would be lost with the widget.
        // An unsigned signature field's sign here mark is the reader's, not
        // the page's: it goes without one.
        if (tree.consistent) {
            PageHandle loaded(ctx, guarded(ctx, [&] { return fz_load_page(ctx, &doc->super, int(p)); }));
            guarded(ctx, [&] {
                pdf_page* pdfPage = reinterpret_cast<pdf_page*>(loaded.get());
                for (pdf_annot* widget = pdf_first_widget(ctx, pdfPage); widget; widget = pdf_next_widget(ctx, widget)) {
                    pdf_obj* obj = pdf_annot_obj(ctx, widget);
                    if (pdf_dict_getl(ctx, obj, PDF_NAME(AP), PDF_NAME(N), NULL) != NULL) continue;
                    if (pdf_dict_get_inheritable(ctx, obj, PDF_NAME(FT)) == PDF_NAME(Sig)) continue;
                    pdf_annot_request_resynthesis(ctx, widget);
                }
                pdf_update_page(ctx, pdfPage);
            });
        }
        BufferHandle buf(ctx, guarded(ctx, [&] { return fz_new_buffer(ctx, 256); }));
        guarded(ctx, [&] {
            pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
            if (!pdf_is_dict(ctx, resources)) resources = pdf_dict_put_dict(ctx, page, PDF_NAME(Resources), 2);
            else if (!pdf_dict_get(ctx, page, PDF_NAME(Resources))) {
                resources = pdf_copy_dict(ctx, resources);
                pdf_dict_put_drop(ctx, page, PDF_NAME(Resources), resources);
            }
            pdf_obj* xobjects = pdf_dict_get(ctx, resources, PDF_NAME(XObject));
            if (!pdf_is_dict(ctx, xobjects)) xobjects = pdf_dict_put_dict(ctx, resources, PDF_NAME(XObject), 4);
            if (bakeWidgets(ctx, doc, page, xobjects, buf.get()) > 0) appendContent(ctx, doc, page, buf.get());
        });
    }
    guarded(ctx, [&] { pdf_dict_del(ctx, root, PDF_NAME(AcroForm)); });
    pdf->Core()->Changed();
    return hadForm;
}

}  // namespace Orvane::PDF::Pdfium
