#include "engine/ImageLimit.h"

#include <atomic>
#include <cmath>

namespace Orvane::PDF::Pdfium {
namespace {

// The draw device's own functions: every draw device has the same ones.
using FillImage = void (*)(fz_context*, fz_device*, fz_image*, fz_matrix, float, fz_color_params);
using FillImageMask = void (*)(fz_context*, fz_device*, fz_image*, fz_matrix, fz_colorspace*, const float*, float,
                               fz_color_params);
using ClipImageMask = void (*)(fz_context*, fz_device*, fz_image*, fz_matrix, fz_rect);
std::atomic<FillImage> drawFillImage{nullptr};
std::atomic<FillImageMask> drawFillImageMask{nullptr};
std::atomic<ClipImageMask> drawClipImageMask{nullptr};

// Called by MuPDF inside its own error frames: plain C.
int tooLarge(fz_context* ctx, fz_image* image, fz_matrix ctm) {
    const double pixels = double(image->w) * double(image->h);
    if (pixels <= kFreeImagePixels) return 0;
    const double covered = std::fabs(double(ctm.a) * ctm.d - double(ctm.b) * ctm.c);
    if (pixels <= kMaxImageOversampling * std::fmax(covered, 1.0)) return 0;
    fz_warn(ctx, "image of %d x %d pixels left out: drawn over %.0f pixels", image->w, image->h, covered);
    return 1;
}

void fillImage(fz_context* ctx, fz_device* dev, fz_image* image, fz_matrix ctm, float alpha, fz_color_params params) {
    if (!tooLarge(ctx, image, ctm)) drawFillImage.load()(ctx, dev, image, ctm, alpha, params);
}

void fillImageMask(fz_context* ctx, fz_device* dev, fz_image* image, fz_matrix ctm, fz_colorspace* colorspace,
                   const float* color, float alpha, fz_color_params params) {
    if (!tooLarge(ctx, image, ctm)) drawFillImageMask.load()(ctx, dev, image, ctm, colorspace, color, alpha, params);
}

// A clip must still be pushed (its pop follows): an empty one.
void clipImageMask(fz_context* ctx, fz_device* dev, fz_image* image, fz_matrix ctm, fz_rect scissor) {
    if (!tooLarge(ctx, image, ctm)) {
        drawClipImageMask.load()(ctx, dev, image, ctm, scissor);
        return;
    }
    fz_path* nothing = fz_new_path(ctx);
    fz_try(ctx) {
        dev->clip_path(ctx, dev, nothing, 0, ctm, scissor);
    }
    fz_always(ctx) {
        fz_drop_path(ctx, nothing);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

}  // namespace

void LimitImageDecoding(fz_device* drawDevice) {
    if (drawDevice->fill_image != nullptr && drawDevice->fill_image != fillImage) {
        drawFillImage = drawDevice->fill_image;
        drawDevice->fill_image = fillImage;
    }
    if (drawDevice->fill_image_mask != nullptr && drawDevice->fill_image_mask != fillImageMask) {
        drawFillImageMask = drawDevice->fill_image_mask;
        drawDevice->fill_image_mask = fillImageMask;
    }
    if (drawDevice->clip_image_mask != nullptr && drawDevice->clip_image_mask != clipImageMask &&
        drawDevice->clip_path != nullptr) {
        drawClipImageMask = drawDevice->clip_image_mask;
        drawDevice->clip_image_mask = clipImageMask;
    }
}

}  // namespace Orvane::PDF::Pdfium
