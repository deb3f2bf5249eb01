#include "engine/FileStreams.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Orvane::PDF::Pdfium {
namespace {

// ---- reading ----

constexpr size_t kFileBuffer = 8192;

struct FileState {
    int fd;
    unsigned char buffer[kFileBuffer];
};

int nextFromFile(fz_context* ctx, fz_stream* stm, size_t) {
    FileState* state = static_cast<FileState*>(stm->state);
    ssize_t n;
    do {
        n = ::pread(state->fd, state->buffer, sizeof state->buffer, stm->pos);
    } while (n < 0 && errno == EINTR);
    if (n < 0) fz_throw(ctx, FZ_ERROR_GENERIC, "read error: %s", std::strerror(errno));
    stm->rp = state->buffer;
    stm->wp = state->buffer + n;
    stm->pos += n;
    if (n == 0) return EOF;
    return *stm->rp++;
}

void seekInFile(fz_context* ctx, fz_stream* stm, int64_t offset, int whence) {
    FileState* state = static_cast<FileState*>(stm->state);
    if (whence == SEEK_END) {
        struct stat st;
        if (::fstat(state->fd, &st) != 0) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot seek: %s", std::strerror(errno));
        offset += st.st_size;
    } else if (whence == SEEK_CUR) {
        offset += stm->pos - (stm->wp - stm->rp);
    }
    if (offset < 0) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot seek: %s", std::strerror(EINVAL));
    // The buffer holds the bytes from start up to stm->pos.
    const int64_t start = stm->pos - (stm->wp - state->buffer);
    if (stm->wp != NULL && stm->wp > state->buffer && offset >= start && offset <= stm->pos) {
        stm->rp = state->buffer + (offset - start);
        return;
    }
    stm->pos = offset;
    stm->rp = stm->wp = state->buffer;
}

void closeFile(fz_context* ctx, void* opaque) {
    FileState* state = static_cast<FileState*>(opaque);
    ::close(state->fd);
    fz_free(ctx, state);
}

// ---- writing ----

void sinkWrite(fz_context* ctx, void* state, const void* data, size_t n) {
    FileSink* sink = static_cast<FileSink*>(state);
    const char* bytes = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t done = ::write(sink->fd, bytes, n);
        if (done < 0) {
            if (errno == EINTR) continue;
            fz_throw(ctx, FZ_ERROR_GENERIC, "cannot write the file: %s", std::strerror(errno));
        }
        bytes += done;
        n -= size_t(done);
        sink->position += done;
    }
}

int64_t sinkTell(fz_context*, void* state) {
    return static_cast<FileSink*>(state)->position;
}

void sinkSeek(fz_context* ctx, void* state, int64_t offset, int whence) {
    FileSink* sink = static_cast<FileSink*>(state);
    const off_t at = ::lseek(sink->fd, offset, whence);
    if (at < 0) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot seek in the file: %s", std::strerror(errno));
    sink->position = at;
}

void sinkTruncate(fz_context* ctx, void* state) {
    FileSink* sink = static_cast<FileSink*>(state);
    if (::ftruncate(sink->fd, sink->position) != 0)
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot truncate the file: %s", std::strerror(errno));
}

// The bytes written so far (MuPDF flushes the output first).
fz_stream* sinkReadBack(fz_context* ctx, void* state) {
    const int fd = ::dup(static_cast<FileSink*>(state)->fd);
    if (fd < 0) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot read the file back: %s", std::strerror(errno));
    return NewFileStream(ctx, fd);
}

}  // namespace

fz_stream* NewFileStream(fz_context* ctx, int fd) {
    FileState* state = NULL;
    fz_var(state);
    fz_try(ctx) {
        state = fz_malloc_struct(ctx, FileState);
    }
    fz_catch(ctx) {
        ::close(fd);
        fz_rethrow(ctx);
    }
    state->fd = fd;
    // Closes the file and frees the state itself when it fails.
    fz_stream* stm = fz_new_stream(ctx, state, nextFromFile, closeFile);
    stm->seek = seekInFile;
    return stm;
}

fz_output* NewFileOutput(fz_context* ctx, FileSink* sink) {
    fz_output* out = fz_new_output(ctx, 64 * 1024, sink, sinkWrite, NULL, NULL);
    out->tell = sinkTell;
    out->seek = sinkSeek;
    out->truncate = sinkTruncate;
    out->as_stream = sinkReadBack;
    return out;
}

}  // namespace Orvane::PDF::Pdfium
