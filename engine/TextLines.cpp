#include "engine/TextLines.h"

#include <cmath>
#include <cstdint>

namespace Orvane::PDF::Pdfium {
namespace {

using FillText = void (*)(fz_context*, fz_device*, const fz_text*, fz_matrix, fz_colorspace*, const float*, float,
                          fz_color_params);
using StrokeText = void (*)(fz_context*, fz_device*, const fz_text*, const fz_stroke_state*, fz_matrix,
                            fz_colorspace*, const float*, float, fz_color_params);
using BeginGroup = void (*)(fz_context*, fz_device*, fz_rect, fz_colorspace*, int, int, int, float);
using EndGroup = void (*)(fz_context*, fz_device*);

// Lines shorter than this on average are not worth an item each (text set
// glyph by glyph along a curve or down a column).
constexpr int kLeastGlyphsPerLine = 4;
// Groups nested deeper than this count as knockout groups.
constexpr int kTrackedGroups = 64;

// The list device's own callbacks, and the groups open on it.
struct Hooks {
    FillText fillText = nullptr;
    StrokeText strokeText = nullptr;
    BeginGroup beginGroup = nullptr;
    EndGroup endGroup = nullptr;
    int depth = 0;
    uint64_t knockout = 0;  // bit d: the group open at depth d knocks out
};
thread_local Hooks hooks;

bool insideKnockout() {
    return hooks.knockout != 0 || hooks.depth > kTrackedGroups;
}

// The baseline's height on the page of a glyph at (x, y) in text space.
float baselineOf(const fz_text_item& item, fz_matrix ctm) {
    return item.x * ctm.b + item.y * ctm.d + ctm.f;
}

// Whether a glyph starts a new line: its baseline is more than half the
// font's size away from the line's (super- and subscripts stay on theirs).
bool startsLine(const fz_text_item& item, float size, fz_matrix ctm, float lineBaseline) {
    return item.gid >= 0 && std::fabs(baselineOf(item, ctm) - lineBaseline) > 0.5f * size;
}

// How many lines the text has, or 0 when it should stay whole.
int countLines(const fz_text* text, fz_matrix ctm) {
    int lines = 0, glyphs = 0;
    float baseline = 0;
    for (const fz_text_span* span = text->head; span != nullptr; span = span->next) {
        if (span->wmode != 0) return 0;
        const float size = std::fabs(fz_concat(span->trm, ctm).d);
        for (int i = 0; i < span->len; ++i) {
            if (lines == 0 || startsLine(span->items[i], size, ctm, baseline)) {
                ++lines;
                baseline = baselineOf(span->items[i], ctm);
            }
        }
        glyphs += span->len;
    }
    return lines > 1 && glyphs >= lines * kLeastGlyphsPerLine ? lines : 0;
}

// Calls send(line) for each line of the text, in order. These run inside
// MuPDF's exception frames, so this is written as C: no objects with
// destructors, errors passed on with fz_rethrow.
template <class Send>
void sendLines(fz_context* ctx, const fz_text* text, fz_matrix ctm, const Send& send) {
    fz_text* line = nullptr;
    fz_var(line);
    fz_try(ctx) {
        float baseline = 0;
        for (const fz_text_span* span = text->head; span != nullptr; span = span->next) {
            const float size = std::fabs(fz_concat(span->trm, ctm).d);
            for (int i = 0; i < span->len; ++i) {
                const fz_text_item& item = span->items[i];
                if (line != nullptr && startsLine(item, size, ctm, baseline)) {
                    send(line);
                    fz_drop_text(ctx, line);
                    line = nullptr;
                }
                if (line == nullptr) {
                    line = fz_new_text(ctx);
                    baseline = baselineOf(item, ctm);
                }
                fz_matrix trm = span->trm;
                trm.e = item.x;
                trm.f = item.y;
                fz_show_glyph(ctx, line, span->font, trm, item.gid, item.ucs, span->wmode, span->bidi_level,
                              static_cast<fz_bidi_direction>(span->markup_dir),
                              static_cast<fz_text_language>(span->language));
            }
        }
        if (line != nullptr) send(line);
    }
    fz_always(ctx) {
        fz_drop_text(ctx, line);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

void fillText(fz_context* ctx, fz_device* dev, const fz_text* text, fz_matrix ctm, fz_colorspace* cs,
              const float* color, float alpha, fz_color_params params) {
    const FillText fill = hooks.fillText;
    if (insideKnockout() || countLines(text, ctm) == 0) return fill(ctx, dev, text, ctm, cs, color, alpha, params);
    sendLines(ctx, text, ctm, [&](const fz_text* line) { fill(ctx, dev, line, ctm, cs, color, alpha, params); });
}

void strokeText(fz_context* ctx, fz_device* dev, const fz_text* text, const fz_stroke_state* stroke, fz_matrix ctm,
                fz_colorspace* cs, const float* color, float alpha, fz_color_params params) {
    const StrokeText draw = hooks.strokeText;
    if (insideKnockout() || countLines(text, ctm) == 0) {
        return draw(ctx, dev, text, stroke, ctm, cs, color, alpha, params);
    }
    sendLines(ctx, text, ctm,
              [&](const fz_text* line) { draw(ctx, dev, line, stroke, ctm, cs, color, alpha, params); });
}

void beginGroup(fz_context* ctx, fz_device* dev, fz_rect area, fz_colorspace* cs, int isolated, int knockout,
                int blendmode, float alpha) {
    hooks.beginGroup(ctx, dev, area, cs, isolated, knockout, blendmode, alpha);
    if (hooks.depth < kTrackedGroups && knockout) hooks.knockout |= uint64_t(1) << hooks.depth;
    ++hooks.depth;
}

void endGroup(fz_context* ctx, fz_device* dev) {
    if (hooks.depth > 0 && --hooks.depth < kTrackedGroups) hooks.knockout &= ~(uint64_t(1) << hooks.depth);
    hooks.endGroup(ctx, dev);
}

}  // namespace

TextLineSplitting::TextLineSplitting(fz_device* listDevice) : device_(listDevice) {
    hooks = Hooks{listDevice->fill_text, listDevice->stroke_text, listDevice->begin_group, listDevice->end_group};
    if (hooks.fillText != nullptr) listDevice->fill_text = fillText;
    if (hooks.strokeText != nullptr) listDevice->stroke_text = strokeText;
    if (hooks.beginGroup != nullptr && hooks.endGroup != nullptr) {
        listDevice->begin_group = beginGroup;
        listDevice->end_group = endGroup;
    } else {
        hooks.knockout = 1;  // groups cannot be followed: keep all text whole
    }
}

TextLineSplitting::~TextLineSplitting() {
    device_->fill_text = hooks.fillText;
    device_->stroke_text = hooks.strokeText;
    device_->begin_group = hooks.beginGroup;
    device_->end_group = hooks.endGroup;
    hooks = Hooks{};
}

}  // namespace Orvane::PDF::Pdfium
