#include "engine/PdfPage.h"

#include <glog/logging.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

#include "engine/Context.h"
#include "engine/FontLoader.h"
#include "engine/Geometry.h"
#include "engine/Watchdog.h"
#include "engine/Guarded.h"
#include "engine/TextObject.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

using ProcessorHandle = Handle<pdf_processor, pdf_drop_processor>;

// In page space (y upward) an fz_rect's y0 is the bottom.
Rect toRect(fz_rect r) {
    return Rect{r.x0, r.y1, r.x1, r.y0};
}

bool holds(const Rect& r, double x, double y) {
    return x >= r.left && x <= r.right && y >= r.bottom && y <= r.top;
}

// /Rotate snapped to a quarter turn the way MuPDF draws it.
int quarterTurns(int degrees) {
    if (degrees < 0) degrees = 360 - ((-(degrees + 1)) % 360) - 1;  // no overflow at INT_MIN
    degrees %= 360;
    degrees = 90 * ((degrees + 45) / 90);
    return degrees >= 360 ? 0 : degrees / 90;
}

// ---- annotations ----

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

class Annotation : public virtual IAnnotation {
public:
    Annotation(Type type, Rect rect) : type_(type), rect_(rect) {}
    Type GetType() const override { return type_; }
    bool Contains(const Position& point) const override { return holds(rect_, point.x, point.y); }
    Rect GetRect() const override { return rect_; }

private:
    Type type_;
    Rect rect_;
};

// Where a link leads, read from the PDF objects. The helpers below run inside
// guarded(): C calls only.
struct DestinationRead {
    int found;          // a destination array was found
    pdf_obj* pageRef;   // its first element (borrowed)
    int explicitIndex;  // the first element as a page number, when it is one
    double x, y;
    int hasX, hasY;
    double zoom;
};

int sameKey(fz_context* ctx, pdf_obj* obj, const char* key, size_t length) {
    const char* bytes = nullptr;
    size_t size = 0;
    if (pdf_is_name(ctx, obj)) {
        bytes = pdf_to_name(ctx, obj);
        size = std::strlen(bytes);
    } else if (pdf_is_string(ctx, obj)) {
        bytes = pdf_to_string(ctx, obj, &size);
    } else {
        return 0;
    }
    return size == length && std::memcmp(bytes, key, length) == 0;
}

// Byte order of name tree keys: <0, 0, >0 as key sorts before, at, after obj.
int compareKey(fz_context* ctx, pdf_obj* obj, const char* key, size_t length) {
    size_t size = 0;
    const char* bytes = pdf_to_string(ctx, obj, &size);
    const int c = std::memcmp(key, bytes, length < size ? length : size);
    if (c != 0) return c;
    return length < size ? -1 : (length > size ? 1 : 0);
}

// A lookup in a name tree. depth and budget bound the work on cyclic or
// absurdly large trees.
pdf_obj* findInNameTree(fz_context* ctx, pdf_obj* node, const char* key, size_t length, int depth, int* budget) {
    if (depth > 32 || --*budget < 0 || !pdf_is_dict(ctx, node)) return nullptr;
    pdf_obj* names = pdf_dict_get(ctx, node, PDF_NAME(Names));
    const int count = pdf_array_len(ctx, names);
    for (int i = 0; i + 1 < count; i += 2) {
        if (--*budget < 0) return nullptr;
        if (sameKey(ctx, pdf_array_get(ctx, names, i), key, length)) return pdf_array_get(ctx, names, i + 1);
    }
    pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
    const int kidCount = pdf_array_len(ctx, kids);
    for (int i = 0; i < kidCount; ++i) {
        pdf_obj* kid = pdf_array_get(ctx, kids, i);
        pdf_obj* limits = pdf_dict_get(ctx, kid, PDF_NAME(Limits));
        if (pdf_array_len(ctx, limits) == 2 && pdf_is_string(ctx, pdf_array_get(ctx, limits, 0)) &&
            pdf_is_string(ctx, pdf_array_get(ctx, limits, 1))) {
            if (compareKey(ctx, pdf_array_get(ctx, limits, 0), key, length) < 0) continue;
            if (compareKey(ctx, pdf_array_get(ctx, limits, 1), key, length) > 0) continue;
        }
        pdf_obj* found = findInNameTree(ctx, kid, key, length, depth + 1, budget);
        if (found) return found;
    }
    return nullptr;
}

