#include "Framework/EventWaiter.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace Framework {

EventWaiter::EventWaiter() : epollFd(epoll_create1(EPOLL_CLOEXEC)) {}

EventWaiter::~EventWaiter()
{
    if (epollFd >= 0) {
        close(epollFd);
    }
}

int EventWaiter::AddEvent(Event& event)
{
    if (epollFd < 0 || event.fd < 0) {
        errno = EBADF;
        return -1;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = &event;
    return epoll_ctl(epollFd, EPOLL_CTL_ADD, event.fd, &ev);
}

int EventWaiter::RemoveEvent(Event& event)
{
    if (epollFd < 0 || event.fd < 0) {
        errno = EBADF;
        return -1;
    }
    return epoll_ctl(epollFd, EPOLL_CTL_DEL, event.fd, nullptr);
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int maxEvents)
{
    if (epollFd < 0 || maxEvents <= 0) {
        return -1;
    }
    // Small batches live on the stack: the task loop calls this constantly.
    constexpr int stackBatch = 128;
    epoll_event onStack[stackBatch];
    std::vector<epoll_event> onHeap;
    epoll_event* ready = onStack;
    if (maxEvents > stackBatch) {
        onHeap.resize(static_cast<size_t>(maxEvents));
        ready = onHeap.data();
    }
    const int count = epoll_wait(epollFd, ready, maxEvents, timeoutMs);
    if (count <= 0) {
        return -1;  // time-out, EINTR or an unusable set
    }
    for (int i = 0; i < count; ++i) {
        auto* event = static_cast<Event*>(ready[i].data.ptr);
        if (event != nullptr && event->callback != nullptr) {
            event->callback->invoke(event->fd, ready[i].events, event->data);
        }
    }
    return count;
}

} // namespace Framework
