#pragma once

#include "Framework/EventCallback.h"

namespace Framework {

/// A descriptor watched by an EventWaiter and the callback to run when it is
/// readable. The event owns its callback and deletes it when destroyed. An
/// event must be removed from its waiter, or the waiter destroyed, before the
/// event is.
class Event {
public:
    Event() = default;
    Event(AbstractEventCallback* cb, void* userData, int descriptor)
        : callback(cb), data(userData), fd(descriptor) {}
    virtual ~Event() { delete callback; }

    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    AbstractEventCallback* callback = nullptr;  ///< owned
    void* data = nullptr;                       ///< passed to the callback unchanged
    int fd = -1;
};

} // namespace Framework