// A named destination, looked up in the catalog's /Dests dictionary and, when
// that does not have it, in the /Names tree (a file may carry both).
pdf_obj* lookupNamedDestination(fz_context* ctx, pdf_document* doc, pdf_obj* name) {
    const char* key = nullptr;
    size_t length = 0;
    if (pdf_is_name(ctx, name)) {
        key = pdf_to_name(ctx, name);
        length = std::strlen(key);
    } else {
        key = pdf_to_string(ctx, name, &length);
    }
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    pdf_obj* dests = pdf_dict_get(ctx, root, PDF_NAME(Dests));
    const int count = pdf_dict_len(ctx, dests);
    for (int i = 0; i < count; ++i) {
        if (sameKey(ctx, pdf_dict_get_key(ctx, dests, i), key, length)) return pdf_dict_get_val(ctx, dests, i);
    }
    int budget = 1 << 20;
    pdf_obj* tree = pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(Names)), PDF_NAME(Dests));
    return findInNameTree(ctx, tree, key, length, 0, &budget);
}

void readNumber(fz_context* ctx, pdf_obj* array, int index, double* value, int* has) {
    pdf_obj* obj = pdf_array_get(ctx, array, index);
    if (!pdf_is_number(ctx, obj)) return;
    const double v = pdf_to_real(ctx, obj);
    if (!std::isfinite(v)) return;
    *value = v;
    *has = 1;
}

// Fills out from a destination: an explicit array, a name or string naming
// one, or a dictionary holding it under /D.
void readDestination(fz_context* ctx, pdf_document* doc, pdf_obj* dest, DestinationRead* out) {
    if (pdf_is_name(ctx, dest) || pdf_is_string(ctx, dest)) dest = lookupNamedDestination(ctx, doc, dest);
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    if (!pdf_is_array(ctx, dest) || pdf_array_len(ctx, dest) < 1) return;

    out->found = 1;
    pdf_obj* page = pdf_array_get(ctx, dest, 0);
    if (pdf_is_int(ctx, page)) {
        out->explicitIndex = pdf_to_int(ctx, page);
    } else {
        out->pageRef = page;
    }

    pdf_obj* mode = pdf_array_get(ctx, dest, 1);
    double unused = 0;
    int unusedHas = 0;
    if (pdf_name_eq(ctx, mode, PDF_NAME(XYZ))) {
        readNumber(ctx, dest, 2, &out->x, &out->hasX);
        readNumber(ctx, dest, 3, &out->y, &out->hasY);
        int hasZoom = 0;
        readNumber(ctx, dest, 4, &out->zoom, &hasZoom);
        if (!hasZoom) out->zoom = 0;
    } else if (pdf_name_eq(ctx, mode, PDF_NAME(FitH)) || pdf_name_eq(ctx, mode, PDF_NAME(FitBH))) {
        readNumber(ctx, dest, 2, &out->y, &out->hasY);
    } else if (pdf_name_eq(ctx, mode, PDF_NAME(FitV)) || pdf_name_eq(ctx, mode, PDF_NAME(FitBV))) {
        readNumber(ctx, dest, 2, &out->x, &out->hasX);
    } else if (pdf_name_eq(ctx, mode, PDF_NAME(FitR))) {
        readNumber(ctx, dest, 2, &out->x, &out->hasX);
        readNumber(ctx, dest, 3, &unused, &unusedHas);
        readNumber(ctx, dest, 4, &unused, &unusedHas);
        readNumber(ctx, dest, 5, &out->y, &out->hasY);
    }
}

struct LinkRead {
    int type;  // ILinkAnnotation::LinkType
    DestinationRead dest;
    const char* uri;  // borrowed from the document
    size_t uriLength;
};

void readLink(fz_context* ctx, pdf_document* doc, pdf_obj* annot, LinkRead* out) {
    pdf_obj* dest = pdf_dict_get(ctx, annot, PDF_NAME(Dest));
    if (!dest) {
        pdf_obj* action = pdf_dict_get(ctx, annot, PDF_NAME(A));
        pdf_obj* kind = pdf_dict_get(ctx, action, PDF_NAME(S));
        if (pdf_name_eq(ctx, kind, PDF_NAME(URI))) {
            pdf_obj* uri = pdf_dict_get(ctx, action, PDF_NAME(URI));
            if (pdf_is_string(ctx, uri)) {
                out->uri = pdf_to_string(ctx, uri, &out->uriLength);
                out->type = ILinkAnnotation::Uri;
            }
            return;
        }
        if (!pdf_name_eq(ctx, kind, PDF_NAME(GoTo))) return;
        dest = pdf_dict_get(ctx, action, PDF_NAME(D));
    }
    readDestination(ctx, doc, dest, &out->dest);
    if (out->dest.found) out->type = ILinkAnnotation::Destination;
}

