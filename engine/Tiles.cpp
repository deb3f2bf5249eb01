// A piece of a page's picture at any zoom, drawn from the page's recording
// into memory the size of the piece: a pixmap placed where the piece lies in
// the whole picture, so that every pixel comes out as it does there.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>

#include "engine/Context.h"
#include "engine/DisplayListCache.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/ImageLimit.h"
#include "engine/PdfPage.h"
#include "engine/Reading.h"
#include "engine/ContentRun.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

bool finite(const Rect& r) {
    return std::isfinite(r.left) && std::isfinite(r.top) && std::isfinite(r.right) && std::isfinite(r.bottom);
}

// Where the tile lies in the page's whole picture, and the drawing's matrix.
struct Placement {
    fz_irect pixels;  // in the whole picture
    fz_matrix ctm;    // display space -> whole picture
};

}  // namespace

QImage RenderTile(const std::shared_ptr<IPage>& page, const Rect& region, double scale, bool print) {
    if (!page) throw std::invalid_argument("tile: no page");
    auto* pdfPage = dynamic_cast<PdfPage*>(page.get());
    if (pdfPage == nullptr) throw std::invalid_argument("tile: the page is not one of this engine's");
    if (!finite(region) || !(region.right > region.left) || !(region.top > region.bottom)) {
        throw std::invalid_argument("tile: the region is empty or not finite");
    }
    if (!std::isfinite(scale) || !(scale > 0)) throw std::invalid_argument("tile: the scale must be above zero");

    pdfPage->ThrowIfPastBudget();
    fz_context* ctx = pdfPage->Context();
    pdf_page* native = pdfPage->Native();
    ScopedFontProvider fonts(pdfPage->Core()->fonts.get());
    const RequestBudget budget;

    struct Frame {
        fz_rect bounds;      // the page as displayed
        fz_matrix toDisplay; // page space -> display space
    };
    const Frame frame = guarded(ctx, [&] {
        Frame f;
        fz_rect box;
        pdf_page_transform(ctx, native, &box, &f.toDisplay);
        f.bounds = pdf_bound_page(ctx, native);
        return f;
    });
    const float pageWidth = frame.bounds.x1 - frame.bounds.x0;
    const float pageHeight = frame.bounds.y1 - frame.bounds.y0;
    if (!(pageWidth > 0) || !(pageHeight > 0)) throw std::invalid_argument("tile: the page has no area");
    // The whole picture's size, and its matrix exactly as the page's
    // renderer makes it for a picture of that size.
    const double wholeWidth = std::round(double(pageWidth) * scale);
    const double wholeHeight = std::round(double(pageHeight) * scale);
    if (wholeWidth < 1 || wholeHeight < 1 || wholeWidth > 1e9 || wholeHeight > 1e9) {
        throw std::invalid_argument("tile: the scale " + std::to_string(scale) + " makes no usable picture");
    }
    Placement place;
    place.ctm = fz_concat(fz_translate(-frame.bounds.x0, -frame.bounds.y0),
                          fz_scale(float(wholeWidth) / pageWidth, float(wholeHeight) / pageHeight));
    const fz_rect pageRegion = fz_make_rect(float(region.left), float(region.bottom), float(region.right), float(region.top));
    const fz_rect device = fz_transform_rect(fz_transform_rect(pageRegion, frame.toDisplay), place.ctm);
    const fz_irect whole = fz_make_irect(0, 0, int(wholeWidth), int(wholeHeight));
    place.pixels = fz_intersect_irect(fz_round_rect(device), whole);
    if (fz_is_empty_irect(place.pixels)) throw std::invalid_argument("tile: the region lies outside the page");
    const int width = place.pixels.x1 - place.pixels.x0;
    const int height = place.pixels.y1 - place.pixels.y0;
    if (double(width) * height > kMaxTilePixels) {
        throw std::invalid_argument("tile: " + std::to_string(width) + " x " + std::to_string(height) +
                                    " pixels is too large a tile");
    }

    QImage tile(width, height, QImage::Format_RGB32);
    if (tile.isNull()) throw Orvane::Exception("tile: no memory for " + std::to_string(width) + " x " +
                                               std::to_string(height) + " pixels");
    tile.fill(0xFFFFFFFFu);
    RequestBudget::AllowBlocksOf(size_t(tile.bytesPerLine()) * size_t(height) * 4);

    std::optional<Recording> recording = PageRecording(*pdfPage, print);
    if (!recording) throw Orvane::Exception("page " + std::to_string(native->super.number) + ": cannot be recorded");
    const DisplayListHandle list(ctx, recording->list);

    PixmapHandle pixmap(ctx, guarded(ctx, [&] {
                            return fz_new_pixmap_with_data(ctx, fz_device_bgr(ctx), width, height, nullptr, 1,
                                                           int(tile.bytesPerLine()), tile.bits());
                        }));
    pixmap.get()->x = place.pixels.x0;
    pixmap.get()->y = place.pixels.y0;
    DeviceHandle drawer(ctx, guarded(ctx, [&] { return fz_new_draw_device(ctx, fz_identity, pixmap.get()); }));
    LimitImageDecoding(drawer.get());
    LimitTiling(drawer.get(), fz_rect_from_irect(place.pixels));
    LimitPaths(drawer.get(), fz_rect_from_irect(place.pixels));
    const ContentRun run = RunContent(PageTimeBudget(), [&](fz_cookie& cookie) {
        guarded(ctx, [&] {
            fz_run_display_list(ctx, list.get(), drawer.get(), place.ctm, fz_rect_from_irect(place.pixels), &cookie);
            fz_close_device(ctx, drawer.get());
        });
    });
    if (run.failure) std::rethrow_exception(run.failure);
    // A tile the limits cut short is no tile of the page.
    pdfPage->CheckRun("drawing a tile", run);
    return tile;
}

}  // namespace Orvane::PDF::Pdfium
