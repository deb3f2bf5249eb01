#pragma once

// Shared by the document and import tests: reading back what the engine
// wrote, from MuPDF's objects or from saved files.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PdfDocument.h"
#include "tests/support/EngineTest.h"

namespace QuirelleTest::DocumentSupport {

using Orvane::PDF::Pdfium::guarded;
using Orvane::PDF::Pdfium::PdfDocument;

inline std::shared_ptr<PdfDocument> NewDocument() { return std::make_shared<PdfDocument>(nullptr); }

inline std::shared_ptr<PdfDocument> OpenFile(const std::filesystem::path& path, const std::string& password = "") {
    return std::make_shared<PdfDocument>(nullptr, Orvane::ioPath(path), password);
}

inline fz_context* Ctx(Orvane::PDF::IDocument& document) {
    return dynamic_cast<PdfDocument&>(document).Core()->ctx;
}

inline pdf_obj* PageObject(Orvane::PDF::IDocument& document, int index) {
    const auto& core = dynamic_cast<PdfDocument&>(document).Core();
    return guarded(core->ctx, [&] { return pdf_lookup_page_obj(core->ctx, core->doc, index); });
}

// The first string a page's content shows ("Page 3"), empty if none.
inline std::string Label(Orvane::PDF::IDocument& document, int index) {
    fz_context* ctx = Ctx(document);
    pdf_obj* page = PageObject(document, index);
    pdf_obj* contents = guarded(ctx, [&] { return pdf_dict_get(ctx, page, PDF_NAME(Contents)); });
    if (contents == nullptr) return {};
    Orvane::PDF::Pdfium::BufferHandle buffer(ctx, guarded(ctx, [&] { return pdf_load_stream(ctx, contents); }));
    unsigned char* data = nullptr;
    const size_t length = fz_buffer_storage(ctx, buffer.get(), &data);
    const std::string content(reinterpret_cast<const char*>(data), length);
    const size_t open = content.find('('), close = content.find(')', open);
    return close == std::string::npos ? std::string() : content.substr(open + 1, close - open - 1);
}

inline std::vector<std::string> Labels(Orvane::PDF::IDocument& document) {
    std::vector<std::string> labels;
    for (unsigned i = 0; i < document.GetPageCount(); ++i) labels.push_back(Label(document, int(i)));
    return labels;
}

// Width and height of the page's (possibly inherited) media box.
inline std::pair<double, double> MediaSize(Orvane::PDF::IDocument& document, int index) {
    fz_context* ctx = Ctx(document);
    pdf_obj* page = PageObject(document, index);
    const fz_rect box =
        guarded(ctx, [&] { return pdf_to_rect(ctx, pdf_dict_get_inheritable(ctx, page, PDF_NAME(MediaBox))); });
    return {box.x1 - box.x0, box.y1 - box.y0};
}

// Whether the page dictionary itself (not an ancestor) has the key.
inline bool HasOwn(Orvane::PDF::IDocument& document, int index, const char* key) {
    pdf_obj* page = PageObject(document, index);
    return guarded(Ctx(document), [&] { return pdf_dict_gets(Ctx(document), page, key) != nullptr; });
}

struct FileObjects {
    int fonts = 0, images = 0, imagesWithSMask = 0, unfilteredImages = 0, pages = 0;
};

// Counts the objects of a saved file by kind.
inline FileObjects CountObjects(const std::filesystem::path& path) {
    auto document = OpenFile(path);
    fz_context* ctx = document->Core()->ctx;
    pdf_document* doc = document->Core()->doc;
    FileObjects n;
    const int objects = guarded(ctx, [&] { return pdf_xref_len(ctx, doc); });
    for (int num = 1; num < objects; ++num) {
        Orvane::PDF::Pdfium::PdfObjHandle obj(ctx, guarded(ctx, [&] { return pdf_load_object(ctx, doc, num); }));
        const FileObjects one = guarded(ctx, [&] {
            FileObjects k;
            const int image = pdf_name_eq(ctx, pdf_dict_get(ctx, obj.get(), PDF_NAME(Subtype)), PDF_NAME(Image));
            k.fonts = pdf_name_eq(ctx, pdf_dict_get(ctx, obj.get(), PDF_NAME(Type)), PDF_NAME(Font));
            k.pages = pdf_name_eq(ctx, pdf_dict_get(ctx, obj.get(), PDF_NAME(Type)), PDF_NAME(Page));
            k.images = image;
            k.imagesWithSMask = image && pdf_dict_get(ctx, obj.get(), PDF_NAME(SMask)) != nullptr;
            k.unfilteredImages = image && pdf_dict_get(ctx, obj.get(), PDF_NAME(Filter)) == nullptr;
            return k;
        });
        n.fonts += one.fonts;
        n.pages += one.pages;
        n.images += one.images;
        n.imagesWithSMask += one.imagesWithSMask;
        n.unfilteredImages += one.unfilteredImages;
    }
    return n;
}

// qpdf's structural check finds neither errors nor warnings.
inline bool QpdfClean(const std::filesystem::path& path) {
    return std::system(("qpdf --check '" + path.string() + "' > /dev/null 2>&1").c_str()) == 0;
}

// A file of the given objects (object 1 the catalog) with a correct xref.
inline std::string HandMadePdf(const std::vector<std::string>& objects) {
    std::string out = "%PDF-1.7\n";
    std::vector<size_t> offsets;
    for (size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(out.size());
        out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const size_t xref = out.size();
    out += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t offset : offsets) {
        char entry[24];
        std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", offset);
        out += entry;
    }
    return out + "trailer\n<< /Size " + std::to_string(objects.size() + 1) + " /Root 1 0 R >>\nstartxref\n" +
           std::to_string(xref) + "\n%%EOF\n";
}

// 32-bit pixels in memory, B G R A (or x) bytes.
class TestBitmap : public Orvane::PDF::IBitmap {
public:
    TestBitmap(int width, int height, DibFormat format, uint32_t bgra = 0)
        : width_(width), height_(height), format_(format), stride_(width * 4 + 4),
          pixels_(size_t(stride_) * size_t(height)) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                for (int c = 0; c < 4; ++c) pixels_[size_t(y * stride_ + x * 4 + c)] = uint8_t(bgra >> (24 - 8 * c));
            }
        }
    }
    Orvane::PDF::Size GetSize() const override { return {double(width_), double(height_)}; }
    void FillRect(int, int, int, int, uint32_t) override {}
    DibFormat GetFormat() const override { return format_; }
    int GetStride() const override { return stride_; }
    unsigned char* GetBuffer() override { return pixels_.data(); }
    const unsigned char* GetBuffer() const override { return pixels_.data(); }
    void SetStride(int stride) { stride_ = stride; }

private:
    int width_, height_;
    DibFormat format_;
    int stride_;
    std::vector<unsigned char> pixels_;
};

}  // namespace QuirelleTest::DocumentSupport
