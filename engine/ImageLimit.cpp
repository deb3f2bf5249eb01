#include "engine/ImageLimit.h"

#include <atomic>
#include <chrono>
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

// Path drawing. The estimate follows MuPDF's flattening: a curve is halved
// until its end control points lie within the flatness of its ends (the
// control polygon halves at each step), at most 8 times; every segment is
// clipped to the rows drawn, and scan conversion costs per row it spans.
// The rates are a few times faster than this machine's (about 90 ns a row
// and 20 ns a segment at the least), so only what no faster machine could
// draw in time is refused.
constexpr double kSecondsPerRow = 30e-9;
constexpr double kSecondsPerSegment = 5e-9;
constexpr int kMaxFlatteningDepth = 8;

using FillPath = void (*)(fz_context*, fz_device*, const fz_path*, int, fz_matrix, fz_colorspace*, const float*, float,
                          fz_color_params);
using StrokePath = void (*)(fz_context*, fz_device*, const fz_path*, const fz_stroke_state*, fz_matrix,
                            fz_colorspace*, const float*, float, fz_color_params);
using ClipPath = void (*)(fz_context*, fz_device*, const fz_path*, int, fz_matrix, fz_rect);
using ClipStrokePath = void (*)(fz_context*, fz_device*, const fz_path*, const fz_stroke_state*, fz_matrix, fz_rect);
std::atomic<FillPath> drawFillPath{nullptr};
std::atomic<StrokePath> drawStrokePath{nullptr};
std::atomic<ClipPath> drawClipPath{nullptr};
std::atomic<ClipStrokePath> drawClipStrokePath{nullptr};
thread_local fz_rect pathArea = fz_empty_rect;

struct PathCost {
    fz_matrix ctm;
    double flatness;    // path space
    double top, bottom;  // rows drawn
    double halfWidth = 0;  // of a stroke, device space; 0 for a fill
    double joinSegments = 0;
    double dashesPerUnit = 0;  // dash pieces per unit of device length
    fz_point current{0, 0}, start{0, 0};
    double segments = 0, rows = 0;

    double Rows(double y0, double y1) const {
        const double lo = std::fmax(std::fmin(y0, y1) - halfWidth, top);
        const double hi = std::fmin(std::fmax(y0, y1) + halfWidth, bottom);
        return hi > lo ? hi - lo : 0;
    }

    // pieces segments over the rows of [y0, y1], each crossing those rows at
    // most spans times.
    void Add(double pieces, double y0, double y1, double spans, double length) {
        const double crossed = Rows(y0, y1);
        if (halfWidth == 0) {
            segments += pieces;
            rows += std::fmin(spans, pieces) * crossed;
            return;
        }
        // Both sides of a stroke and a join at every vertex.
        segments += pieces * (4 + joinSegments);
        rows += 2 * std::fmin(spans, pieces) * crossed;
        if (crossed > 0) rows += pieces * std::fmin(2 * halfWidth, crossed) * (1 + joinSegments);
        if (dashesPerUnit > 0 && crossed > 0) {
            const double dashes = std::fmin(length, 2 * (bottom - top) + 2 * crossed) * dashesPerUnit;
            segments += dashes * 6;
            rows += dashes * std::fmin(2 * halfWidth + 1, crossed) * 2;
        }
    }

    void Line(fz_point to) {
        const fz_point a = fz_transform_point(current, ctm), b = fz_transform_point(to, ctm);
        Add(1, a.y, b.y, 1, std::hypot(double(b.x) - a.x, double(b.y) - a.y));
        current = to;
    }

    void Curve(fz_point c1, fz_point c2, fz_point to) {
        double spread = std::fmax(std::fabs(double(c1.x) - current.x), std::fabs(double(c1.y) - current.y));
        spread = std::fmax(spread, std::fmax(std::fabs(double(c2.x) - c1.x), std::fabs(double(c2.y) - c1.y)));
        spread = std::fmax(spread, std::fmax(std::fabs(double(to.x) - c2.x), std::fabs(double(to.y) - c2.y)));
        int depth = 0;
        // Not with the comparison negated: NaN is flattened to the full depth.
        while (depth < kMaxFlatteningDepth && !(spread < flatness)) {
            spread /= 2;
            ++depth;
        }
        const fz_point p[4] = {fz_transform_point(current, ctm), fz_transform_point(c1, ctm),
                               fz_transform_point(c2, ctm), fz_transform_point(to, ctm)};
        double y0 = p[0].y, y1 = p[0].y, length = 0;
        for (int i = 1; i < 4; ++i) {
            y0 = std::fmin(y0, p[i].y);
            y1 = std::fmax(y1, p[i].y);
            length += std::hypot(double(p[i].x) - p[i - 1].x, double(p[i].y) - p[i - 1].y);
        }
        // A cubic turns back vertically at most twice.
        Add(double(1 << depth), y0, y1, 3, length);
        current = to;
    }
};

void costMoveTo(fz_context*, void* arg, float x, float y) {
    auto* cost = static_cast<PathCost*>(arg);
    if (cost->current.x != cost->start.x || cost->current.y != cost->start.y) cost->Line(cost->start);
    cost->current = cost->start = fz_make_point(x, y);
}

void costLineTo(fz_context*, void* arg, float x, float y) {
    static_cast<PathCost*>(arg)->Line(fz_make_point(x, y));
}

void costCurveTo(fz_context*, void* arg, float x1, float y1, float x2, float y2, float x3, float y3) {
    static_cast<PathCost*>(arg)->Curve(fz_make_point(x1, y1), fz_make_point(x2, y2), fz_make_point(x3, y3));
}

