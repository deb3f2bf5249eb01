#pragma once

// Memory for the pictures the service hands out. A page picture at print
// resolution is tens of megabytes: fresh from the allocator it is mapped,
// faulted in page by page while it is cleared and unmapped again when the
// caller drops it, which costs more than drawing most pages. The pool keeps
// the memory of dropped pictures and lends it to the next ones.
//
// A picture is an ordinary QImage over pool memory; when its last copy goes
// (on whatever thread), the memory returns to the pool, which keeps at most
// `idleLimit` bytes of returned memory and frees the rest. Every picture holds
// the pool, so the pool outlives all of them.

#include <QImage>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace Orvane::PDF::Pdfium {

class PicturePool : public std::enable_shared_from_this<PicturePool> {
public:
    static std::shared_ptr<PicturePool> Create(size_t idleLimit);
    ~PicturePool();
    PicturePool(const PicturePool&) = delete;
    PicturePool& operator=(const PicturePool&) = delete;

    // A Format_RGB32 picture with rows of exactly width * 4 bytes and
    // unspecified contents; a null image for an empty size or when the
    // memory cannot be had.
    QImage Take(int width, int height);

    // Frees all returned memory now (pictures still out come back as usual).
    void Trim();

    size_t IdleBytes() const;
    size_t IdleBuffers() const;

private:
    struct Buffer {
        unsigned char* data;
        size_t capacity;
    };
    struct Lease;

    explicit PicturePool(size_t idleLimit) : idleLimit_(idleLimit) {}
    static void Release(void* lease);
    void GiveBack(Buffer buffer) noexcept;
    Buffer TakeOldestOverLimit() noexcept;

    const size_t idleLimit_;
    mutable std::mutex mutex_;
    std::vector<Buffer> idle_;  // oldest first; guarded by mutex_
    size_t idleBytes_ = 0;      // guarded by mutex_
};

}  // namespace Orvane::PDF::Pdfium
