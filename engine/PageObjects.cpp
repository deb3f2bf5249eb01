// A page's objects: what its content paints, listed by a device that
// collects bounds as MuPDF's interpreter runs the content.

#include <glog/logging.h>
#include <mupdf/pdf.h>

#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/FontLoader.h"
#include "engine/Geometry.h"
#include "engine/Guarded.h"
#include "engine/PdfPage.h"
#include "engine/ContentRun.h"
#include "engine/Watchdog.h"

namespace Orvane::PDF::Pdfium {
namespace {

using ProcessorHandle = Handle<pdf_processor, pdf_drop_processor>;

// ---- page objects ----

class PageObject : public IPageObject {
public:
    explicit PageObject(const PageObjectInfo& info) : info_(info) {}
    Rect GetBounds() override { return info_.bounds; }
    Kind GetKind() const override { return info_.kind; }

private:
    PageObjectInfo info_;
};

// Collects what the page's content paints, in painting order. Objects drawn
// into soft masks and pattern cells are not page objects and are skipped; a
// path or image mask filled with a tiling pattern counts once with the
// bounds of what the pattern fills. A form XObject is listed where it is
// drawn, with the bounds of everything it paints, and the objects inside it
// are listed after it as well.
class ObjectCollector {
public:
    explicit ObjectCollector(fz_rect pageBox) : pageBox_(pageBox) {
        clips_.push_back({fz_infinite_rect, IPageObject::Unknown});
    }

    bool Recording() const { return maskDepth_ == 0 && tileDepth_ == 0 && !error_; }

    void Add(IPageObject::Kind kind, fz_rect bounds) noexcept {
        if (!Recording() || fz_is_empty_rect(bounds) || fz_is_infinite_rect(bounds)) return;
        Catching([&] {
            if (objects_.size() >= kMaxObjects) {
                if (!truncated_) LOG(WARNING) << "page objects: list cut at " << kMaxObjects << " objects";
                truncated_ = true;
                return;
            }
            objects_.push_back({kind, ToRect(bounds)});
            for (int form : openForms_) {
                if (form >= 0) Unite(objects_[static_cast<size_t>(form)].bounds, ToRect(bounds));
            }
        });
    }

    void AddShading(fz_rect bounds) noexcept {
        Add(IPageObject::Shading, fz_intersect_rect(fz_intersect_rect(bounds, clips_.back().rect), pageBox_));
    }

    void PushClip(fz_rect bounds, IPageObject::Kind kind) noexcept {
        Catching([&] { clips_.push_back({fz_intersect_rect(bounds, clips_.back().rect), kind}); });
    }
    void PopClip() noexcept {
        if (clips_.size() > 1) clips_.pop_back();
    }

    void BeginMask() noexcept { ++maskDepth_; }
    void EndMask() noexcept {
        if (maskDepth_ > 0) --maskDepth_;
        // The mask now clips what follows until the matching pop_clip.
        PushClip(fz_infinite_rect, IPageObject::Unknown);
    }

    void BeginTile() noexcept {
        const Clip& top = clips_.back();
        if (tileDepth_ == 0 && (top.kind == IPageObject::Path || top.kind == IPageObject::Image)) {
            Add(top.kind, top.rect);
        }
        ++tileDepth_;
    }
    void EndTile() noexcept {
        if (tileDepth_ > 0) --tileDepth_;
    }

    void BeginForm() noexcept {
        Catching([&] {
            if (Recording() && objects_.size() < kMaxObjects) {
                openForms_.push_back(static_cast<int>(objects_.size()));
                objects_.push_back({IPageObject::Form, Rect{}});
            } else {
                openForms_.push_back(-1);
            }
        });
    }
    void EndForm() noexcept {
        if (!openForms_.empty()) openForms_.pop_back();
    }

    void Fail(std::exception_ptr error) noexcept {
        if (!error_) error_ = std::move(error);
    }