void costQuadTo(fz_context*, void* arg, float x1, float y1, float x2, float y2) {
    auto* cost = static_cast<PathCost*>(arg);
    cost->Curve(fz_make_point(x1, y1), fz_make_point(x1, y1), fz_make_point(x2, y2));
}

void costClose(fz_context*, void* arg) {
    auto* cost = static_cast<PathCost*>(arg);
    cost->Line(cost->start);
}

const fz_path_walker costWalker = {costMoveTo, costLineTo, costCurveTo, costClose, costQuadTo, nullptr, nullptr,
                                   nullptr};

// Called by MuPDF inside its own error frames: plain C. Whether the path
// is left out; a refusal within the budget is counted as refused work.
int pathRefused(fz_context* ctx, const fz_path* path, const fz_stroke_state* stroke, fz_matrix ctm) {
    const double expansion = fz_matrix_expansion(ctm);
    PathCost cost;
    cost.ctm = ctm;
    cost.flatness = std::fmax(0.3 / (expansion < 1e-7 ? 1 : expansion), 0.001);
    cost.top = pathArea.y0;
    cost.bottom = pathArea.y1;
    if (stroke != nullptr) {
        // A hairline is a device pixel wide.
        cost.halfWidth = std::fmax(double(stroke->linewidth) * expansion, 1) / 2;
        if (stroke->linejoin == FZ_LINEJOIN_ROUND || stroke->start_cap == FZ_LINECAP_ROUND) {
            cost.joinSegments = std::ceil(M_PI / (2 * M_SQRT2 * std::sqrt(0.3 / std::fmax(cost.halfWidth, 0.3))));
        }
        double total = 0;
        for (int i = 0; i < stroke->dash_len; ++i) total += stroke->dash_list[i];
        const double period = total * fz_matrix_max_expansion(ctm);
        if (stroke->dash_len > 0 && period >= 0.5) cost.dashesPerUnit = stroke->dash_len / period;
    }
    fz_walk_path(ctx, path, &costWalker, &cost);
    const double seconds = cost.rows * kSecondsPerRow + cost.segments * kSecondsPerSegment;
    if (seconds <= kFreePathSeconds) return 0;
    const auto deadline = RequestBudget::Deadline();
    if (!deadline) return 0;
    const double left = std::chrono::duration<double>(*deadline - std::chrono::steady_clock::now()).count();
    // Not with the comparison negated: a NaN estimate is refused too.
    if (seconds <= left) return 0;
    if (!RequestBudget::Expired()) RequestBudget::NoteRefusedWork();
    fz_warn(ctx, "path of %.3g segments over %.3g rows left out: %.3g s of drawing, %.3g s left", cost.segments,
            cost.rows, seconds, left);
    return 1;
}

void fillPath(fz_context* ctx, fz_device* dev, const fz_path* path, int evenOdd, fz_matrix ctm,
              fz_colorspace* colorspace, const float* color, float alpha, fz_color_params params) {
    if (!pathRefused(ctx, path, nullptr, ctm)) {
        drawFillPath.load()(ctx, dev, path, evenOdd, ctm, colorspace, color, alpha, params);
    }
}

void strokePath(fz_context* ctx, fz_device* dev, const fz_path* path, const fz_stroke_state* stroke, fz_matrix ctm,
                fz_colorspace* colorspace, const float* color, float alpha, fz_color_params params) {
    if (!pathRefused(ctx, path, stroke, ctm)) {
        drawStrokePath.load()(ctx, dev, path, stroke, ctm, colorspace, color, alpha, params);
    }
}

// A refused clip must still be pushed (its pop follows): an empty one,
// which clips everything inside it away.
void pushEmptyClip(fz_context* ctx, fz_device* dev, fz_matrix ctm, fz_rect scissor) {
    fz_path* nothing = fz_new_path(ctx);
    fz_try(ctx) {
        drawClipPath.load()(ctx, dev, nothing, 0, ctm, scissor);
    }
    fz_always(ctx) {
        fz_drop_path(ctx, nothing);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

void clipPath(fz_context* ctx, fz_device* dev, const fz_path* path, int evenOdd, fz_matrix ctm, fz_rect scissor) {
    if (!pathRefused(ctx, path, nullptr, ctm)) {
        drawClipPath.load()(ctx, dev, path, evenOdd, ctm, scissor);
        return;
    }
    pushEmptyClip(ctx, dev, ctm, scissor);
}

void clipStrokePath(fz_context* ctx, fz_device* dev, const fz_path* path, const fz_stroke_state* stroke,
                    fz_matrix ctm, fz_rect scissor) {
    if (!pathRefused(ctx, path, stroke, ctm)) {
        drawClipStrokePath.load()(ctx, dev, path, stroke, ctm, scissor);
        return;
    }
    pushEmptyClip(ctx, dev, ctm, scissor);
}

}  // namespace

void LimitPaths(fz_device* drawDevice, fz_rect area) {
    pathArea = area;
    if (drawDevice->fill_path != nullptr && drawDevice->fill_path != fillPath) {
        drawFillPath = drawDevice->fill_path;
        drawDevice->fill_path = fillPath;
    }
    if (drawDevice->stroke_path != nullptr && drawDevice->stroke_path != strokePath) {
        drawStrokePath = drawDevice->stroke_path;
        drawDevice->stroke_path = strokePath;
    }
    if (drawDevice->clip_path != nullptr && drawDevice->clip_path != clipPath) {
        drawClipPath = drawDevice->clip_path;
        drawDevice->clip_path = clipPath;
    }
    if (drawDevice->clip_stroke_path != nullptr && drawDevice->clip_stroke_path != clipStrokePath &&
        drawDevice->clip_path != nullptr) {
        drawClipStrokePath = drawDevice->clip_stroke_path;
        drawDevice->clip_stroke_path = clipStrokePath;
    }
}

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
