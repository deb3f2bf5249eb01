#include "engine/Graft.h"

#include "engine/Guarded.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Direct objects nested deeper than this inside one object are refused.
constexpr int kMaxDirectDepth = 256;

int isPageTreeNode(fz_context* ctx, pdf_obj* obj) {
    pdf_obj* type = pdf_dict_get(ctx, obj, PDF_NAME(Type));
    return pdf_name_eq(ctx, type, PDF_NAME(Page)) || pdf_name_eq(ctx, type, PDF_NAME(Pages));
}

pdf_obj* graftReference(fz_context* ctx, GraftState* g, pdf_obj* ref) {
    const int num = pdf_to_num(ctx, ref);
    if (num <= 0 || num >= g->srcLen || g->dstFromSrc[num] < 0) return PDF_NULL;
    if (g->dstFromSrc[num] > 0) return pdf_new_indirect(ctx, g->dst, g->dstFromSrc[num], 0);
    pdf_obj* obj = pdf_resolve_indirect(ctx, ref);
    if (obj == NULL || pdf_is_null(ctx, obj) || isPageTreeNode(ctx, obj)) {
        g->dstFromSrc[num] = -1;
        return PDF_NULL;
    }
    const int made = pdf_create_object(ctx, g->dst);
    g->dstFromSrc[num] = made;
    g->pending[g->pendingCount++] = num;
    return pdf_new_indirect(ctx, g->dst, made, 0);
}

pdf_obj* graftDirect(fz_context* ctx, GraftState* g, pdf_obj* value, int depth) {
    // The engine's own names, null and the booleans belong to no document.
    if (value < PDF_LIMIT) return value;
    if (pdf_is_indirect(ctx, value)) return graftReference(ctx, g, value);
    if (depth > kMaxDirectDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "objects nested too deep");
    if (pdf_is_dict(ctx, value)) {
        const int n = pdf_dict_len(ctx, value);
        pdf_obj* copy = pdf_new_dict(ctx, g->dst, n);
        fz_try(ctx) {
            for (int i = 0; i < n; ++i) {
                pdf_dict_put_drop(ctx, copy, pdf_dict_get_key(ctx, value, i),
                                  graftDirect(ctx, g, pdf_dict_get_val(ctx, value, i), depth + 1));
            }
        }
        fz_catch(ctx) {
            pdf_drop_obj(ctx, copy);
            fz_rethrow(ctx);
        }
        return copy;
    }
    if (pdf_is_array(ctx, value)) {
        const int n = pdf_array_len(ctx, value);
        pdf_obj* copy = pdf_new_array(ctx, g->dst, n);
        fz_try(ctx) {
            for (int i = 0; i < n; ++i) {
                pdf_array_push_drop(ctx, copy, graftDirect(ctx, g, pdf_array_get(ctx, value, i), depth + 1));
            }
        }
        fz_catch(ctx) {
            pdf_drop_obj(ctx, copy);
            fz_rethrow(ctx);
        }
        return copy;
    }
    return pdf_keep_obj(ctx, value);
}

}  // namespace

pdf_obj* GraftValue(fz_context* ctx, GraftState* state, pdf_obj* value) {
    return graftDirect(ctx, state, value, 0);
}

void GraftDrain(fz_context* ctx, GraftState* g) {
    while (g->pendingCount > 0) {
        const int num = g->pending[g->pendingCount - 1];
        const int made = g->dstFromSrc[num];
        pdf_obj* obj = NULL;
        pdf_obj* copy = NULL;
        pdf_obj* ref = NULL;
        fz_buffer* buffer = NULL;
        fz_var(obj);
        fz_var(copy);
        fz_var(ref);
        fz_var(buffer);
        fz_try(ctx) {
            --g->pendingCount;
            obj = pdf_load_object(ctx, g->src, num);
            copy = graftDirect(ctx, g, obj, 0);
            pdf_update_object(ctx, g->dst, made, copy);
            if (pdf_obj_num_is_stream(ctx, g->src, num)) {
                buffer = pdf_load_raw_stream_number(ctx, g->src, num);
                ref = pdf_new_indirect(ctx, g->dst, made, 0);
                pdf_update_stream(ctx, g->dst, ref, buffer, 1);
            }
        }
        fz_always(ctx) {
            fz_drop_buffer(ctx, buffer);
            pdf_drop_obj(ctx, ref);
            pdf_drop_obj(ctx, copy);
            pdf_drop_obj(ctx, obj);
        }
        fz_catch(ctx) {
            fz_rethrow(ctx);
        }
    }
}

Grafter::Grafter(fz_context* ctx, pdf_document* src, pdf_document* dst) : ctx_(ctx) {
    const int len = guarded(ctx, [&] { return pdf_xref_len(ctx, src); });
    dstFromSrc_.assign(size_t(len > 0 ? len : 1), 0);
    pending_.assign(dstFromSrc_.size(), 0);
    state_ = GraftState{src, dst, len, dstFromSrc_.data(), pending_.data(), 0};
}

void Grafter::Map(int srcNum, int dstNum) {
    if (srcNum > 0 && srcNum < state_.srcLen) dstFromSrc_[size_t(srcNum)] = dstNum;
}

PdfObjHandle Grafter::Copy(pdf_obj* value) {
    return PdfObjHandle(ctx_, guarded(ctx_, [&] { return GraftValue(ctx_, &state_, value); }));
}

void Grafter::Drain() {
    guarded(ctx_, [&] { GraftDrain(ctx_, &state_); });
}

}  // namespace Orvane::PDF::Pdfium
