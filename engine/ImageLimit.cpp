#include "engine/ImageLimit.h"

#include <atomic>
#include <cmath>

#include "engine/Context.h"

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

using BeginTile = int (*)(fz_context*, fz_device*, fz_rect, fz_rect, float, float, fz_matrix, int);
std::atomic<BeginTile> drawBeginTile{nullptr};
// What the thread's draw device draws, in device space.
thread_local fz_rect tilingArea = fz_empty_rect;

// Called by MuPDF inside its own error frames: plain C. area, view and the
// steps are in pattern space, ctm maps pattern space to the device's.
int beginTile(fz_context* ctx, fz_device* dev, fz_rect area, fz_rect view, float xstep, float ystep, fz_matrix ctm,
              int id) {
    if (RequestBudget::Expired()) {
        fz_throw(ctx, FZ_ERROR_GENERIC, "tiling pattern not drawn: the time budget is spent");
    }
    const fz_rect filled = fz_intersect_rect(fz_transform_rect(area, ctm), tilingArea);
    if (!fz_is_empty_rect(filled)) {
        const double pixels = (double(filled.x1) - filled.x0) * (double(filled.y1) - filled.y0);
        const double cellPixels =
            std::fabs(double(ctm.a) * ctm.d - double(ctm.b) * ctm.c) * std::fabs(double(xstep) * ystep);
        // Not with the comparison negated: NaN steps are refused too.
        const double cells = pixels / cellPixels;
        if (!(cells <= kFreeTileCells || cells <= kMaxCellsPerPixel * pixels)) {
            RequestBudget::NoteRefusedWork();
            fz_throw(ctx, FZ_ERROR_GENERIC, "tiling pattern of %g cells over %.0f pixels refused", cells, pixels);
        }
    }
    return drawBeginTile.load()(ctx, dev, area, view, xstep, ystep, ctm, id);
}

}  // namespace

void LimitTiling(fz_device* drawDevice, fz_rect area) {
    tilingArea = area;
    if (drawDevice->begin_tile != nullptr && drawDevice->begin_tile != beginTile) {
        drawBeginTile = drawDevice->begin_tile;
        drawDevice->begin_tile = beginTile;
    }
}

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
