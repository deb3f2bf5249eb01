#pragma once

// Move-only owners of MuPDF handles: each holds (ctx, pointer) and calls the
// matching drop function, which never throws and accepts NULL.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <utility>

namespace Orvane::PDF::Pdfium {

template <class T, void (*Drop)(fz_context*, T*)>
class Handle {
public:
    Handle() = default;
    Handle(fz_context* ctx, T* ptr) noexcept : ctx_(ctx), ptr_(ptr) {}
    Handle(Handle&& other) noexcept : ctx_(other.ctx_), ptr_(std::exchange(other.ptr_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            reset();
            ctx_ = other.ctx_;
            ptr_ = std::exchange(other.ptr_, nullptr);
        }
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { reset(); }

    T* get() const noexcept { return ptr_; }
    fz_context* context() const noexcept { return ctx_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }
    T* release() noexcept { return std::exchange(ptr_, nullptr); }
    void reset() noexcept {
        if (ptr_ != nullptr) Drop(ctx_, std::exchange(ptr_, nullptr));
    }

private:
    fz_context* ctx_ = nullptr;
    T* ptr_ = nullptr;
};

using PdfDocumentHandle = Handle<pdf_document, pdf_drop_document>;
using PdfObjHandle = Handle<pdf_obj, pdf_drop_obj>;
using PageHandle = Handle<fz_page, fz_drop_page>;
using PdfGraftMapHandle = Handle<pdf_graft_map, pdf_drop_graft_map>;
using PixmapHandle = Handle<fz_pixmap, fz_drop_pixmap>;
using DeviceHandle = Handle<fz_device, fz_drop_device>;
using BufferHandle = Handle<fz_buffer, fz_drop_buffer>;
using ImageHandle = Handle<fz_image, fz_drop_image>;
using StextPageHandle = Handle<fz_stext_page, fz_drop_stext_page>;
using DisplayListHandle = Handle<fz_display_list, fz_drop_display_list>;
using ColorspaceHandle = Handle<fz_colorspace, fz_drop_colorspace>;
using StreamHandle = Handle<fz_stream, fz_drop_stream>;
using OutputHandle = Handle<fz_output, fz_drop_output>;
using FontHandle = Handle<fz_font, fz_drop_font>;
using LinkHandle = Handle<fz_link, fz_drop_link>;

}  // namespace Orvane::PDF::Pdfium
