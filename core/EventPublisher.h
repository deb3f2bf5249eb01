#pragma once

namespace Orvane::Core {

// Where observers of type Handler register. Handlers are borrowed, never owned:
// unregister one before destroying it.
template <class Handler>
class EventPublisher {
public:
    // A null pointer or one already registered is ignored.
    virtual void RegisterEventHandler(Handler* handler) = 0;
    // A null pointer or one not registered is ignored.
    virtual void UnregisterEventHandler(Handler* handler) = 0;
    virtual ~EventPublisher() = default;
};

}  // namespace Orvane::Core
