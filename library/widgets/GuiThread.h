#pragma once

// Getting answers of the service back to a GUI thread.
//
// std::future has no continuation, and a GUI thread must never wait on one:
// the worker may be busy for a while. WhenReady polls the future from the
// context object's event loop and calls onReady there with the future once it
// is ready (call get() on it, which may throw what the work threw). Nothing
// is called when the context is destroyed first.

#include <QMetaObject>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <utility>

namespace Orvane::PDF {

template <class T, class OnReady>
void WhenReady(QObject* context, std::future<T>&& future, OnReady onReady) {
    auto timer = new QTimer(context);
    timer->setInterval(2);
    auto shared = std::make_shared<std::future<T>>(std::move(future));
    QObject::connect(timer, &QTimer::timeout, context, [timer, shared, onReady = std::move(onReady)]() mutable {
        if (shared->wait_for(std::chrono::seconds(0)) != std::future_status::ready) return;
        timer->stop();
        timer->deleteLater();
        onReady(*shared);
    });
    timer->start();
}

// Observer and search callbacks run on the service's worker thread. A relay,
// shared with such a callback, queues calls to the target's thread; once the
// target has detached (first thing in its destructor) calls are dropped, and
// calls already queued go with the target object.
class GuiRelay {
public:
    explicit GuiRelay(QObject* target) : target_(target) {}
    GuiRelay(const GuiRelay&) = delete;
    GuiRelay& operator=(const GuiRelay&) = delete;

    // Any thread.
    template <class Fn>
    void Post(Fn&& fn) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (target_ != nullptr) QMetaObject::invokeMethod(target_, std::forward<Fn>(fn), Qt::QueuedConnection);
    }
    // The target's thread.
    void Detach() {
        std::lock_guard<std::mutex> lock(mutex_);
        target_ = nullptr;
    }

private:
    std::mutex mutex_;
    QObject* target_;  // guarded by mutex_
};

}  // namespace Orvane::PDF
