#include "CallWatchdog.h"

#include <sys/socket.h>

#include <algorithm>

namespace SDK {

CallWatchdog::CallWatchdog(std::chrono::milliseconds budget)
    : deadline(std::chrono::steady_clock::now() + budget), watcher([this] { Watch(); })
{
}

CallWatchdog::~CallWatchdog()
{
    {
        std::lock_guard<std::mutex> guard(lock);
        armed = -1;
        stopping = true;
    }
    wake.notify_one();
    watcher.join();
}

void CallWatchdog::Arm(int fd)
{
    std::lock_guard<std::mutex> guard(lock);
    armed = fd;
    if (std::chrono::steady_clock::now() >= deadline) {
        ::shutdown(armed, SHUT_RDWR);
        expired = true;
    }
}

void CallWatchdog::Disarm()
{
    std::lock_guard<std::mutex> guard(lock);
    armed = -1;
}

bool CallWatchdog::Expired() const
{
    std::lock_guard<std::mutex> guard(lock);
    return expired;
}

Poco::Timespan CallWatchdog::Remaining() const
{
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    return Poco::Timespan(std::max<Poco::Timespan::TimeDiff>(left.count(), 1000));
}

void CallWatchdog::Watch()
{
    std::unique_lock<std::mutex> guard(lock);
    wake.wait_until(guard, deadline, [this] { return stopping; });
    // Under the lock: Disarm cannot return, and the session cannot close the
    // descriptor, while it is being shut down here.
    if (!stopping && armed >= 0) {
        ::shutdown(armed, SHUT_RDWR);
        expired = true;
    }
}

} // namespace SDK
