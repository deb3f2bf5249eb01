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

struct BudgetedStream {
    fz_stream* chain;
    unsigned reads;
    int failed;
};

// Plain C: MuPDF calls these inside its own error frames. Passes the chain's
// bytes through without copying them.
int nextBudgeted(fz_context* ctx, fz_stream* stm, size_t max) {
    BudgetedStream* stream = static_cast<BudgetedStream*>(stm->state);
    if (stream->failed) return EOF;
    if ((++stream->reads & 7u) == 0 && RequestBudget::Expired()) {
        stream->failed = 1;
        fz_throw(ctx, FZ_ERROR_GENERIC, "decoding stopped: the time budget is spent");
    }
    const size_t n = fz_available(ctx, stream->chain, max);
    if (n == 0) return EOF;
    stm->rp = stream->chain->rp;
    stm->wp = stm->rp + n;
    stream->chain->rp = stm->wp;
    stm->pos += int64_t(n);
    return *stm->rp++;
}

void dropBudgeted(fz_context* ctx, void* state) {
    BudgetedStream* stream = static_cast<BudgetedStream*>(state);
    fz_drop_stream(ctx, stream->chain);
    fz_free(ctx, stream);
}

// Takes the decoder (dropped on failure).
fz_stream* budgeted(fz_context* ctx, fz_stream* decoder) {
    BudgetedStream* stream = NULL;
    fz_var(stream);
    fz_try(ctx) {
        stream = static_cast<BudgetedStream*>(fz_malloc_struct(ctx, BudgetedStream));
        stream->chain = decoder;
    }
    fz_catch(ctx) {
        fz_drop_stream(ctx, decoder);
        fz_rethrow(ctx);
    }
    return fz_new_stream(ctx, stream, nextBudgeted, dropBudgeted);
}

}  // namespace
}  // namespace Orvane::PDF::Pdfium

using Orvane::PDF::Pdfium::budgeted;

extern "C" {

fz_stream* __wrap_fz_open_flated(fz_context* ctx, fz_stream* chain, int window_bits) {
    return budgeted(ctx, __real_fz_open_flated(ctx, chain, window_bits));
}

fz_stream* __wrap_fz_open_lzwd(fz_context* ctx, fz_stream* chain, int early_change, int min_bits, int reverse_bits,
                               int old_tiff) {
    return budgeted(ctx, __real_fz_open_lzwd(ctx, chain, early_change, min_bits, reverse_bits, old_tiff));
}

fz_stream* __wrap_fz_open_rld(fz_context* ctx, fz_stream* chain) {
    return budgeted(ctx, __real_fz_open_rld(ctx, chain));
}

fz_stream* __wrap_fz_open_faxd(fz_context* ctx, fz_stream* chain, int k, int end_of_line, int encoded_byte_align,
                               int columns, int rows, int end_of_block, int black_is_1) {
    return budgeted(ctx, __real_fz_open_faxd(ctx, chain, k, end_of_line, encoded_byte_align, columns, rows,
                                             end_of_block, black_is_1));
}

}  // extern "C"
