#include "engine/Bitmap.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <utility>

#include "engine/Engine.h"

namespace Orvane::PDF::Pdfium {

void ClearRows(unsigned char* pixels, int width, int stride, int top, int bottom, unsigned char value) {
    if (top >= bottom) return;
    const size_t rowBytes = size_t(width) * 4;
    unsigned char* first = pixels + ptrdiff_t(top) * stride;
    if (size_t(stride) == rowBytes) {
        std::memset(first, value, rowBytes * size_t(bottom - top));
        return;
    }
    for (int y = top; y < bottom; ++y, first += stride) std::memset(first, value, rowBytes);
}

BufferBitmap::BufferBitmap(int width, int height, DibFormat format, unsigned char* buffer, int stride)
    : width_(width), height_(height), format_(format), buffer_(buffer), stride_(stride) {}

Size BufferBitmap::GetSize() const {
    return Size{static_cast<double>(width_), static_cast<double>(height_)};
}

void BufferBitmap::FillRect(int left, int top, int width, int height, uint32_t argb) {
    const long long x0 = std::max<long long>(left, 0);
    const long long y0 = std::max<long long>(top, 0);
    const long long x1 = std::min<long long>(static_cast<long long>(left) + std::max(width, 0), width_);
    const long long y1 = std::min<long long>(static_cast<long long>(top) + std::max(height, 0), height_);
    if (x0 >= x1 || y0 >= y1) return;

    // B G R A in memory; a Bgrx pixel is always opaque.
    const unsigned char pixel[4] = {
        static_cast<unsigned char>(argb),
        static_cast<unsigned char>(argb >> 8),
        static_cast<unsigned char>(argb >> 16),
        format_ == Bgrx ? static_cast<unsigned char>(0xFF) : static_cast<unsigned char>(argb >> 24),
    };
    const bool uniform = pixel[0] == pixel[1] && pixel[1] == pixel[2] && pixel[2] == pixel[3];
    if (uniform && x0 == 0 && y0 == 0 && x1 == width_ && y1 == height_) {
        clear_ = pixel[0];  // covers any clear put off before
        return;
    }
    FinishClear();
    Fill(x0, y0, x1, y1, pixel);
}

unsigned char* BufferBitmap::GetBuffer() {
    FinishClear();
    return buffer_;
}

const unsigned char* BufferBitmap::GetBuffer() const {
    FinishClear();
    return buffer_;
}

std::optional<unsigned char> BufferBitmap::TakeClear() {
    return std::exchange(clear_, std::nullopt);
}

void BufferBitmap::Fill(long long x0, long long y0, long long x1, long long y1, const unsigned char pixel[4]) const {
    const size_t rowBytes = static_cast<size_t>(x1 - x0) * 4;
    unsigned char* first = Row(y0) + x0 * 4;
    if (pixel[0] == pixel[1] && pixel[1] == pixel[2] && pixel[2] == pixel[3]) {
        std::memset(first, pixel[0], rowBytes);
    } else {
        for (size_t i = 0; i < rowBytes; i += 4) std::memcpy(first + i, pixel, 4);
    }
    for (long long y = y0 + 1; y < y1; ++y) std::memcpy(Row(y) + x0 * 4, first, rowBytes);
}

void BufferBitmap::FinishClear() const {
    if (const auto value = std::exchange(clear_, std::nullopt)) ClearRows(buffer_, width_, stride_, 0, height_, *value);
}

unsigned char* BufferBitmap::Row(long long y) const {
    return buffer_ + static_cast<ptrdiff_t>(y) * stride_;
}

std::unique_ptr<IBitmap> CreateBitmap(int width, int height, IBitmap::DibFormat format, unsigned char* buffer,
                                      int stride) {
    if (buffer == nullptr || width <= 0 || height <= 0) return nullptr;
    if (format != IBitmap::Bgrx && format != IBitmap::Bgra) return nullptr;
    if (width > INT_MAX / 4 || stride < width * 4) return nullptr;
    return std::make_unique<BufferBitmap>(width, height, format, buffer, stride);
}

}  // namespace Orvane::PDF::Pdfium
