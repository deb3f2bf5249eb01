#include "engine/Bands.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>

#include "engine/Context.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"

namespace Orvane::PDF::Pdfium {
namespace {

// ---- what a seam must not cut ----

// Glyphs up to this size in pixels come from the glyph cache's bitmaps (its
// limit is twice as large), which a seam may cut.
constexpr float kCachedGlyphPixels = 128.0f;
// Rows kept free on either side of a obstacle.
constexpr float kSeamMargin = 2.0f;

struct ObstacleDevice {
    fz_device super;
    std::vector<SeamObstacle>* obstacles;
    size_t glyphs;
    bool failed;
};

// The callbacks run inside MuPDF's fz_try frames: nothing may throw.
void addObstacle(fz_device* dev, fz_rect r, float fromScale = 0) {
    auto* self = reinterpret_cast<ObstacleDevice*>(dev);
    if (fz_is_empty_rect(r)) return;
    try {
        self->obstacles->push_back(SeamObstacle{r.y0, r.y1, fromScale});
    } catch (...) {
        self->failed = true;
    }
}

// Whether every edge of the path is vertical or horizontal once transformed:
// a seam cuts vertical edges exactly and never meets horizontal ones.
struct AxisWalk {
    float x = 0, y = 0, startX = 0, startY = 0;
    bool aligned = true;
};

void walkMove(fz_context*, void* arg, float x, float y) {
    auto* w = static_cast<AxisWalk*>(arg);
    w->x = w->startX = x;
    w->y = w->startY = y;
}
void walkLine(fz_context*, void* arg, float x, float y) {
    auto* w = static_cast<AxisWalk*>(arg);
    if (x != w->x && y != w->y) w->aligned = false;
    w->x = x;
    w->y = y;
}
void walkCurve(fz_context*, void* arg, float, float, float, float, float x3, float y3) {
    auto* w = static_cast<AxisWalk*>(arg);
    w->aligned = false;
    w->x = x3;
    w->y = y3;
}
void walkClose(fz_context* ctx, void* arg) {
    auto* w = static_cast<AxisWalk*>(arg);
    walkLine(ctx, arg, w->startX, w->startY);
}
void walkRect(fz_context*, void* arg, float x0, float y0, float, float) {
    auto* w = static_cast<AxisWalk*>(arg);
    w->x = w->startX = x0;
    w->y = w->startY = y0;
}

const fz_path_walker axisWalker = {walkMove, walkLine, walkCurve, walkClose, nullptr, nullptr, nullptr, walkRect};

bool axisAligned(fz_context* ctx, const fz_path* path, fz_matrix ctm) {
    const bool keepsAxes = (ctm.b == 0 && ctm.c == 0) || (ctm.a == 0 && ctm.d == 0);
    if (!keepsAxes) return false;
    AxisWalk walk;
    fz_walk_path(ctx, path, &axisWalker, &walk);
    return walk.aligned;
}

void obstacleFill(fz_context* ctx, fz_device* dev, const fz_path* path, fz_matrix ctm) {
    if (!axisAligned(ctx, path, ctm)) addObstacle(dev, fz_bound_path(ctx, path, nullptr, ctm));
}

void obstacleText(fz_context* ctx, fz_device* dev, const fz_text* text, const fz_stroke_state* stroke,
               fz_matrix ctm) {
    float largest = 0;
    for (const fz_text_span* span = text->head; span != nullptr; span = span->next) {
        largest = std::max(largest, fz_matrix_expansion(fz_concat(span->trm, ctm)));
    }
    // Stroked glyphs and huge ones are drawn as paths.
    const float fromScale = stroke != nullptr || largest <= 0 ? 0 : kCachedGlyphPixels / largest;
    addObstacle(dev, fz_bound_text(ctx, text, stroke, ctm), fromScale);
}

void onFillPath(fz_context* ctx, fz_device* dev, const fz_path* path, int, fz_matrix ctm, fz_colorspace*,
                const float*, float, fz_color_params) {
    obstacleFill(ctx, dev, path, ctm);
}
void onStrokePath(fz_context* ctx, fz_device* dev, const fz_path* path, const fz_stroke_state* stroke,
                  fz_matrix ctm, fz_colorspace*, const float*, float, fz_color_params) {
    addObstacle(dev, fz_bound_path(ctx, path, stroke, ctm));
}
void onClipPath(fz_context* ctx, fz_device* dev, const fz_path* path, int, fz_matrix ctm, fz_rect) {
    obstacleFill(ctx, dev, path, ctm);
}
void onClipStrokePath(fz_context* ctx, fz_device* dev, const fz_path* path, const fz_stroke_state* stroke,
                      fz_matrix ctm, fz_rect) {
    addObstacle(dev, fz_bound_path(ctx, path, stroke, ctm));
}
void countGlyphs(fz_device* dev, const fz_text* text) {
    auto* self = reinterpret_cast<ObstacleDevice*>(dev);
    for (const fz_text_span* span = text->head; span != nullptr; span = span->next) self->glyphs += size_t(span->len);
}
void onFillText(fz_context* ctx, fz_device* dev, const fz_text* text, fz_matrix ctm, fz_colorspace*, const float*,
                float, fz_color_params) {
    obstacleText(ctx, dev, text, nullptr, ctm);
    countGlyphs(dev, text);
}
void onStrokeText(fz_context* ctx, fz_device* dev, const fz_text* text, const fz_stroke_state* stroke,
                  fz_matrix ctm, fz_colorspace*, const float*, float, fz_color_params) {
    obstacleText(ctx, dev, text, stroke, ctm);
    countGlyphs(dev, text);
}
void onClipText(fz_context* ctx, fz_device* dev, const fz_text* text, fz_matrix ctm, fz_rect) {
    obstacleText(ctx, dev, text, nullptr, ctm);
}
void onClipStrokeText(fz_context* ctx, fz_device* dev, const fz_text* text, const fz_stroke_state* stroke,
                      fz_matrix ctm, fz_rect) {
    obstacleText(ctx, dev, text, stroke, ctm);
}
void onFillShade(fz_context* ctx, fz_device* dev, fz_shade* shade, fz_matrix ctm, float, fz_color_params) {
    addObstacle(dev, fz_bound_shade(ctx, shade, ctm));
}
// Images are sampled from a sub-area chosen by the clip: guarded too.
void onFillImage(fz_context*, fz_device* dev, fz_image*, fz_matrix ctm, float, fz_color_params) {
    addObstacle(dev, fz_transform_rect(fz_unit_rect, ctm));
}
void onFillImageMask(fz_context*, fz_device* dev, fz_image*, fz_matrix ctm, fz_colorspace*, const float*, float,
                     fz_color_params) {
    addObstacle(dev, fz_transform_rect(fz_unit_rect, ctm));
}
void onClipImageMask(fz_context*, fz_device* dev, fz_image*, fz_matrix ctm, fz_rect) {
    addObstacle(dev, fz_transform_rect(fz_unit_rect, ctm));
}
int onBeginTile(fz_context*, fz_device* dev, fz_rect area, fz_rect, float, float, fz_matrix ctm, int) {
    addObstacle(dev, fz_transform_rect(area, ctm));
    return 0;
}

}  // namespace

std::vector<SeamObstacle> FindSeamObstacles(fz_context* ctx, fz_display_list* list, size_t& glyphs) {
    std::vector<SeamObstacle> obstacles;
    auto* dev = guarded(ctx, [&] { return fz_new_derived_device(ctx, ObstacleDevice); });
    DeviceHandle device(ctx, &dev->super);
    dev->obstacles = &obstacles;
    dev->glyphs = 0;
    dev->failed = false;
    dev->super.fill_path = onFillPath;
    dev->super.stroke_path = onStrokePath;
    dev->super.clip_path = onClipPath;
    dev->super.clip_stroke_path = onClipStrokePath;
    dev->super.fill_text = onFillText;
    dev->super.stroke_text = onStrokeText;
    dev->super.clip_text = onClipText;
    dev->super.clip_stroke_text = onClipStrokeText;
    dev->super.fill_shade = onFillShade;
    dev->super.fill_image = onFillImage;
    dev->super.fill_image_mask = onFillImageMask;
    dev->super.clip_image_mask = onClipImageMask;
    dev->super.begin_tile = onBeginTile;
    guarded(ctx, [&] {
        fz_run_display_list(ctx, list, device.get(), fz_identity, fz_infinite_rect, nullptr);
        fz_close_device(ctx, device.get());
    });
    glyphs = dev->glyphs;
    // Without the whole list nothing is known to be safe.
    if (dev->failed) {
        obstacles.clear();
        const float far = std::numeric_limits<float>::max();
        obstacles.push_back(SeamObstacle{-far, far, 0});
    }
    return obstacles;
}

std::vector<int> ChooseSeams(const std::vector<SeamObstacle>& obstacles, float top, float scaleY, float textScale,
                             int height, int bands) {
    std::vector<int> seams;
    if (bands < 2 || height < 2 * bands || !(scaleY > 0)) return seams;
    // blocked[s] > 0: the boundary above row s crosses a obstacle.
    std::vector<int> blocked(static_cast<size_t>(height) + 2, 0);
    for (const SeamObstacle& obstacle : obstacles) {
        if (obstacle.fromScale > 0 && textScale < obstacle.fromScale) continue;
        const double from = (double(obstacle.top) - top) * scaleY - kSeamMargin;
        const double to = (double(obstacle.bottom) - top) * scaleY + kSeamMargin;
        const int first = static_cast<int>(std::max(1.0, std::floor(std::max(from, -1.0)) + 1));
        const int last = static_cast<int>(std::min(double(height - 1), std::ceil(std::min(to, double(height))) - 1));
        if (first > last) continue;
        ++blocked[first];
        --blocked[last + 1];
    }
    for (int s = 1; s <= height; ++s) blocked[s] += blocked[s - 1];

    const int reach = height / (2 * bands);
    int previous = 0;
    for (int k = 1; k < bands; ++k) {
        const int target = static_cast<int>(int64_t(height) * k / bands);
        for (int d = 0; d <= reach; ++d) {
            const int candidates[] = {target - d, target + d};
            const auto it = std::find_if(std::begin(candidates), std::end(candidates),
                                         [&](int s) { return s > previous && s < height && blocked[s] == 0; });
            if (it != std::end(candidates)) {
                seams.push_back(*it);
                previous = *it;
                break;
            }
        }
    }
    return seams;
}

// ---- the helper threads ----

namespace {
std::atomic<size_t> picturesSharedOut{0};
std::atomic<bool> bandDrawing{true};
}  // namespace

void SetBandDrawing(bool on) {
    bandDrawing = on;
}
bool BandDrawing() {
    return bandDrawing.load();
}

size_t PicturesSharedOut() {
    return picturesSharedOut.load();
}

struct BandPool::Batch {
    const std::function<void(int, fz_context*)>* draw = nullptr;
    int count = 0;
    std::atomic<int> next{0};
    std::vector<fz_context*> contexts;  // [0] the caller's, then one clone per helper that may join
    size_t joined = 1;                  // contexts handed out; guarded by mutex_
    int active = 0;                     // helpers drawing; guarded by mutex_

