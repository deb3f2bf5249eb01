// Page labels taken along when pages are copied into another document.

#include <mupdf/pdf.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "engine/DocumentParts.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PageTree.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Number-tree nodes nested deeper than this are not read.
constexpr int kMaxTreeDepth = 32;

// Collects the (key, value) pairs of a number tree into pairs, flat.
void collectNumbers(fz_context* ctx, pdf_obj* node, pdf_obj* pairs, int depth) {
    if (!pdf_is_dict(ctx, node) || depth > kMaxTreeDepth || pdf_mark_obj(ctx, node)) return;
    fz_try(ctx) {
        pdf_obj* nums = pdf_dict_get(ctx, node, PDF_NAME(Nums));
        const int n = pdf_array_len(ctx, nums);
        for (int i = 0; i + 1 < n; i += 2) {
            pdf_array_push(ctx, pairs, pdf_array_get(ctx, nums, i));
            pdf_array_push(ctx, pairs, pdf_array_get(ctx, nums, i + 1));
        }
        pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
        const int k = pdf_array_len(ctx, kids);
        for (int i = 0; i < k; ++i) collectNumbers(ctx, pdf_array_get(ctx, kids, i), pairs, depth + 1);
    }
    fz_always(ctx) {
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

struct PageLabel {
    std::string style;  // D, R, r, A, a or empty (prefix only)
    std::string prefix;
    int number = 1;
};

// The label of each of the first count pages; empty when the document has
// no page labels.
std::vector<PageLabel> readLabels(fz_context* ctx, pdf_document* doc, int count) {
    pdf_obj* tree = guarded(ctx, [&] {
        return pdf_dict_gets(ctx, pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root)), "PageLabels");
    });
    if (tree == nullptr) return {};
    PdfObjHandle pairs(ctx, guarded(ctx, [&] { return pdf_new_array(ctx, doc, 16); }));
    guarded(ctx, [&] { collectNumbers(ctx, tree, pairs.get(), 0); });
    struct Range {
        int first;
        PageLabel label;
    };
    std::vector<Range> ranges;
    const int n = guarded(ctx, [&] { return pdf_array_len(ctx, pairs.get()); });
    for (int i = 0; i + 1 < n; i += 2) {
        Range range;
        pdf_obj* dict = nullptr;
        range.first = guarded(ctx, [&] {
            dict = pdf_array_get(ctx, pairs.get(), i + 1);
            return pdf_to_int(ctx, pdf_array_get(ctx, pairs.get(), i));
        });
        range.label.style = guarded(ctx, [&] { return pdf_to_name(ctx, pdf_dict_get(ctx, dict, PDF_NAME(S))); });
        range.label.prefix = guarded(ctx, [&] { return pdf_dict_get_text_string(ctx, dict, PDF_NAME(P)); });
        range.label.number = guarded(ctx, [&] {
            pdf_obj* st = pdf_dict_gets(ctx, dict, "St");
            return pdf_is_int(ctx, st) ? pdf_to_int(ctx, st) : 1;
        });
        ranges.push_back(std::move(range));
    }
    std::stable_sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.first < b.first; });
    std::vector<PageLabel> labels(size_t(std::max(count, 0)));
    size_t r = 0;
    const Range* current = nullptr;
    for (int page = 0; page < count; ++page) {
        while (r < ranges.size() && ranges[r].first <= page) current = &ranges[r++];
        if (current == nullptr) {
            labels[size_t(page)] = {"D", "", page + 1};
        } else {
            labels[size_t(page)] = current->label;
            labels[size_t(page)].number = current->label.number + (page - current->first);
        }
    }
    return labels;
}

void writeLabels(fz_context* ctx, pdf_document* dst, const std::vector<PageLabel>& labels) {
    PdfObjHandle tree(ctx, guarded(ctx, [&] { return pdf_add_new_dict(ctx, dst, 1); }));
    pdf_obj* nums = guarded(ctx, [&] { return pdf_dict_put_array(ctx, tree.get(), PDF_NAME(Nums), 8); });
    for (size_t i = 0; i < labels.size(); ++i) {
        const PageLabel& label = labels[i];
        if (i > 0) {
            const PageLabel& before = labels[i - 1];
            if (before.style == label.style && before.prefix == label.prefix && before.number + 1 == label.number)
                continue;
        }
        guarded(ctx, [&] {
            pdf_array_push_int(ctx, nums, int64_t(i));
            pdf_obj* dict = pdf_array_push_dict(ctx, nums, 3);
            if (!label.style.empty()) pdf_dict_put_name(ctx, dict, PDF_NAME(S), label.style.c_str());
            if (!label.prefix.empty()) pdf_dict_put_text_string(ctx, dict, PDF_NAME(P), label.prefix.c_str());
            if (label.number != 1) pdf_dict_puts_drop(ctx, dict, "St", pdf_new_int(ctx, label.number));
        });
    }
    guarded(ctx, [&] {
        pdf_dict_puts(ctx, pdf_dict_get(ctx, pdf_trailer(ctx, dst), PDF_NAME(Root)), "PageLabels", tree.get());
    });
}

}  // namespace

void CopyPageLabels(fz_context* ctx, pdf_document* src, pdf_document* dst, const PartsCopy& copy) {
    // The pages the tree holds: a count its nodes claim is no bound.
    const int sourcePages = PagesHeld(ctx, src, ReadPageTree(ctx, src));
    std::vector<PageLabel> from = readLabels(ctx, src, sourcePages);
    std::vector<PageLabel> into = readLabels(ctx, dst, copy.targetPages);
    if (from.empty() && into.empty()) return;
    auto plain = [](int count) {
        std::vector<PageLabel> labels;
        for (int i = 0; i < count; ++i) labels.push_back({"D", "", i + 1});
        return labels;
    };
    if (from.empty()) from = plain(sourcePages);
    if (into.empty()) into = plain(copy.targetPages);
    std::vector<PageLabel> copied;
    for (int page : copy.pages) copied.push_back(from.at(size_t(page)));
    const size_t at = size_t(std::clamp(copy.at, 0, int(into.size())));
    into.insert(into.begin() + std::ptrdiff_t(at), copied.begin(), copied.end());
    writeLabels(ctx, dst, into);
}

}  // namespace Orvane::PDF::Pdfium
