#include <cstring>
#include <vector>

#include "engine/Engine.h"

namespace Orvane::PDF::Util {
namespace {

// A bitmap over memory of its own, drawn and read through the engine's
// ordinary buffer bitmap.
class OwnedBitmap : public IBitmap {
public:
    OwnedBitmap(std::vector<unsigned char> pixels, std::unique_ptr<IBitmap> view)
        : pixels_(std::move(pixels)), view_(std::move(view)) {}

    Size GetSize() const override { return view_->GetSize(); }
    void FillRect(int left, int top, int width, int height, uint32_t argb) override {
        view_->FillRect(left, top, width, height, argb);
    }
    DibFormat GetFormat() const override { return view_->GetFormat(); }
    int GetStride() const override { return view_->GetStride(); }
    unsigned char* GetBuffer() override { return view_->GetBuffer(); }
    const unsigned char* GetBuffer() const override { return view_->GetBuffer(); }

private:
    std::vector<unsigned char> pixels_;
    std::unique_ptr<IBitmap> view_;
};

}  // namespace

QImage ConvertToConvinientFormat(const QImage& image) {
    if (image.isNull()) return QImage();
    const QImage::Format wanted = image.hasAlphaChannel() ? QImage::Format_ARGB32_Premultiplied : QImage::Format_RGB32;
    return image.format() == wanted ? image : image.convertToFormat(wanted);
}

std::unique_ptr<IBitmap> CreateBitmapFromQImage(QImage& image) {
    if (image.isNull()) return nullptr;
    QImage source;
    IBitmap::DibFormat format;
    if (image.format() == QImage::Format_RGB32) {
        source = image;
        format = IBitmap::Bgrx;
    } else if (image.format() == QImage::Format_ARGB32) {
        source = image;
        format = IBitmap::Bgra;
    } else if (image.hasAlphaChannel()) {
        source = image.convertToFormat(QImage::Format_ARGB32);  // straight alpha
        format = IBitmap::Bgra;
    } else {
        source = image.convertToFormat(QImage::Format_RGB32);
        format = IBitmap::Bgrx;
    }
    if (source.isNull()) return nullptr;

    const int width = source.width();
    const int height = source.height();
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    std::vector<unsigned char> pixels(rowBytes * static_cast<size_t>(height));
    for (int y = 0; y < height; ++y) {
        unsigned char* row = pixels.data() + rowBytes * static_cast<size_t>(y);
        std::memcpy(row, source.constScanLine(y), rowBytes);
        if (format == IBitmap::Bgrx) {
            for (size_t x = 3; x < rowBytes; x += 4) row[x] = 0xFF;
        }
    }
    auto view = Pdfium::CreateBitmap(width, height, format, pixels.data(), static_cast<int>(rowBytes));
    if (!view) return nullptr;
    return std::make_unique<OwnedBitmap>(std::move(pixels), std::move(view));
}

}  // namespace Orvane::PDF::Util