// The index of the page a destination names, or -1 when it names none of
// this document's pages. from names the page that asks, for the log.
int pageIndexOf(const DocumentCore& core, const DestinationRead& dest, int from,
                std::unordered_map<int, int>* known = nullptr) {
    fz_context* ctx = core.ctx;
    pdf_document* doc = core.doc;
    if (dest.pageRef == nullptr) {
        const int count = guarded(ctx, [&] { return pdf_count_pages(ctx, doc); });
        return dest.explicitIndex >= 0 && dest.explicitIndex < count ? dest.explicitIndex : -1;
    }
    if (known != nullptr) {
        const int number = guarded(ctx, [&] { return pdf_is_indirect(ctx, dest.pageRef) ? pdf_to_num(ctx, dest.pageRef) : 0; });
        if (number > 0) {
            const auto found = known->find(number);
            if (found != known->end()) return found->second;
            const int index = pageIndexOf(core, dest, from);
            known->emplace(number, index);
            return index;
        }
    }
    try {
        // MuPDF answers some number for a page object outside the page
        // tree, or throws: only an index that leads back to it counts.
        return guarded(ctx, [&] {
            pdf_obj* target = pdf_resolve_indirect(ctx, dest.pageRef);
            const int index = pdf_lookup_page_number(ctx, doc, dest.pageRef);
            const int count = pdf_count_pages(ctx, doc);
            if (index < 0 || index >= count) return -1;
            return pdf_resolve_indirect(ctx, pdf_lookup_page_obj(ctx, doc, index)) == target ? index : -1;
        });
    } catch (const Orvane::Exception& e) {
        VLOG(1) << "page " << from << ": link target not found: " << e.what();
        return -1;
    }
}

class LinkAnnotation : public Annotation, public ILinkAnnotation {
public:
    LinkAnnotation(Rect rect, std::shared_ptr<DocumentCore> core, PdfObjHandle annot, int pageNumber)
        : Annotation(IAnnotation::Link, rect), core_(std::move(core)), annot_(std::move(annot)), page_(pageNumber) {}
    ~LinkAnnotation() override {
        const ScopedContext scoped;
        pdf_drop_obj(scoped.get(), annot_.release());
    }

    int GetLinkType() override { return Resolved().type; }
    LinkDestination GetDestination() override { return Resolved().destination; }
    std::string GetUri() override { return Resolved().uri; }

private:
    struct Target {
        int type = Other;
        LinkDestination destination;
        std::string uri;
    };

    // Resolved on first use: most links are only hit-tested, never followed.
    const Target& Resolved() {
        if (target_) return *target_;
        fz_context* ctx = core_->ctx;
        pdf_document* doc = core_->doc;
        pdf_obj* annot = annot_.get();
        const LinkRead read = guarded(ctx, [&] {
            LinkRead r{};
            r.dest.explicitIndex = -1;
            readLink(ctx, doc, annot, &r);
            return r;
        });

        Target target;
        if (read.type == Uri) {
            target.type = Uri;
            target.uri.assign(read.uri, read.uriLength);
        } else if (read.type == Destination) {
            const int index = PageIndexOf(read.dest);
            if (index >= 0) {
                target.type = Destination;
                target.destination.pageIndex = index;
                target.destination.x = read.dest.hasX ? read.dest.x : 0.0;
                target.destination.y = read.dest.hasY ? read.dest.y : 0.0;
                target.destination.zoom = static_cast<float>(read.dest.zoom);
            } else {
                LOG(WARNING) << "page " << page_ << ": link to a page that is not in the document ignored";
            }
        }
        target_ = std::move(target);
        return *target_;
    }

    int PageIndexOf(const DestinationRead& dest) const { return pageIndexOf(*core_, dest, page_); }

