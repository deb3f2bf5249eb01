// New pages: blank, or showing a bitmap (converted to the engine's pixmaps).

#include <mupdf/pdf.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "engine/Context.h"
#include "engine/DocumentCore.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PageTree.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF::Pdfium {
namespace {

// Copies the bitmap's pixels into new pixmaps: colour (RGB or gray) and,
// for a bitmap with alpha that is not fully opaque, the alpha as gray.
struct ImagePixmaps {
    PixmapHandle colour;
    PixmapHandle alpha;
};

ImagePixmaps pixmapsFromBitmap(fz_context* ctx, const IBitmap& bitmap) {
    const Size size = bitmap.GetSize();
    const IBitmap::DibFormat format = bitmap.GetFormat();
    const unsigned char* pixels = bitmap.GetBuffer();
    const int stride = bitmap.GetStride();
    if (!(size.width >= 1 && size.height >= 1 && size.width < 1e9 && size.height < 1e9) || pixels == nullptr) {
        throw std::invalid_argument("the bitmap is empty");
    }
    const int width = int(size.width);
    const int height = int(size.height);
    int bytesPerPixel = 0;
    switch (format) {
        case IBitmap::Gray:
            bytesPerPixel = 1;
            break;
        case IBitmap::Bgr:
            bytesPerPixel = 3;
            break;
        case IBitmap::Bgrx:
        case IBitmap::Bgra:
            bytesPerPixel = 4;
            break;
        default:
            throw std::invalid_argument("unknown bitmap format " + std::to_string(int(format)));
    }
    if (stride < 0 || int64_t(stride) < int64_t(width) * bytesPerPixel) {
        throw std::invalid_argument("the bitmap's stride is too small for its width");
    }

    ImagePixmaps result;
    const bool gray = format == IBitmap::Gray;
    result.colour = PixmapHandle(ctx, guarded(ctx, [&] {
                                     return fz_new_pixmap(ctx, gray ? fz_device_gray(ctx) : fz_device_rgb(ctx), width,
                                                          height, NULL, 0);
                                 }));
    fz_pixmap* colour = result.colour.get();
    for (int y = 0; y < height; ++y) {
        const unsigned char* src = pixels + size_t(y) * size_t(stride);
        unsigned char* dst = colour->samples + size_t(y) * size_t(colour->stride);
        if (gray) {
            std::memcpy(dst, src, size_t(width));
            continue;
        }
        for (int x = 0; x < width; ++x, src += bytesPerPixel, dst += 3) {
            dst[0] = src[2];
            dst[1] = src[1];
            dst[2] = src[0];
        }
    }

    if (format != IBitmap::Bgra) return result;
    bool opaque = true;
    for (int y = 0; y < height && opaque; ++y) {
        const unsigned char* src = pixels + size_t(y) * size_t(stride) + 3;
        for (int x = 0; x < width; ++x, src += 4) {
            if (*src != 255) {
                opaque = false;
                break;
            }
        }
    }
    if (opaque) return result;
    result.alpha = PixmapHandle(
        ctx, guarded(ctx, [&] { return fz_new_pixmap(ctx, fz_device_gray(ctx), width, height, NULL, 0); }));
    fz_pixmap* alpha = result.alpha.get();
    for (int y = 0; y < height; ++y) {
        const unsigned char* src = pixels + size_t(y) * size_t(stride) + 3;
        unsigned char* dst = alpha->samples + size_t(y) * size_t(alpha->stride);
        for (int x = 0; x < width; ++x, src += 4) dst[x] = *src;
    }
    return result;
}

void checkPageSize(double width, double height) {
    if (!(std::isfinite(width) && std::isfinite(height) && width > 0 && height > 0)) {
        throw std::invalid_argument("a page needs a width and a height above zero");
    }
}

// A number as PDF writes it: fixed notation (an exponent is not PDF syntax),
// without trailing zeros.
std::string pdfNumber(double value) {
    const int length = std::snprintf(nullptr, 0, "%.12f", value);
    std::string text(size_t(length) + 1, '\0');
    std::snprintf(text.data(), text.size(), "%.12f", value);
    text.resize(size_t(length));
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

// A new page of width x height showing contents, inserted before page
// index, or after the last page; answers where it went.
int insertPage(fz_context* ctx, pdf_document* doc, unsigned index, double width, double height, pdf_obj* resources,
               fz_buffer* contents) {
    const int count = PageCount(ctx, doc);
    const int at = index <= unsigned(count) ? int(index) : count;
    const fz_rect box = fz_make_rect(0, 0, float(width), float(height));
    PdfObjHandle page(ctx, guarded(ctx, [&] { return pdf_add_page(ctx, doc, box, 0, resources, contents); }));
    InsertPages(ctx, doc, at, {page.get()});
    return at;
}

}  // namespace

std::shared_ptr<IPage> PdfDocument::CreatePage(unsigned index, double width, double height) {
    checkPageSize(width, height);
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;
    BufferHandle contents(ctx, guarded(ctx, [&] { return fz_new_buffer(ctx, 1); }));
    PdfObjHandle resources(ctx, guarded(ctx, [&] { return pdf_new_dict(ctx, doc, 1); }));
    const int at = insertPage(ctx, doc, index, width, height, resources.get(), contents.get());
    RefreshPageCount();
    return MakePage(core_, unsigned(at));
}

std::shared_ptr<IPage> PdfDocument::CreatePageFromImage(unsigned index, const std::shared_ptr<IBitmap>& image,
                                                        double width, double height) {
    if (!image) throw std::invalid_argument("no bitmap for the page");
    checkPageSize(width, height);
    const RequestBudget budget;
    fz_context* ctx = core_->ctx;
    pdf_document* doc = core_->doc;

    ImagePixmaps pixmaps = pixmapsFromBitmap(ctx, *image);
    ImageHandle mask;
    if (pixmaps.alpha) {
        mask = ImageHandle(ctx, guarded(ctx, [&] { return fz_new_image_from_pixmap(ctx, pixmaps.alpha.get(), NULL); }));
    }
    ImageHandle picture(ctx,
                        guarded(ctx, [&] { return fz_new_image_from_pixmap(ctx, pixmaps.colour.get(), mask.get()); }));
    pixmaps = ImagePixmaps{};
    PdfObjHandle imageObj(ctx, guarded(ctx, [&] { return pdf_add_image(ctx, doc, picture.get()); }));
    picture.reset();
    mask.reset();

    PdfObjHandle resources(ctx, guarded(ctx, [&] { return pdf_new_dict(ctx, doc, 1); }));
    guarded(ctx, [&] {
        pdf_obj* xobjects = pdf_dict_put_dict(ctx, resources.get(), PDF_NAME(XObject), 1);
        pdf_dict_puts(ctx, xobjects, "Im0", imageObj.get());
    });
    const std::string drawing = "q " + pdfNumber(width) + " 0 0 " + pdfNumber(height) + " 0 0 cm /Im0 Do Q\n";
    BufferHandle contents(ctx, guarded(ctx, [&] {
                              return fz_new_buffer_from_copied_data(
                                  ctx, reinterpret_cast<const unsigned char*>(drawing.data()), drawing.size());
                          }));

    const int at = insertPage(ctx, doc, index, width, height, resources.get(), contents.get());
    RefreshPageCount();
    return MakePage(core_, unsigned(at));
}

}  // namespace Orvane::PDF::Pdfium