    // The objects, or the exception a callback caught.
    std::vector<PageObjectInfo> Take() {
        if (error_) std::rethrow_exception(error_);
        // Forms that painted nothing have no place on the page.
        std::vector<PageObjectInfo> result;
        result.reserve(objects_.size());
        for (const auto& object : objects_) {
            if (object.kind == IPageObject::Form && IsEmptyBox(object.bounds)) continue;
            result.push_back(object);
        }
        return result;
    }

private:
    static constexpr size_t kMaxObjects = size_t(1) << 20;

    struct Clip {
        fz_rect rect;
        IPageObject::Kind kind;
    };

    template <class F>
    void Catching(F&& f) noexcept {
        try {
            f();
        } catch (...) {
            Fail(std::current_exception());
        }
    }

    fz_rect pageBox_;
    std::vector<PageObjectInfo> objects_;
    std::vector<Clip> clips_;
    std::vector<int> openForms_;
    int maskDepth_ = 0;
    int tileDepth_ = 0;
    bool truncated_ = false;
    std::exception_ptr error_;
};

// The device MuPDF's interpreter paints into. Its callbacks compute bounds
// with MuPDF (which may throw through them: nothing with a destructor lives
// in their frames) and hand them to the collector, which never throws.
struct CollectorDevice {
    fz_device base;
    ObjectCollector* collector;
};

ObjectCollector& collectorOf(fz_device* dev) {
    return *reinterpret_cast<CollectorDevice*>(dev)->collector;
}

void onFillPath(fz_context* ctx, fz_device* dev, const fz_path* path, int, fz_matrix ctm, fz_colorspace*, const float*,
                float, fz_color_params) {
    if (collectorOf(dev).Recording()) collectorOf(dev).Add(IPageObject::Path, fz_bound_path(ctx, path, nullptr, ctm));
}

void onStrokePath(fz_context* ctx, fz_device* dev, const fz_path* path, const fz_stroke_state* stroke, fz_matrix ctm,
                  fz_colorspace*, const float*, float, fz_color_params) {
    if (collectorOf(dev).Recording()) collectorOf(dev).Add(IPageObject::Path, fz_bound_path(ctx, path, stroke, ctm));
}

void onClipPath(fz_context* ctx, fz_device* dev, const fz_path* path, int, fz_matrix ctm, fz_rect scissor) {
    collectorOf(dev).PushClip(fz_intersect_rect(fz_bound_path(ctx, path, nullptr, ctm), scissor), IPageObject::Path);
}

void onClipStrokePath(fz_context* ctx, fz_device* dev, const fz_path* path, const fz_stroke_state* stroke,
                      fz_matrix ctm, fz_rect scissor) {
    collectorOf(dev).PushClip(fz_intersect_rect(fz_bound_path(ctx, path, stroke, ctm), scissor), IPageObject::Path);
}

void onFillText(fz_context* ctx, fz_device* dev, const fz_text* text, fz_matrix ctm, fz_colorspace*, const float*,
                float, fz_color_params) {
    if (collectorOf(dev).Recording()) collectorOf(dev).Add(IPageObject::Text, fz_bound_text(ctx, text, nullptr, ctm));
}

void onStrokeText(fz_context* ctx, fz_device* dev, const fz_text* text, const fz_stroke_state* stroke, fz_matrix ctm,
                  fz_colorspace*, const float*, float, fz_color_params) {
    if (collectorOf(dev).Recording()) collectorOf(dev).Add(IPageObject::Text, fz_bound_text(ctx, text, stroke, ctm));
}

// Text that clips (render modes 4-7) is still text on the page.
void onClipText(fz_context* ctx, fz_device* dev, const fz_text* text, fz_matrix ctm, fz_rect scissor) {
    const fz_rect bounds = fz_bound_text(ctx, text, nullptr, ctm);
    collectorOf(dev).Add(IPageObject::Text, bounds);
    collectorOf(dev).PushClip(fz_intersect_rect(bounds, scissor), IPageObject::Text);
}

void onClipStrokeText(fz_context* ctx, fz_device* dev, const fz_text* text, const fz_stroke_state* stroke,
                      fz_matrix ctm, fz_rect scissor) {
    const fz_rect bounds = fz_bound_text(ctx, text, stroke, ctm);
    collectorOf(dev).Add(IPageObject::Text, bounds);
    collectorOf(dev).PushClip(fz_intersect_rect(bounds, scissor), IPageObject::Text);
}

// Invisible text (render mode 3, as OCR layers use) is text too.
void onIgnoreText(fz_context* ctx, fz_device* dev, const fz_text* text, fz_matrix ctm) {
    if (collectorOf(dev).Recording()) collectorOf(dev).Add(IPageObject::Text, fz_bound_text(ctx, text, nullptr, ctm));
}

void onFillShade(fz_context* ctx, fz_device* dev, fz_shade* shade, fz_matrix ctm, float, fz_color_params) {
    if (collectorOf(dev).Recording()) collectorOf(dev).AddShading(fz_bound_shade(ctx, shade, ctm));
}

void onFillImage(fz_context*, fz_device* dev, fz_image*, fz_matrix ctm, float, fz_color_params) {
    collectorOf(dev).Add(IPageObject::Image, fz_transform_rect(fz_unit_rect, ctm));
}

void onFillImageMask(fz_context*, fz_device* dev, fz_image*, fz_matrix ctm, fz_colorspace*, const float*, float,
                     fz_color_params) {
    collectorOf(dev).Add(IPageObject::Image, fz_transform_rect(fz_unit_rect, ctm));
}

void onClipImageMask(fz_context*, fz_device* dev, fz_image*, fz_matrix ctm, fz_rect scissor) {
    collectorOf(dev).PushClip(fz_intersect_rect(fz_transform_rect(fz_unit_rect, ctm), scissor), IPageObject::Image);
}

void onPopClip(fz_context*, fz_device* dev) {
    collectorOf(dev).PopClip();
}

void onBeginMask(fz_context*, fz_device* dev, fz_rect, int, fz_colorspace*, const float*, fz_color_params) {
    collectorOf(dev).BeginMask();
}

void onEndMask(fz_context*, fz_device* dev) {
    collectorOf(dev).EndMask();
}

int onBeginTile(fz_context*, fz_device* dev, fz_rect, fz_rect, float, float, fz_matrix, int) {
    collectorOf(dev).BeginTile();
    return 0;
}

void onEndTile(fz_context*, fz_device* dev) {
    collectorOf(dev).EndTile();
}

// Runs inside guarded().
fz_device* newCollectorDevice(fz_context* ctx, ObjectCollector* collector) {
    CollectorDevice* dev = fz_new_derived_device(ctx, CollectorDevice);
    dev->collector = collector;
    dev->base.fill_path = onFillPath;
    dev->base.stroke_path = onStrokePath;
    dev->base.clip_path = onClipPath;
    dev->base.clip_stroke_path = onClipStrokePath;
    dev->base.fill_text = onFillText;
    dev->base.stroke_text = onStrokeText;
    dev->base.clip_text = onClipText;
    dev->base.clip_stroke_text = onClipStrokeText;
    dev->base.ignore_text = onIgnoreText;
    dev->base.fill_shade = onFillShade;
    dev->base.fill_image = onFillImage;
    dev->base.fill_image_mask = onFillImageMask;
    dev->base.clip_image_mask = onClipImageMask;
    dev->base.pop_clip = onPopClip;
    dev->base.begin_mask = onBeginMask;
    dev->base.end_mask = onEndMask;
    dev->base.begin_tile = onBeginTile;
    dev->base.end_tile = onEndTile;
    return &dev->base;
}

// Form XObjects reach no device call of their own, so the interpreter's "Do"
// of a form is wrapped to tell the collector where a form starts and ends.
// The run processor has no room for our state; the hook lives for one run
// on this thread.
struct FormHook {
    ObjectCollector* collector;
    void (*original)(fz_context*, pdf_processor*, const char*, pdf_obj*, pdf_obj*);
    int page;
};
thread_local FormHook* activeFormHook = nullptr;

class FormHookScope {
public:
    explicit FormHookScope(FormHook* hook) : previous_(activeFormHook) { activeFormHook = hook; }
    ~FormHookScope() { activeFormHook = previous_; }
    FormHookScope(const FormHookScope&) = delete;
    FormHookScope& operator=(const FormHookScope&) = delete;

private:
    FormHook* previous_;
};

void onDoForm(fz_context* ctx, pdf_processor* proc, const char* name, pdf_obj* form, pdf_obj* resources) {
    FormHook* hook = activeFormHook;
    hook->collector->BeginForm();
    try {
        // The interpreter would warn about a failing form and go on with the
        // page; do the same, so the form's begin and end stay paired.
        guarded(ctx, [&] { hook->original(ctx, proc, name, form, resources); });
    } catch (const std::exception& e) {
        try {
            LOG(WARNING) << "page " << hook->page << ": form XObject " << (name ? name : "")
                         << " skipped: " << e.what();
        } catch (...) {
        }
    } catch (...) {
        hook->collector->Fail(std::current_exception());
    }
    hook->collector->EndForm();
}

}  // namespace

const std::vector<PageObjectInfo>& PdfPage::Objects() {
    if (objects_) return *objects_;
    ThrowIfPastBudget();
    const RequestBudget budget;
    fz_context* ctx = Context();
    pdf_page* page = Native();
    pdf_document* doc = core_->doc;
    ScopedFontProvider fonts(core_->fonts.get());

    struct Content {
        fz_rect box;
        pdf_obj* resources;
        pdf_obj* contents;
    };
    const Content content = guarded(ctx, [&] {
        Content c;
        fz_matrix ctm;
        pdf_page_transform(ctx, page, &c.box, &ctm);
        c.resources = pdf_page_resources(ctx, page);
        c.contents = pdf_page_contents(ctx, page);
        return c;
    });

    // The interpreter runs with the identity matrix, so every bound the
    // device sees is already in page space.
    ObjectCollector collector(content.box);
    DeviceHandle device(ctx, guarded(ctx, [&] { return newCollectorDevice(ctx, &collector); }));
    const ContentRun run = RunContent(PageTimeBudget(), [&](fz_cookie& cookie) {
        ProcessorHandle processor(ctx, guarded(ctx, [&] {
                                      return pdf_new_run_processor(ctx, device.get(), fz_identity, "View", nullptr,
                                                                   nullptr, &cookie);
                                  }));
        FormHook hook{&collector, processor.get()->op_Do_form, Number()};
        FormHookScope scope(&hook);
        if (hook.original) processor.get()->op_Do_form = onDoForm;
        guarded(ctx, [&] {
            pdf_process_contents(ctx, processor.get(), doc, content.resources, content.contents, &cookie);
            pdf_close_processor(ctx, processor.get());
            fz_close_device(ctx, device.get());
        });
    });
    if (run.failure) std::rethrow_exception(run.failure);
    CheckRun("listing its objects", run);
    if (run.errors > 0) {
        LOG(WARNING) << "page " << Number() << ": objects read with " << run.errors << " error(s)";
    }
    objects_ = collector.Take();
    return *objects_;
}

int PdfPage::GetObjectCount() {
    return static_cast<int>(Objects().size());
}

std::unique_ptr<IPageObject> PdfPage::GetObject(int index) {
    const auto& objects = Objects();
    if (index < 0 || static_cast<size_t>(index) >= objects.size())
        throw std::out_of_range("page object index out of range");
    return std::make_unique<PageObject>(objects[static_cast<size_t>(index)]);
}

std::vector<int> PdfPage::GetObjectIndices() {
    std::vector<int> indices;
    const auto& objects = Objects();
    for (size_t i = 0; i < objects.size(); ++i) {
        if (objects[i].kind == IPageObject::Text) indices.push_back(static_cast<int>(i));
    }
    return indices;
}

std::optional<Rect> PdfPage::GetObjectBoundsAt(double x, double y, int kind) {
    const auto& objects = Objects();
    for (auto it = objects.rbegin(); it != objects.rend(); ++it) {
        if (it->kind == kind && Holds(it->bounds, x, y)) return it->bounds;
    }
    return std::nullopt;
}

}  // namespace Orvane::PDF::Pdfium
