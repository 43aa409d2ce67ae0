#pragma once

#include "Framework/Event.h"

namespace Framework {

/// Waits on an epoll set and runs the callbacks of ready events on the
/// calling thread. Not thread-safe: a task uses its waiter from its own
/// thread (AddEvent before Run starts, or from Run itself).
class EventWaiter {
public:
    EventWaiter();
    ~EventWaiter();

    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    /// Watches event.fd for readability; 0 on success, -1 on failure (errno set).
    int AddEvent(Event& event);

    /// Stops watching event.fd; 0 on success, -1 on failure.
    int RemoveEvent(Event& event);

    /// Waits up to `timeoutMs` for at most `maxEvents` ready events and runs
    /// their callbacks. Returns the number of events handled, or -1 when none
    /// came within the time-out, the wait was interrupted, or the set is
    /// unusable.
    int WaitAndHandleEvent(int timeoutMs, int maxEvents);

private:
    int epollFd;
};

} // namespace Framework
