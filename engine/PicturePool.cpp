#include "engine/PicturePool.h"

#include <climits>
#include <cstdlib>

namespace Orvane::PDF::Pdfium {

// What a picture carries to give its memory back.
struct PicturePool::Lease {
    std::shared_ptr<PicturePool> pool;
    Buffer buffer;
};

std::shared_ptr<PicturePool> PicturePool::Create(size_t idleLimit) {
    return std::shared_ptr<PicturePool>(new PicturePool(idleLimit));
}

PicturePool::~PicturePool() {
    Trim();
}

QImage PicturePool::Take(int width, int height) {
    // QImage counts its bytes in an int.
    if (width <= 0 || height <= 0 || width > INT_MAX / 4 || height > INT_MAX / (width * 4)) return QImage();
    const size_t bytes = size_t(width) * 4 * size_t(height);

    Buffer buffer{nullptr, 0};
    {
        // The smallest returned buffer that fits without wasting more than
        // the picture itself; of equals the one returned last, still warm.
        std::lock_guard<std::mutex> lock(mutex_);
        auto best = idle_.end();
        for (auto it = idle_.begin(); it != idle_.end(); ++it) {
            if (it->capacity >= bytes && it->capacity / 2 <= bytes &&
                (best == idle_.end() || it->capacity <= best->capacity)) {
                best = it;
            }
        }
        if (best != idle_.end()) {
            buffer = *best;
            idle_.erase(best);
            idleBytes_ -= buffer.capacity;
        }
    }
    if (buffer.data == nullptr) {
        buffer = {static_cast<unsigned char*>(std::malloc(bytes)), bytes};
        if (buffer.data == nullptr) return QImage();
    }

    auto* lease = new (std::nothrow) Lease{shared_from_this(), buffer};
    if (lease == nullptr) {
        GiveBack(buffer);
        return QImage();
    }
    QImage picture(buffer.data, width, height, width * 4, QImage::Format_RGB32, &PicturePool::Release, lease);
    // Qt calls the clean-up function only for an image it made.
    if (picture.isNull()) Release(lease);
    return picture;
}

void PicturePool::Release(void* opaque) {
    std::unique_ptr<Lease> lease(static_cast<Lease*>(opaque));
    lease->pool->GiveBack(lease->buffer);
    // The pool may go with the lease when it was its last holder.
}

void PicturePool::GiveBack(Buffer buffer) noexcept {
    bool kept = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (buffer.capacity <= idleLimit_) {
            try {
                idle_.push_back(buffer);
                idleBytes_ += buffer.capacity;
                kept = true;
            } catch (...) {
            }
        }
    }
    if (!kept) std::free(buffer.data);
    // Over the limit the oldest memory goes first. Freeing a large buffer
    // unmaps it: never under the lock.
    for (Buffer oldest = TakeOldestOverLimit(); oldest.data != nullptr; oldest = TakeOldestOverLimit()) {
        std::free(oldest.data);
    }
}

PicturePool::Buffer PicturePool::TakeOldestOverLimit() noexcept {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idleBytes_ <= idleLimit_ || idle_.empty()) return {nullptr, 0};
    const Buffer oldest = idle_.front();
    idle_.erase(idle_.begin());
    idleBytes_ -= oldest.capacity;
    return oldest;
}

void PicturePool::Trim() {
    std::vector<Buffer> freed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        freed.swap(idle_);
        idleBytes_ = 0;
    }
    for (const Buffer& b : freed) std::free(b.data);
}

size_t PicturePool::IdleBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return idleBytes_;
}

size_t PicturePool::IdleBuffers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return idle_.size();
}

}  // namespace Orvane::PDF::Pdfium
