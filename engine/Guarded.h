#pragma once

// The one bridge between MuPDF's setjmp-based errors and C++ exceptions.
//
// guarded(ctx, body) runs body inside fz_try and, when MuPDF throws, rethrows
// the error as a C++ exception from fz_catch, after MuPDF has left the frame.
// body must call C only: no object with a destructor, no C++ exception, no
// return out of the frame (longjmp would skip them). Convert results to C++
// types after guarded() returns.

#include <mupdf/fitz.h>

#include <type_traits>

namespace Orvane::PDF::Pdfium {

// What a MuPDF error becomes.
enum class Failure {
    Engine,  // Orvane::Exception with MuPDF's message
    File,    // std::runtime_error: the file is missing, unreadable or not a PDF
};

// Throws the error just caught on ctx as the exception for kind. Memory
// exhaustion is always an engine failure.
[[noreturn]] void throwCaught(fz_context* ctx, Failure kind = Failure::Engine);

// result is read only when no longjmp happened, so it cannot be clobbered;
// GCC cannot see that and warns for every instantiation.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wclobbered"
template <class Body>
auto guarded(fz_context* ctx, Body&& body, Failure kind = Failure::Engine) {
    using Result = decltype(body());
    if constexpr (std::is_void_v<Result>) {
        fz_try(ctx) {
            body();
        }
        fz_catch(ctx) {
            throwCaught(ctx, kind);
        }
    } else {
        static_assert(std::is_trivially_copyable_v<Result>, "guarded bodies return plain C values");
        Result result{};
        fz_try(ctx) {
            result = body();
        }
        fz_catch(ctx) {
            throwCaught(ctx, kind);
        }
        return result;
    }
}
#pragma GCC diagnostic pop

}  // namespace Orvane::PDF::Pdfium
