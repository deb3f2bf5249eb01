#pragma once

// The observer list. Registration may come from any thread, also from inside a
// notification: Notify calls the handlers of a snapshot taken when it starts,
// so a change takes effect from the next notification. Notifications never
// interleave (executeMutex); the two mutexes are never held together.
//
// Unregistering from any other thread than the notifying one waits for a
// notification in flight, so that a handler may be destroyed as soon as
// UnregisterEventHandler returns. A handler that unregisters from inside its
// own call does not wait (it may still be called once more in the same
// notification if it stands later in the snapshot).

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "core/EventPublisher.h"

namespace Orvane::Core {

// Runs each bound call at once on the notifying thread.
struct SyncExecutePolicy {
    static void Execute(const std::function<void()>& call) { call(); }
};

template <class Handler, class ExecutePolicy = SyncExecutePolicy>
class EventHandlerList : public virtual EventPublisher<Handler> {
public:
    EventHandlerList() = default;
    EventHandlerList(const EventHandlerList&) = delete;
    EventHandlerList& operator=(const EventHandlerList&) = delete;

    void RegisterEventHandler(Handler* handler) override {
        if (handler == nullptr) return;
        std::lock_guard<std::mutex> lock(handlersMutex);
        if (std::find(handlers.begin(), handlers.end(), handler) == handlers.end()) handlers.push_back(handler);
    }

    void UnregisterEventHandler(Handler* handler) override {
        if (handler == nullptr) return;
        {
            std::lock_guard<std::mutex> lock(handlersMutex);
            auto it = std::find(handlers.begin(), handlers.end(), handler);
            if (it != handlers.end()) handlers.erase(it);
        }
        // A notification that took its snapshot before the removal may still
        // call the handler: wait for it to end. Inside that notification
        // (same thread) waiting would deadlock on the non-recursive mutex.
        if (notifyingThread.load() != std::this_thread::get_id()) std::lock_guard<std::mutex> wait(executeMutex);
    }

    ~EventHandlerList() override = default;

    // Calls member on every handler, in registration order, with copies of
    // args. An exception from a handler ends the notification and reaches the
    // caller. Must not be called from inside a handler.
    template <class... Params, class... Args>
    void Notify(void (Handler::*member)(Params...), Args&&... args) {
        std::vector<Handler*> snapshot;
        {
            std::lock_guard<std::mutex> lock(handlersMutex);
            snapshot = handlers;
        }
        std::lock_guard<std::mutex> lock(executeMutex);
        struct NotifyingScope {
            explicit NotifyingScope(std::atomic<std::thread::id>& id) : id(id) { id = std::this_thread::get_id(); }
            ~NotifyingScope() { id = std::thread::id(); }
            std::atomic<std::thread::id>& id;
        } scope(notifyingThread);
        for (Handler* handler : snapshot) {
            ExecutePolicy::Execute(std::bind(member, handler, args...));
        }
    }

    size_t Count() const {
        std::lock_guard<std::mutex> lock(handlersMutex);
        return handlers.size();
    }

private:
    std::vector<Handler*> handlers;  // guarded by handlersMutex
    mutable std::mutex handlersMutex;
    std::mutex executeMutex;                         // held for the whole of one notification
    std::atomic<std::thread::id> notifyingThread{};  // set while a notification runs
};

}  // namespace Orvane::Core