    void DrawAll(fz_context* ctx) {
        for (int band = next++; band < count; band = next++) (*draw)(band, ctx);
    }
};

BandPool& BandPool::Instance() {
    static BandPool pool;
    return pool;
}

BandPool::BandPool() {
    const unsigned cores = std::thread::hardware_concurrency();
    const unsigned helpers = cores > 1 ? std::min(cores - 1, 15u) : 0u;
    for (unsigned i = 0; i < helpers; ++i) threads_.emplace_back([this] { Serve(); });
}

BandPool::~BandPool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void BandPool::Serve() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        Batch* batch = queue_.front();
        if (batch->joined >= batch->contexts.size()) {
            queue_.pop_front();  // every clone handed out; its caller waits for the rest
            continue;
        }
        fz_context* ctx = batch->contexts[batch->joined++];
        ++batch->active;
        lock.unlock();
        batch->DrawAll(ctx);
        lock.lock();
        if (--batch->active == 0) finished_.notify_all();
    }
}

void BandPool::Run(fz_context* ctx, int count, const std::function<void(int, fz_context*)>& draw) {
    const SharedUse locked;  // the helpers share the caller's store and caches
    Batch batch;
    batch.draw = &draw;
    batch.count = count;
    batch.contexts.push_back(ctx);
    const int wanted = std::min(Helpers(), count - 1);
    for (int i = 0; i < wanted; ++i) {
        fz_context* clone = fz_clone_context(ctx);
        if (clone == nullptr) break;  // fewer hands then
        try {
            batch.contexts.push_back(clone);
        } catch (...) {
            fz_drop_context(clone);
            break;
        }
    }
    bool shared = batch.contexts.size() > 1;
    if (shared) {
        try {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(&batch);
            ++picturesSharedOut;
        } catch (...) {
            shared = false;  // drawn alone
        }
        wake_.notify_all();
    }
    batch.DrawAll(ctx);
    if (shared) {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto queued = std::find(queue_.begin(), queue_.end(), &batch);
        if (queued != queue_.end()) queue_.erase(queued);
        finished_.wait(lock, [&] { return batch.active == 0; });
    }
    for (size_t i = 1; i < batch.contexts.size(); ++i) fz_drop_context(batch.contexts[i]);
}

}  // namespace Orvane::PDF::Pdfium
