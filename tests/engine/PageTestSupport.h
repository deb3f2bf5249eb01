#pragma once

// Shared by the page, link, text and render tests: opening built files, and
// hand-written files for what PdfBuilder does not make.

#include <cstdio>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/PdfDocument.h"
#include "tests/support/EngineTest.h"

namespace QuirelleTest {

// A file of the given objects, numbered from 1 (object 1 the catalog).
inline std::string RawPdf(const std::vector<std::string>& objects) {
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

inline std::string Stream(const std::string& entries, const std::string& data) {
    return "<< " + entries + " /Length " + std::to_string(data.size()) + " >>\nstream\n" + data + "\nendstream";
}

// A one-page file: catalog, page tree, the page (its extra entries given)
// and its contents; further objects are numbered from 5.
inline std::string OnePage(const std::string& pageEntries, const std::string& content,
                           const std::vector<std::string>& more = {}) {
    std::vector<std::string> objects{"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 1 /Kids [3 0 R] >>",
                                     "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Contents 4 0 R " +
                                         pageEntries + " >>",
                                     Stream("", content)};
    objects.insert(objects.end(), more.begin(), more.end());
    return RawPdf(objects);
}

inline LinkSpec Link(const Rect& rect) {
    LinkSpec link;
    link.rect = rect;
    return link;
}

inline AnnotationSpec Annotation(const std::string& subtype, const Rect& rect, int flags = 4,
                                 std::optional<uint32_t> fillRgb = std::nullopt) {
    AnnotationSpec annotation;
    annotation.subtype = subtype;
    annotation.rect = rect;
    annotation.flags = flags;
    annotation.fillRgb = fillRgb;
    return annotation;
}

class PageTest : public EngineTest {
protected:
    std::shared_ptr<Orvane::PDF::IDocument> Open(const PdfBuilder& builder) { return OpenBytes(builder.Build()); }
    std::shared_ptr<Orvane::PDF::IDocument> OpenBytes(const std::string& bytes) {
        const auto path = temp.File("file" + std::to_string(files_++) + ".pdf");
        WriteFile(path, bytes);
        return std::make_shared<Orvane::PDF::Pdfium::PdfDocument>(nullptr, path, "");
    }
    // The first page of a one-page file; the document lives until TearDown.
    std::shared_ptr<Orvane::PDF::IPage> FirstPage(const PageSpec& page) {
        document_ = Open(PdfBuilder().AddPage(page));
        return document_->GetPage(0);
    }
    void TearDown() override {
        document_.reset();
        EngineTest::TearDown();
    }

private:
    std::shared_ptr<Orvane::PDF::IDocument> document_;
    int files_ = 0;
};

}  // namespace QuirelleTest
