// The outline, walked from the catalog's /Outlines by hand: MuPDF's own
// reader follows /Next chains without looking for loops, and a damaged file
// may nest entries without end.

#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"
#include "engine/Reading.h"

namespace Orvane::PDF::Pdfium {
namespace {

// One entry as the file has it. Pointers are borrowed from the document.
struct EntryRead {
    int isDict;
    int number;       // object number, 0 for a direct object
    pdf_obj* self;    // the resolved dictionary
    pdf_obj* first;   // first child
    pdf_obj* next;    // next sibling
    const char* title;
    int count;
    int hasColor;
    float rgb[3];
    int flags;
    pdf_obj* dest;     // destination to resolve, if any
    const char* uri;   // URI action target, or the other file of a GoToR action
    size_t uriLength;
    int named;         // a named action: 1 the first page, 2 the last
};

// Runs inside guarded(): C only.
void readEntry(fz_context* ctx, pdf_obj* ref, EntryRead* out) {
    pdf_obj* dict = pdf_resolve_indirect(ctx, ref);
    if (!pdf_is_dict(ctx, dict)) return;
    out->isDict = 1;
    out->number = pdf_is_indirect(ctx, ref) ? pdf_to_num(ctx, ref) : 0;
    out->self = dict;
    out->first = pdf_dict_get(ctx, dict, PDF_NAME(First));
    out->next = pdf_dict_get(ctx, dict, PDF_NAME(Next));
    out->title = pdf_to_text_string(ctx, pdf_dict_get(ctx, dict, PDF_NAME(Title)));
    out->count = pdf_to_int(ctx, pdf_dict_get(ctx, dict, PDF_NAME(Count)));
    pdf_obj* colour = pdf_dict_get(ctx, dict, PDF_NAME(C));
    if (pdf_array_len(ctx, colour) == 3) {
        out->hasColor = 1;
        for (int i = 0; i < 3; ++i) out->rgb[i] = pdf_to_real(ctx, pdf_array_get(ctx, colour, i));
    }
    out->flags = pdf_to_int(ctx, pdf_dict_get(ctx, dict, PDF_NAME(F)));
    out->dest = pdf_dict_get(ctx, dict, PDF_NAME(Dest));
    if (out->dest) return;
    pdf_obj* action = pdf_dict_get(ctx, dict, PDF_NAME(A));
    pdf_obj* kind = pdf_dict_get(ctx, action, PDF_NAME(S));
    if (pdf_name_eq(ctx, kind, PDF_NAME(GoTo))) {
        out->dest = pdf_dict_get(ctx, action, PDF_NAME(D));
    } else if (pdf_name_eq(ctx, kind, PDF_NAME(URI))) {
        pdf_obj* uri = pdf_dict_get(ctx, action, PDF_NAME(URI));
        if (pdf_is_string(ctx, uri)) out->uri = pdf_to_string(ctx, uri, &out->uriLength);
    } else if (pdf_name_eq(ctx, kind, PDF_NAME(GoToR))) {
        pdf_obj* file = pdf_dict_get(ctx, action, PDF_NAME(F));
        if (pdf_is_dict(ctx, file)) file = pdf_dict_get(ctx, file, PDF_NAME(F));
        if (pdf_is_string(ctx, file)) out->uri = pdf_to_string(ctx, file, &out->uriLength);
    } else if (pdf_name_eq(ctx, kind, PDF_NAME(Named))) {
        pdf_obj* name = pdf_dict_get(ctx, action, PDF_NAME(N));
        out->named = pdf_name_eq(ctx, name, PDF_NAME(FirstPage)) ? 1 : pdf_name_eq(ctx, name, PDF_NAME(LastPage)) ? 2 : 0;
    }
}

uint32_t channel(float value) {
    if (!std::isfinite(value)) return 0;
    return static_cast<uint32_t>(std::lround(std::fmin(std::fmax(value, 0.0f), 1.0f) * 255.0f));
}

class OutlineWalk {
public:
    explicit OutlineWalk(const DocumentCore& core) : core_(core) {}

    std::vector<OutlineEntry> Siblings(pdf_obj* first, int depth) {
        std::vector<OutlineEntry> entries;
        if (depth > kMaxOutlineDepth) {
            if (first) Cut("entries nested deeper than " + std::to_string(kMaxOutlineDepth) + " levels");
            return entries;
        }
        fz_context* ctx = core_.ctx;
        for (pdf_obj* item = first; item != nullptr;) {
            const EntryRead read = guarded(ctx, [&] {
                EntryRead r{};
                readEntry(ctx, item, &r);
                return r;
            });
            if (!read.isDict) break;
            if (!Visit(read)) {
                Cut("an entry that leads back to an earlier one (object " + std::to_string(read.number) + ")");
                break;
            }
            if (++count_ > kMaxOutlineEntries) {
                Cut("more than " + std::to_string(kMaxOutlineEntries) + " entries");
                break;
            }
            entries.push_back(Entry(read, depth));
            item = read.next;
        }
        return entries;
    }

private:
    OutlineEntry Entry(const EntryRead& read, int depth) {
        OutlineEntry entry;
        if (read.title) entry.title = read.title;
        entry.open = read.count > 0;
        if (read.hasColor) {
            entry.hasColor = true;
            entry.color = channel(read.rgb[0]) << 16 | channel(read.rgb[1]) << 8 | channel(read.rgb[2]);
        }
        entry.italic = read.flags & 1;
        entry.bold = read.flags & 2;
        if (read.uri) {
            entry.uri.assign(read.uri, read.uriLength);
        } else if (read.named) {
            fz_context* ctx = core_.ctx;
            const int pages = PageCount(ctx, core_.doc);
            if (pages > 0) entry.pageIndex = read.named == 1 ? 0 : pages - 1;
        } else if (read.dest) {
            const LinkDestination target = ResolveDestination(core_, read.dest, &pageIndices_);
            entry.pageIndex = target.pageIndex;
            entry.x = target.x;
            entry.y = target.y;
            entry.zoom = target.zoom;
        }
        entry.children = Siblings(read.first, depth + 1);
        return entry;
    }

    bool Visit(const EntryRead& read) {
        if (read.number > 0) return numbers_.insert(read.number).second;
        return direct_.insert(read.self).second;
    }

    void Cut(const std::string& why) {
        if (cut_) return;  // one line per outline
        cut_ = true;
        LOG(WARNING) << "outline: cut at " << why;
    }

    const DocumentCore& core_;
    std::unordered_set<int> numbers_;
    std::unordered_map<int, int> pageIndices_;  // page object number -> index
    std::unordered_set<const pdf_obj*> direct_;
    size_t count_ = 0;
    bool cut_ = false;
};

}  // namespace

std::vector<OutlineEntry> ReadOutline(const IDocument& document) {
    const auto* pdf = dynamic_cast<const PdfDocument*>(&document);
    if (pdf == nullptr) throw std::invalid_argument("the document is not one of this engine's");
    const DocumentCore& core = *pdf->Core();
    fz_context* ctx = core.ctx;
    pdf_obj* first = guarded(ctx, [&] {
        pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, core.doc), PDF_NAME(Root));
        return pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(Outlines)), PDF_NAME(First));
    });
    OutlineWalk walk(core);
    return walk.Siblings(first, 0);
}

}  // namespace Orvane::PDF::Pdfium
