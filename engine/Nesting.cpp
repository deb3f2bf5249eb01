#include "engine/Nesting.h"

#include <algorithm>

#include "engine/Guarded.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Plain C below: it runs inside guarded().

void pushNesting(fz_context* ctx, NestingCheck* check, int* top, pdf_obj* container, int num) {
    if (*top == check->capacity) fz_throw(ctx, FZ_ERROR_GENERIC, "objects nested too deep");
    NestingFrame* frame = &check->frames[(*top)++];
    frame->container = container;
    frame->next = 0;
    frame->isDict = pdf_is_dict(ctx, container);
    frame->length = frame->isDict ? pdf_dict_len(ctx, container) : pdf_array_len(ctx, container);
    frame->num = num;
    frame->best = 0;
}

// heights[num] of an object that a check refused (too deep, or leading to a
// page): whatever reaches it is refused too.
constexpr int kRefused = -2;

// Marks every object on the walk's path as refused and throws.
[[noreturn]] void refuseNesting(fz_context* ctx, NestingCheck* check, int top, const char* why) {
    for (int i = 0; i < top; ++i) {
        if (check->frames[i].num > 0) check->heights[check->frames[i].num] = kRefused;
    }
    fz_throw(ctx, FZ_ERROR_GENERIC, "objects refused: %s", why);
}

}  // namespace

void CheckNesting(fz_context* ctx, NestingCheck* check, pdf_obj* value) {
    if (!pdf_is_indirect(ctx, value) && !pdf_is_array(ctx, value) && !pdf_is_dict(ctx, value)) return;
    int top = 0;
    int depth = 0;
    pdf_obj* first = value;
    while (first != NULL || top > 0) {
        pdf_obj* child = first;
        first = NULL;
        if (child == NULL) {
            NestingFrame* frame = &check->frames[top - 1];
            if (frame->next == frame->length) {
                const int height = frame->best + (frame->num > 0);
                if (frame->num > 0) {
                    check->heights[frame->num] = height;
                    --depth;
                }
                if (--top > 0 && check->frames[top - 1].best < height) check->frames[top - 1].best = height;
                continue;
            }
            const int i = frame->next++;
            child = frame->isDict ? pdf_dict_get_val(ctx, frame->container, i) : pdf_array_get(ctx, frame->container, i);
        }
        // The engine's own names, null and the booleans hold nothing.
        if (child < PDF_LIMIT) continue;
        if (pdf_is_indirect(ctx, child)) {
            const int num = pdf_to_num(ctx, child);
            if (num <= 0 || num >= check->objects || check->heights[num] == -1) continue;
            if (check->heights[num] == kRefused) refuseNesting(ctx, check, top, "they reach objects refused before");
            if (check->heights[num] > 0) {
                if (depth + check->heights[num] > check->maxDepth) refuseNesting(ctx, check, top, "they nest too deep");
                if (top > 0 && check->frames[top - 1].best < check->heights[num])
                    check->frames[top - 1].best = check->heights[num];
                continue;
            }
            if (++depth > check->maxDepth) refuseNesting(ctx, check, top, "they nest too deep");
            check->heights[num] = -1;
            pdf_obj* resolved = pdf_resolve_indirect(ctx, child);
            pushNesting(ctx, check, &top, resolved, num);
            // A copy of a page or a page-tree node would bring the source's
            // pages along (its /Parent leads to all of them): a disclosure.
            pdf_obj* type = check->refusePages ? pdf_dict_get(ctx, resolved, PDF_NAME(Type)) : NULL;
            if (pdf_name_eq(ctx, type, PDF_NAME(Page)) || pdf_name_eq(ctx, type, PDF_NAME(Pages)))
                refuseNesting(ctx, check, top, "they refer to the source's pages");
        } else if (pdf_is_array(ctx, child) || pdf_is_dict(ctx, child)) {
            pushNesting(ctx, check, &top, child, 0);
        }
    }
}

Nesting::Nesting(fz_context* ctx, pdf_document* doc, int maxDepth, bool refusePages)
    : heights_(size_t(std::max(guarded(ctx, [&] { return pdf_xref_len(ctx, doc); }), 1)), 0),
      frames_(new NestingFrame[size_t(2 * maxDepth + 256)]) {
    check_ = NestingCheck{heights_.data(), int(heights_.size()), frames_.get(), 2 * maxDepth + 256, maxDepth,
                          refusePages ? 1 : 0};
}

}  // namespace Orvane::PDF::Pdfium