    std::shared_ptr<DocumentCore> core_;
    PdfObjHandle annot_;
    int page_;
    std::optional<Target> target_;
};

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
        Guard([&] {
            if (objects_.size() >= kMaxObjects) {
                if (!truncated_) LOG(WARNING) << "page objects: list cut at " << kMaxObjects << " objects";
                truncated_ = true;
                return;
            }
            objects_.push_back({kind, toRect(bounds)});
            for (int form : openForms_) {
                if (form >= 0) Unite(objects_[static_cast<size_t>(form)].bounds, toRect(bounds));
            }
        });
    }

    void AddShading(fz_rect bounds) noexcept {
        Add(IPageObject::Shading, fz_intersect_rect(fz_intersect_rect(bounds, clips_.back().rect), pageBox_));
    }

    void PushClip(fz_rect bounds, IPageObject::Kind kind) noexcept {
        Guard([&] { clips_.push_back({fz_intersect_rect(bounds, clips_.back().rect), kind}); });
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
        Guard([&] {
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
            if (object.kind == IPageObject::Form && object.bounds.right <= object.bounds.left &&
                object.bounds.top <= object.bounds.bottom) {
                continue;
            }
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
    void Guard(F&& f) noexcept {
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

// ---- keeping MuPDF's list of open pages in step with the page tree ----

// MuPDF finds a loaded page by the number it was loaded under and does not
// renumber its open pages when pages are inserted or deleted. Give each open
// page of the document the number it has now (-1 once it left the tree).
void renumberOpenPages(fz_context* ctx, pdf_document* doc) {
    for (fz_page* page = doc->super.open; page != nullptr; page = page->next) {
        pdf_obj* obj = reinterpret_cast<pdf_page*>(page)->obj;
        int number = -1;
        try {
            number = guarded(ctx, [&] { return pdf_lookup_page_number(ctx, doc, obj); });
        } catch (const Orvane::Exception&) {
            number = -1;  // MuPDF throws for a page no longer in the tree
        }
        page->number = number;
    }
}

PageHandle loadPage(fz_context* ctx, pdf_document* doc, int index) {
    return PageHandle(ctx, guarded(ctx, [&] { return fz_load_page(ctx, &doc->super, index); }));
}

bool isPageAt(fz_context* ctx, pdf_document* doc, const PageHandle& page, int index) {
    return guarded(ctx, [&] {
        pdf_obj* loaded = pdf_resolve_indirect(ctx, reinterpret_cast<pdf_page*>(page.get())->obj);
        return int(loaded == pdf_resolve_indirect(ctx, pdf_lookup_page_obj(ctx, doc, index)));
    });
}

}  // namespace

// ---- PdfPage ----

PdfPage::PdfPage(std::shared_ptr<DocumentCore> core, PageHandle page) : core_(std::move(core)), page_(std::move(page)) {
    if (!core_ || !page_) throw std::invalid_argument("PdfPage needs a document and a page");
}

PdfPage::~PdfPage() {
    const ScopedContext scoped;
    fz_drop_page(scoped.get(), page_.release());
}

PdfPage::Geometry PdfPage::ReadGeometry() const {
    fz_context* ctx = Context();
    pdf_page* page = Native();
    return guarded(ctx, [&] {
        Geometry g;
        fz_matrix ctm;
        pdf_page_transform(ctx, page, &g.box, &ctm);
        g.quarterTurns = quarterTurns(pdf_to_int(ctx, pdf_dict_get_inheritable(ctx, page->obj, PDF_NAME(Rotate))));
        return g;
    });
}

void PdfPage::ThrowIfPastBudget() const {
    if (core_->pastBudget.empty()) return;
    const auto found = core_->pastBudget.find(pdf_to_num(Context(), Native()->obj));
    if (found == core_->pastBudget.end()) return;
    const DocumentCore::PastBudget& past = found->second;
    if (past.generation != core_->generation || TimeBudget().count() > past.budgetMs) {
        core_->pastBudget.erase(found);
        return;
    }
    throw Orvane::Exception(past.message);
}

void PdfPage::FailRun(const char* what, Cut cut) const {
    const long long budget = TimeBudget().count();
    std::string message = "page " + std::to_string(Number()) + ": " + what;
    switch (cut) {
        case Cut::Time:
            message += " ran past the time budget of " + std::to_string(budget) + " ms";
            break;
        case Cut::Work:
            message += " refused: the page asks for more work than the time budget of " + std::to_string(budget) +
                       " ms allows";
            break;
        case Cut::Memory:
            message += " ran out of memory (engine memory limit " + std::to_string(MemoryLimit() >> 20) + " MiB)";
            break;
    }
    if (cut != Cut::Memory) {
        const int object = pdf_to_num(Context(), Native()->obj);
        if (object > 0) core_->pastBudget[object] = DocumentCore::PastBudget{core_->generation, budget, message};
    }
    throw Orvane::Exception(message);
}

void PdfPage::CheckRun(const char* what, bool expired, const RunLimits& limits) const {
    CheckRun(what, expired, limits.WorkRefused(), limits.ShortOfMemory());
}

void PdfPage::CheckRun(const char* what, bool expired, bool workRefused, bool shortOfMemory) const {
    if (expired) FailRun(what, Cut::Time);
    if (workRefused) FailRun(what, Cut::Work);
    // Past the budget every allocation is refused: the budget is the cause.
    if (shortOfMemory) FailRun(what, RequestBudget::Expired() ? Cut::Time : Cut::Memory);
}

Size PdfPage::GetSize() const {
    const Geometry g = ReadGeometry();
    const double width = g.box.x1 - g.box.x0;
    const double height = g.box.y1 - g.box.y0;
    return g.quarterTurns % 2 ? Size{height, width} : Size{width, height};
}

Rect PdfPage::GetPageRect() const {
    return toRect(ReadGeometry().box);
}

IPage::Rotation PdfPage::GetRotation() {
    return static_cast<Rotation>(ReadGeometry().quarterTurns);
}

void PdfPage::SetRotation(Rotation rotation) {
    if (rotation < Rotate0 || rotation > Rotate270) throw std::invalid_argument("rotation out of range");
    fz_context* ctx = Context();
    pdf_obj* obj = Native()->obj;
    guarded(ctx, [&] { pdf_dict_put_int(ctx, obj, PDF_NAME(Rotate), 90 * static_cast<int>(rotation)); });
    core_->Changed();
    if (core_->onPagesChanged) core_->onPagesChanged();
}

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
    fz_cookie cookie{};  // a failing operator ends the page instead of throwing
    const Deadline deadline(cookie, PageTimeBudget());
    DeviceHandle device(ctx, guarded(ctx, [&] { return newCollectorDevice(ctx, &collector); }));
    ProcessorHandle processor(ctx, guarded(ctx, [&] {
                                  return pdf_new_run_processor(ctx, device.get(), fz_identity, "View", nullptr, nullptr,
                                                               &cookie);
                              }));
    FormHook hook{&collector, processor.get()->op_Do_form, Number()};
    FormHookScope scope(&hook);
    if (hook.original) processor.get()->op_Do_form = onDoForm;

    const RunLimits limits;
    guarded(ctx, [&] {
        pdf_process_contents(ctx, processor.get(), doc, content.resources, content.contents, &cookie);
        pdf_close_processor(ctx, processor.get());
        fz_close_device(ctx, device.get());
    });
    CheckRun("listing its objects", deadline.Expired(), limits);
    if (cookie.errors > 0) {
        LOG(WARNING) << "page " << Number() << ": objects read with " << cookie.errors << " error(s)";
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
        if (it->kind == kind && holds(it->bounds, x, y)) return it->bounds;
    }
    return std::nullopt;
}

std::shared_ptr<ITextObject> PdfPage::GetTextObject() {
    ThrowIfPastBudget();
    const RequestBudget budget;
    ScopedFontProvider fonts(core_->fonts.get());
    return ExtractText(*this);
}

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
            result.push_back(std::make_shared<LinkAnnotation>(rect, core_, std::move(link), Number()));
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

pdf_obj* LookupNamedDestination(fz_context* ctx, pdf_document* doc, pdf_obj* name) {
    return lookupNamedDestination(ctx, doc, name);
}

LinkDestination ResolveDestination(const DocumentCore& core, pdf_obj* dest, std::unordered_map<int, int>* pageIndices) {
    fz_context* ctx = core.ctx;
    pdf_document* doc = core.doc;
    const DestinationRead read = guarded(ctx, [&] {
        DestinationRead r{};
        r.explicitIndex = -1;
        readDestination(ctx, doc, dest, &r);
        return r;
    });
    LinkDestination destination;
    if (!read.found) return destination;
    destination.pageIndex = pageIndexOf(core, read, -1, pageIndices);
    if (destination.pageIndex < 0) return destination;
    destination.x = read.hasX ? read.x : 0.0;
    destination.y = read.hasY ? read.y : 0.0;
    destination.zoom = static_cast<float>(read.zoom);
    return destination;
}

// ---- MakePage ----

std::shared_ptr<IPage> MakePage(const std::shared_ptr<DocumentCore>& core, unsigned index) {
    if (!core) throw std::invalid_argument("MakePage: no document");
    const RequestBudget budget;
    fz_context* ctx = core->ctx;
    pdf_document* doc = core->doc;
    const int count = guarded(ctx, [&] { return pdf_count_pages(ctx, doc); });
    if (count < 0 || index >= static_cast<unsigned>(count)) {
        throw std::out_of_range("page index " + std::to_string(index) + " out of range (" + std::to_string(count) +
                                " pages)");
    }
    const int number = static_cast<int>(index);
    PageHandle page = loadPage(ctx, doc, number);
    if (!isPageAt(ctx, doc, page, number)) {
        // A page loaded before pages were inserted or deleted answered for
        // its old number.
        page.reset();
        renumberOpenPages(ctx, doc);
        page = loadPage(ctx, doc, number);
    }
    return std::make_shared<PdfPage>(core, std::move(page));
}

}  // namespace Orvane::PDF::Pdfium
