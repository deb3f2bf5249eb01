// Page labels from the catalog's /PageLabels number tree. MuPDF reads no
// page labels of its own.

#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"
#include "engine/Reading.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Numbers above this are written in decimal whatever the style: nobody
// reads a roman numeral of a hundred M's, and letters would repeat as long.
constexpr long long kLongestStyledNumber = 10'000;
// A number tree with more entries or levels than this is cut there.
constexpr int kMaxRanges = 1 << 20;
constexpr int kMaxTreeDepth = 32;

// One range as the tree gives it: labels from page start on. Pointers are
// borrowed from the document.
struct RangeRead {
    int start;
    char style;
    const char* prefix;
    long long first;
};

struct Range {
    int start;
    char style;
    std::string prefix;
    long long first;
};

std::string roman(long long n, bool upper) {
    static const struct {
        int value;
        const char* digits;
    } kDigits[] = {{1000, "m"}, {900, "cm"}, {500, "d"}, {400, "cd"}, {100, "c"}, {90, "xc"}, {50, "l"},
                   {40, "xl"},  {10, "x"},   {9, "ix"},  {5, "v"},    {4, "iv"},  {1, "i"}};
    std::string out;
    for (const auto& digit : kDigits) {
        for (; n >= digit.value; n -= digit.value) out += digit.digits;
    }
    if (upper) std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::toupper(c); });
    return out;
}

// A, B, ... Z, AA, BB, ... ZZ, AAA...
std::string letters(long long n, bool upper) {
    const char letter = static_cast<char>((upper ? 'A' : 'a') + (n - 1) % 26);
    return std::string(static_cast<size_t>((n - 1) / 26 + 1), letter);
}

class TreeReader {
public:
    explicit TreeReader(fz_context* ctx) : ctx_(ctx) {}

    // Collects the ranges of node and its kids; a node seen before is skipped.
    void Read(pdf_obj* node, int depth) {
        if (depth > kMaxTreeDepth || ranges_.size() >= kMaxRanges) return Cut();
        const int number = guarded(ctx_, [&] { return pdf_is_indirect(ctx_, node) ? pdf_to_num(ctx_, node) : 0; });
        if (number > 0 && !seen_.insert(number).second) return Cut();
        const int count = guarded(ctx_, [&] { return pdf_array_len(ctx_, pdf_dict_get(ctx_, node, PDF_NAME(Nums))); });
        for (int i = 0; i + 1 < count && ranges_.size() < kMaxRanges; i += 2) {
            const RangeRead read = guarded(ctx_, [&] {
                RangeRead r{-1, 0, nullptr, 1};
                pdf_obj* nums = pdf_dict_get(ctx_, node, PDF_NAME(Nums));
                pdf_obj* key = pdf_array_get(ctx_, nums, i);
                pdf_obj* label = pdf_array_get(ctx_, nums, i + 1);
                if (!pdf_is_int(ctx_, key) || !pdf_is_dict(ctx_, label)) return r;
                r.start = pdf_to_int(ctx_, key);
                pdf_obj* style = pdf_dict_get(ctx_, label, PDF_NAME(S));
                if (pdf_is_name(ctx_, style)) r.style = pdf_to_name(ctx_, style)[0];
                pdf_obj* prefix = pdf_dict_get(ctx_, label, PDF_NAME(P));
                if (pdf_is_string(ctx_, prefix)) r.prefix = pdf_to_text_string(ctx_, prefix);
                pdf_obj* first = pdf_dict_gets(ctx_, label, "St");
                if (pdf_is_int(ctx_, first) && pdf_to_int(ctx_, first) >= 1) r.first = pdf_to_int(ctx_, first);
                return r;
            });
            if (read.start < 0) continue;
            ranges_.push_back({read.start, read.style, read.prefix ? read.prefix : "", read.first});
        }
        const int kids = guarded(ctx_, [&] { return pdf_array_len(ctx_, pdf_dict_get(ctx_, node, PDF_NAME(Kids))); });
        for (int i = 0; i < kids; ++i) {
            pdf_obj* kid = guarded(ctx_, [&] { return pdf_array_get(ctx_, pdf_dict_get(ctx_, node, PDF_NAME(Kids)), i); });
            Read(kid, depth + 1);
        }
    }

    std::vector<Range> Take() {
        // The tree is sorted by its keys; a damaged one may not be.
        std::stable_sort(ranges_.begin(), ranges_.end(),
                         [](const Range& a, const Range& b) { return a.start < b.start; });
        return std::move(ranges_);
    }

private:
    void Cut() {
        if (!cut_) LOG(WARNING) << "page labels: a damaged number tree cut (a loop, or too deep or large)";
        cut_ = true;
    }

    fz_context* ctx_;
    std::vector<Range> ranges_;
    std::unordered_set<int> seen_;
    bool cut_ = false;
};

std::string trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

}  // namespace

std::string FormatPageLabel(char style, const std::string& prefix, long long number) {
    if (number < 1) number = 1;
    const bool styled = number <= kLongestStyledNumber;
    switch (style) {
        case 'D':
            return prefix + std::to_string(number);
        case 'R':
        case 'r':
            return prefix + (styled ? roman(number, style == 'R') : std::to_string(number));
        case 'A':
        case 'a':
            return prefix + (styled ? letters(number, style == 'A') : std::to_string(number));
        default:
            return prefix;
    }
}

std::vector<std::string> ReadPageLabels(const IDocument& document) {
    const auto* pdf = dynamic_cast<const PdfDocument*>(&document);
    if (pdf == nullptr) throw std::invalid_argument("the document is not one of this engine's");
    const DocumentCore& core = *pdf->Core();
    fz_context* ctx = core.ctx;
    struct Top {
        pdf_obj* tree;
    };
    const Top top = guarded(ctx, [&] {
        pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, core.doc), PDF_NAME(Root));
        return Top{pdf_dict_gets(ctx, root, "PageLabels")};
    });
    // The pages the tree holds: a count its nodes claim is no bound.
    const int pages = PagesHeld(ctx, core.doc, ReadPageTree(ctx, core.doc));
    std::vector<std::string> labels;
    labels.reserve(static_cast<size_t>(std::max(pages, 0)));
    std::vector<Range> ranges;
    if (top.tree) {
        TreeReader reader(ctx);
        reader.Read(top.tree, 0);
        ranges = reader.Take();
    }
    size_t next = 0;
    const Range* current = nullptr;
    for (int page = 0; page < pages; ++page) {
        while (next < ranges.size() && ranges[next].start <= page) current = &ranges[next++];
        if (current == nullptr) {
            labels.push_back(std::to_string(page + 1));
        } else {
            labels.push_back(FormatPageLabel(current->style, current->prefix, current->first + (page - current->start)));
        }
    }
    return labels;
}

int FindPageByLabel(const std::vector<std::string>& labels, const std::string& typed) {
    const std::string label = trim(typed);
    if (label.empty()) return -1;
    for (size_t i = 0; i < labels.size(); ++i) {
        if (labels[i] == label) return static_cast<int>(i);
    }
    auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
        return text;
    };
    const std::string folded = lower(label);
    for (size_t i = 0; i < labels.size(); ++i) {
        if (lower(labels[i]) == folded) return static_cast<int>(i);
    }
    if (label.find_first_not_of("0123456789") == std::string::npos && label.size() < 10) {
        const long long number = std::stoll(label);
        if (number >= 1 && number <= static_cast<long long>(labels.size())) return static_cast<int>(number - 1);
    }
    return -1;
}

}  // namespace Orvane::PDF::Pdfium
