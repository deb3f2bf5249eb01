#pragma once

#include <cstdint>
#include <optional>

#include "orvane/pdf/Document.h"

namespace Orvane::PDF::Pdfium {

// 32-bit pixels in memory the caller owns; the engine draws straight into it.
//
// Clearing the whole bitmap to a colour of four equal bytes (opaque white,
// transparent black) is put off until the pixels are first asked for: the
// renderer takes the clear over and does it band by band, on the threads
// that draw the bands, instead of in one pass before drawing.
class BufferBitmap : public IBitmap {
public:
    BufferBitmap(int width, int height, DibFormat format, unsigned char* buffer, int stride);

    Size GetSize() const override;
    void FillRect(int left, int top, int width, int height, uint32_t argb) override;
    DibFormat GetFormat() const override { return format_; }
    int GetStride() const override { return stride_; }
    unsigned char* GetBuffer() override;
    const unsigned char* GetBuffer() const override;

    // The byte every pixel byte is still to be set to; the caller now owns
    // that clear. Nothing when no clear is put off.
    std::optional<unsigned char> TakeClear();

private:
    void Fill(long long x0, long long y0, long long x1, long long y1, const unsigned char pixel[4]) const;
    void FinishClear() const;
    unsigned char* Row(long long y) const;

    const int width_;
    const int height_;
    const DibFormat format_;
    unsigned char* const buffer_;
    const int stride_;
    mutable std::optional<unsigned char> clear_;
};

// Sets the first width * 4 bytes of rows [top, bottom) to value.
void ClearRows(unsigned char* pixels, int width, int stride, int top, int bottom, unsigned char value);

}  // namespace Orvane::PDF::Pdfium
