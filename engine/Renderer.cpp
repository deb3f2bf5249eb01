#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <stdexcept>
#include <string>

#include "engine/Context.h"
#include "engine/Engine.h"
#include "engine/FontLoader.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/ImageLimit.h"
#include "engine/PdfPage.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

class PageRenderer : public IPageRenderer {
public:
    void Render(const std::shared_ptr<IPage>& page, const std::shared_ptr<IBitmap>& target, bool flag) override {
        if (!page || !target) throw std::invalid_argument("Render: no page or no bitmap");
        auto* pdfPage = dynamic_cast<PdfPage*>(page.get());
        if (pdfPage == nullptr) throw std::invalid_argument("Render: the page is not one of this engine's");
        const IBitmap::DibFormat format = target->GetFormat();
        if (format != IBitmap::Bgrx && format != IBitmap::Bgra) {
            throw std::invalid_argument("Render: the bitmap is not 32-bit BGR");
        }
        const Size size = target->GetSize();
        const int width = static_cast<int>(size.width);
        const int height = static_cast<int>(size.height);
        const int stride = target->GetStride();
        unsigned char* pixels = target->GetBuffer();
        if (width <= 0 || height <= 0 || pixels == nullptr || width > stride / 4) {
            throw std::invalid_argument("Render: unusable bitmap");
        }

        fz_context* ctx = pdfPage->Context();
        pdf_page* native = pdfPage->Native();
        ScopedFontProvider fonts(pdfPage->Core()->fonts.get());
        const RequestBudget budget;
        // A decoded image may be as large as a few times the bitmap (drawn
        // from a finer picture); one beyond that cannot show more detail.
        RequestBudget::AllowBlocksOf(size_t(stride) * size_t(height) * 4);

        // The page as displayed (rotation applied), its crop box stretched
        // over the whole bitmap.
        const fz_rect bounds = guarded(ctx, [&] { return pdf_bound_page(ctx, native); });
        const float pageWidth = bounds.x1 - bounds.x0;
        const float pageHeight = bounds.y1 - bounds.y0;
        if (!(pageWidth > 0) || !(pageHeight > 0)) return;
        const fz_matrix ctm =
            fz_concat(fz_translate(-bounds.x0, -bounds.y0), fz_scale(width / pageWidth, height / pageHeight));

        // Drawn straight into the caller's memory: B G R and an alpha byte
        // that the caller's opaque background keeps at 0xFF.
        PixmapHandle pixmap(ctx, guarded(ctx, [&] {
                                return fz_new_pixmap_with_data(ctx, fz_device_bgr(ctx), width, height, nullptr, 1,
                                                               stride, pixels);
                            }));
        DeviceHandle device(ctx, guarded(ctx, [&] { return fz_new_draw_device(ctx, fz_identity, pixmap.get()); }));
        LimitImageDecoding(device.get());
        const char* usage = flag ? "Print" : "View";
        // With a cookie MuPDF counts a failing operator and stops the page
        // there instead of throwing: a damaged page shows what it can. The
        // deadline aborts a page that would run without end.
        fz_cookie cookie{};
        const Deadline deadline(cookie, PageTimeBudget());
        guarded(ctx, [&] {
            pdf_run_page_with_usage(ctx, native, device.get(), ctm, usage, &cookie);
            fz_close_device(ctx, device.get());
        });
        if (deadline.Expired()) {
            throw Orvane::Exception("page " + std::to_string(native->super.number) + ": rendering took longer than " +
                                    std::to_string(PageTimeBudget().count()) + " ms");
        }
        if (cookie.errors > 0) {
            // MuPDF recovered; a viewer renders the page again and again, so
            // this stays out of the default log.
            VLOG(1) << "page " << native->super.number << ": rendered with " << cookie.errors << " error(s)";
        }
    }
};

}  // namespace

std::unique_ptr<IPageRenderer> CreatePageRenderer() {
    return std::make_unique<PageRenderer>();
}

}  // namespace Orvane::PDF::Pdfium
