// Where links and destinations lead: link actions, explicit and named
// destinations (the catalog's /Dests and the /Names tree), page references.

#include <glog/logging.h>
#include <mupdf/pdf.h>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PageAnnotations.h"
#include "engine/PageTree.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

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
        const int count = PageCount(ctx, doc);
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
        const int count = PageCount(ctx, doc);
        // MuPDF answers some number for a page object outside the page
        // tree, or throws: only an index that leads back to it counts.
        return guarded(ctx, [&] {
            pdf_obj* target = pdf_resolve_indirect(ctx, dest.pageRef);
            const int index = pdf_lookup_page_number(ctx, doc, dest.pageRef);
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

}  // namespace

std::shared_ptr<IAnnotation> MakeLinkAnnotation(Rect rect, std::shared_ptr<DocumentCore> core, PdfObjHandle annot,
                                                int pageNumber) {
    return std::make_shared<LinkAnnotation>(rect, std::move(core), std::move(annot), pageNumber);
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

}  // namespace Orvane::PDF::Pdfium
