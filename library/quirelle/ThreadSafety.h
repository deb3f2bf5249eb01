#pragma once

// Clang's thread-safety annotations and a mutex they can name. With clang and
// -Wthread-safety the compiler checks that what a mutex guards is touched only
// with that mutex held; other compilers ignore the annotations.

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define QUIRELLE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QUIRELLE_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) QUIRELLE_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY QUIRELLE_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) QUIRELLE_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) QUIRELLE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) QUIRELLE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QUIRELLE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) QUIRELLE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS QUIRELLE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace Orvane::PDF {

// A std::mutex that the analysis knows as a capability.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    friend class MutexLock;
    std::mutex mutex_;
};

// Holds a Mutex for its scope, like std::unique_lock: it may be released and
// taken again, and a condition variable may wait on it.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~MutexLock() RELEASE() = default;
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void Unlock() RELEASE() { lock_.unlock(); }
    void Lock() ACQUIRE() { lock_.lock(); }
    // Releases the mutex while waiting and holds it again on return.
    void Wait(std::condition_variable& condition) { condition.wait(lock_); }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace Orvane::PDF
