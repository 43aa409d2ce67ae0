#pragma once

namespace Framework {

/// What an Event calls when its descriptor becomes ready.
class AbstractEventCallback {
public:
    /// Handles readiness of `fd` (`events` is the epoll mask); returns the
    /// handler's status.
    virtual int invoke(int fd, unsigned int events, void* data) const = 0;
    virtual ~AbstractEventCallback() = default;
};

/// Binds an event callback to a member function of T.
template <class T>
class EventCallback : public AbstractEventCallback {
public:
    using Method = int (T::*)(int, unsigned int, void*);

    EventCallback(T* object, Method method) : target(object), handler(method) {}

    int invoke(int fd, unsigned int events, void* data) const override
    {
        return (target->*handler)(fd, events, data);
    }

private:
    T* target;
    Method handler;
};

} // namespace Framework
