#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

#include "engine/Engine.h"

namespace Orvane::PDF::Pdfium {
namespace {

// 32-bit pixels in memory the caller owns; the engine draws straight into it.
class BufferBitmap : public IBitmap {
public:
    BufferBitmap(int width, int height, DibFormat format, unsigned char* buffer, int stride)
        : width_(width), height_(height), format_(format), buffer_(buffer), stride_(stride) {}

    Size GetSize() const override { return Size{static_cast<double>(width_), static_cast<double>(height_)}; }

    void FillRect(int left, int top, int width, int height, uint32_t argb) override {
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
        const size_t rowBytes = static_cast<size_t>(x1 - x0) * 4;
        const bool uniform = pixel[0] == pixel[1] && pixel[1] == pixel[2] && pixel[2] == pixel[3];
        if (uniform && x0 == 0 && x1 == width_ && stride_ == width_ * 4) {
            // The common case, a whole picture cleared to white: one pass.
            std::memset(Row(y0), pixel[0], rowBytes * static_cast<size_t>(y1 - y0));
            return;
        }
        unsigned char* first = Row(y0) + x0 * 4;
        if (uniform) {
            std::memset(first, pixel[0], rowBytes);
        } else {
            for (size_t i = 0; i < rowBytes; i += 4) std::memcpy(first + i, pixel, 4);
        }
        for (long long y = y0 + 1; y < y1; ++y) std::memcpy(Row(y) + x0 * 4, first, rowBytes);
    }

    DibFormat GetFormat() const override { return format_; }
    int GetStride() const override { return stride_; }
    unsigned char* GetBuffer() override { return buffer_; }
    const unsigned char* GetBuffer() const override { return buffer_; }

private:
    unsigned char* Row(long long y) const { return buffer_ + static_cast<ptrdiff_t>(y) * stride_; }

    const int width_;
    const int height_;
    const DibFormat format_;
    unsigned char* const buffer_;
    const int stride_;
};

}  // namespace

std::unique_ptr<IBitmap> CreateBitmap(int width, int height, IBitmap::DibFormat format, unsigned char* buffer,
                                      int stride) {
    if (buffer == nullptr || width <= 0 || height <= 0) return nullptr;
    if (format != IBitmap::Bgrx && format != IBitmap::Bgra) return nullptr;
    if (width > INT_MAX / 4 || stride < width * 4) return nullptr;
    return std::make_unique<BufferBitmap>(width, height, format, buffer, stride);
}

}  // namespace Orvane::PDF::Pdfium
