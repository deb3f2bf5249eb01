#pragma once

// Shared by the engine tests: opening built files, reading back what the
// engine wrote or drew, and hand-written files for what PdfBuilder cannot make.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "engine/DocumentCore.h"
#include "engine/Engine.h"
#include "engine/Guarded.h"
#include "engine/PdfDocument.h"
#include "engine/Watchdog.h"
#include "tests/support/EngineTest.h"

namespace QuirelleTest {

using namespace Orvane::PDF;
using Pdfium::guarded;
using Strings = std::vector<std::string>;

inline std::shared_ptr<Pdfium::PdfDocument> OpenFile(const std::filesystem::path& path,
                                                     const std::string& password = "") {
    return std::make_shared<Pdfium::PdfDocument>(nullptr, Orvane::ioPath(path), password);
}

// The first line of each page's text ("" for a page without text).
inline Strings Labels(const IDocument& document) {
    Strings labels;
    for (unsigned i = 0; i < document.GetPageCount(); ++i) {
        const std::wstring text = document.GetPage(i)->GetTextObject()->GetText();
        labels.emplace_back(text.begin(), std::find(text.begin(), text.end(), L'\n'));
    }
    return labels;
}

// Objects of a saved file whose /Type or /Subtype is the name (Font, Image...).
inline int CountObjects(const std::filesystem::path& path, const char* name) {
    auto document = OpenFile(path);
    fz_context* ctx = document->Core()->ctx;
    pdf_document* doc = document->Core()->doc;
    return guarded(ctx, [&] {
        int count = 0;
        for (int num = 1; num < pdf_xref_len(ctx, doc); ++num) {
            pdf_obj* obj = pdf_load_object(ctx, doc, num);
            count += !strcmp(pdf_dict_get_name(ctx, obj, PDF_NAME(Type)), name) ||
                     !strcmp(pdf_dict_get_name(ctx, obj, PDF_NAME(Subtype)), name);
            pdf_drop_obj(ctx, obj);
        }
        return count;
    });
}

// A rendered picture: the bitmap is filled with fill first, as the service
// does; the bytes past each row's width must stay untouched.
class Picture {
public:
    Picture(const std::shared_ptr<IPage>& page, int width, int height, bool print = false, uint32_t fill = 0xFFFFFFFF)
        : stride_(width * 4 + 8), bytes_(size_t(stride_) * size_t(height), 0xAB) {
        std::shared_ptr<IBitmap> bitmap = Pdfium::CreateBitmap(width, height, IBitmap::Bgrx, bytes_.data(), stride_);
        bitmap->FillRect(0, 0, width, height, fill);
        Pdfium::CreatePageRenderer()->Render(page, bitmap, print);
        for (int y = 0; y < height; ++y) EXPECT_EQ(At(width, y), 0xABABABABu) << "padding of row " << y;
    }
    // 0xAARRGGBB at column x, row y from the top.
    uint32_t At(int x, int y) const {
        const unsigned char* p = &bytes_[size_t(y) * size_t(stride_) + size_t(x) * 4];
        return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
    }

private:
    int stride_;
    std::vector<unsigned char> bytes_;
};

// The page drawn over white at width x height, within a request's budget as
// the service draws it; throws what the renderer throws.
inline QImage Render(const std::shared_ptr<IPage>& page, int width, int height) {
    QImage picture(width, height, QImage::Format_RGB32);
    picture.fill(Qt::white);
    const Pdfium::RequestBudget budget;
    Pdfium::CreatePageRenderer()->Render(
        page, Pdfium::CreateBitmap(width, height, IBitmap::Bgrx, picture.bits(), int(picture.bytesPerLine())), false);
    return picture;
}

constexpr uint32_t kWhite = 0xFFFFFFFF, kRed = 0xFFFF0000, kBlue = 0xFF0000FF;

class FileTest : public EngineTest {
protected:
    std::shared_ptr<Pdfium::PdfDocument> Open(const std::string& bytes, const std::string& password = "") {
        const auto path = temp.File("file" + std::to_string(files_++) + ".pdf");
        WriteFile(path, bytes);
        return OpenFile(path, password);
    }
    std::shared_ptr<Pdfium::PdfDocument> Open(const PdfBuilder& builder, const std::string& password = "") {
        return Open(builder.Build(), password);
    }
    // The first page of a one-page file (a page keeps what it needs of its document).
    std::shared_ptr<IPage> FirstPage(const PageLayout& page) { return Open(PdfBuilder().AddPage(page))->GetPage(0); }

private:
    int files_ = 0;
};

}  // namespace QuirelleTest
