// Decoding filters that keep to the request's time budget. A few kilobytes of
// nested compression expand to gigabytes that MuPDF reads without allocating
// and without looking at any abort flag: a page's content made of compressed
// zeros holds the interpreter for as long as it takes to inflate them.
//
// The link wraps MuPDF's decoders (-Wl,--wrap=fz_open_flated and the others,
// see CMakeLists.txt): every stream they open is read through a filter that
// checks the budget now and then. Past it, the stream fails once (a save or a
// load stops there) and ends afterwards (an interpreter that goes on after
// the error finds no more content).

#include <mupdf/fitz.h>

#include "engine/Context.h"

extern "C" {
fz_stream* __real_fz_open_flated(fz_context* ctx, fz_stream* chain, int window_bits);
fz_stream* __real_fz_open_lzwd(fz_context* ctx, fz_stream* chain, int early_change, int min_bits, int reverse_bits,
                               int old_tiff);
fz_stream* __real_fz_open_rld(fz_context* ctx, fz_stream* chain);
fz_stream* __real_fz_open_faxd(fz_context* ctx, fz_stream* chain, int k, int end_of_line, int encoded_byte_align,
                               int columns, int rows, int end_of_block, int black_is_1);
}

namespace Orvane::PDF::Pdfium {
namespace {

struct Guard {
    fz_stream* chain;
    unsigned reads;
    int failed;
};

// Plain C: MuPDF calls these inside its own error frames. Passes the chain's
// bytes through without copying them.
int nextGuarded(fz_context* ctx, fz_stream* stm, size_t max) {
    Guard* guard = static_cast<Guard*>(stm->state);
    if (guard->failed) return EOF;
    if ((++guard->reads & 7u) == 0 && RequestBudget::Expired()) {
        guard->failed = 1;
        fz_throw(ctx, FZ_ERROR_GENERIC, "decoding stopped: the time budget is spent");
    }
    const size_t n = fz_available(ctx, guard->chain, max);
    if (n == 0) return EOF;
    stm->rp = guard->chain->rp;
    stm->wp = stm->rp + n;
    guard->chain->rp = stm->wp;
    stm->pos += int64_t(n);
    return *stm->rp++;
}

void dropGuarded(fz_context* ctx, void* state) {
    Guard* guard = static_cast<Guard*>(state);
    fz_drop_stream(ctx, guard->chain);
    fz_free(ctx, guard);
}

// Takes the decoder (dropped on failure).
fz_stream* guarded(fz_context* ctx, fz_stream* decoder) {
    Guard* guard = NULL;
    fz_var(guard);
    fz_try(ctx) {
        guard = static_cast<Guard*>(fz_malloc_struct(ctx, Guard));
        guard->chain = decoder;
    }
    fz_catch(ctx) {
        fz_drop_stream(ctx, decoder);
        fz_rethrow(ctx);
    }
    return fz_new_stream(ctx, guard, nextGuarded, dropGuarded);
}

}  // namespace
}  // namespace Orvane::PDF::Pdfium

using Orvane::PDF::Pdfium::guarded;

extern "C" {

fz_stream* __wrap_fz_open_flated(fz_context* ctx, fz_stream* chain, int window_bits) {
    return guarded(ctx, __real_fz_open_flated(ctx, chain, window_bits));
}

fz_stream* __wrap_fz_open_lzwd(fz_context* ctx, fz_stream* chain, int early_change, int min_bits, int reverse_bits,
                               int old_tiff) {
    return guarded(ctx, __real_fz_open_lzwd(ctx, chain, early_change, min_bits, reverse_bits, old_tiff));
}

fz_stream* __wrap_fz_open_rld(fz_context* ctx, fz_stream* chain) {
    return guarded(ctx, __real_fz_open_rld(ctx, chain));
}

fz_stream* __wrap_fz_open_faxd(fz_context* ctx, fz_stream* chain, int k, int end_of_line, int encoded_byte_align,
                               int columns, int rows, int end_of_block, int black_is_1) {
    return guarded(ctx, __real_fz_open_faxd(ctx, chain, k, end_of_line, encoded_byte_align, columns, rows,
                                            end_of_block, black_is_1));
}

}  // extern "C"
