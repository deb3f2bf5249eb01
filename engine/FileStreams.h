#pragma once

// MuPDF's reading and writing pointed at open files.
//
// Reading an object seeks to it first. MuPDF's own file stream forgets its
// buffer on every seek and asks the system again (a seek, a position and a
// read for each object); the stream here reads with pread, keeps what it
// read, and a seek into it (the next object of a file written in order,
// usually) costs nothing.
//
// The output writes through a 64 KiB buffer in large writes and knows its
// position (the writer records object offsets from it). It seeks, truncates
// and reads back, which MuPDF needs to write an update after the original
// bytes.
//
// Plain C: these run inside MuPDF's calls and report by fz_throw.

#include <mupdf/fitz.h>

#include <cstdint>

namespace Orvane::PDF::Pdfium {

// A stream over fd, which it owns from the call on (closed with the stream,
// or at once when the stream cannot be made).
fz_stream* NewFileStream(fz_context* ctx, int fd);

struct FileSink {
    int fd;
    int64_t position;
};

// The output over sink (which must outlive it), from the file's current
// position on.
fz_output* NewFileOutput(fz_context* ctx, FileSink* sink);

}  // namespace Orvane::PDF::Pdfium
