#pragma once

// The engine's factories and the interfaces only the service uses: renderer,
// importer and the picture conversions. All of it runs on a thread that has
// called PdfiumInitializer::InitLibrary().

#include <QImage>
#include <memory>
#include <vector>

#include "orvane/pdf/Document.h"

namespace Orvane::PDF {

class IPageRenderer {
public:
    virtual ~IPageRenderer() = default;
    // Draws the page as displayed (rotation applied), its crop box scaled to
    // the whole bitmap, over what the bitmap holds. flag renders for printing
    // (annotations and optional content as they print).
    virtual void Render(const std::shared_ptr<IPage>& page, const std::shared_ptr<IBitmap>& target, bool flag) = 0;
};

class IPageImporter {
public:
    virtual ~IPageImporter() = default;
    // Copies the listed pages of source, in list order and with duplicates,
    // into target, the first copy landing at insertIndex (0 to the page count
    // inserts before that page, anything else appends). Resources the pages
    // share are copied once per call. source is not changed. Empty handles
    // throw std::invalid_argument, a page index out of range std::out_of_range.
    virtual void ImportPages(const std::shared_ptr<IDocument>& source, const std::vector<unsigned>& pages,
                             const std::shared_ptr<IDocument>& target, int insertIndex) = 0;
    virtual void ImportAllPages(const std::shared_ptr<IDocument>& source, const std::shared_ptr<IDocument>& target,
                                int insertIndex) = 0;
};

namespace Pdfium {

std::unique_ptr<IPageRenderer> CreatePageRenderer();
std::unique_ptr<IPageImporter> CreatePageImporter();
// Moves the listed pages (ascending, each once) of a PDF document to
// destination, counted as before the move (after the last page when it is
// past the pages that stay). The page objects themselves
// move, so whatever refers to them (outline, form fields, links, structure)
// follows. std::out_of_range for a page that does not exist.
void MovePages(const std::shared_ptr<IDocument>& document, const std::vector<unsigned>& pages, unsigned destination);
// A bitmap over the caller's buffer of height rows of stride bytes, which must
// outlive it; no copy. Empty for a format other than Bgrx or Bgra, a size not
// above zero or a stride too small for the width.
std::unique_ptr<IBitmap> CreateBitmap(int width, int height, IBitmap::DibFormat format, unsigned char* buffer,
                                      int stride);

}  // namespace Pdfium

namespace Util {

// The picture in a format CreateBitmapFromQImage takes: Format_RGB32 for an
// opaque picture, Format_ARGB32_Premultiplied for one with alpha. A null
// picture stays null.
QImage ConvertToConvinientFormat(const QImage& image);
// A bitmap that owns a copy of the picture's pixels: Bgrx for Format_RGB32,
// Bgra (straight alpha) for Format_ARGB32 and premultiplied pictures. Empty
// for a null picture.
std::unique_ptr<IBitmap> CreateBitmapFromQImage(QImage& image);

}  // namespace Util
}  // namespace Orvane::PDF
