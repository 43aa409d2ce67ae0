#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <Poco/Timespan.h>

namespace SDK {

/// Ends one network exchange at a deadline, whatever the peer does (stalls,
/// drips a byte at a time, never finishes a TLS handshake): at the deadline
/// the armed socket is shut down, not closed, so that the exchange's next or
/// current read or write fails at once while the descriptor stays owned by
/// the session that will close it.
class CallWatchdog {
public:
    /// Starts the watch; the deadline is `budget` from now.
    explicit CallWatchdog(std::chrono::milliseconds budget);
    /// Disarms and stops the watch.
    ~CallWatchdog();
    CallWatchdog(const CallWatchdog&) = delete;
    CallWatchdog& operator=(const CallWatchdog&) = delete;

    /// From now on `fd` is shut down at the deadline (at once when it has passed).
    void Arm(int fd);
    /// Forgets the descriptor; must come before the descriptor is closed.
    void Disarm();
    /// Whether the deadline passed while a socket was armed.
    bool Expired() const;
    /// Time left before the deadline, at least one millisecond (POCO reads a
    /// zero time-out as "no time-out").
    Poco::Timespan Remaining() const;

private:
    void Watch();

    const std::chrono::steady_clock::time_point deadline;
    mutable std::mutex lock;
    std::condition_variable wake;
    int armed = -1;
    bool stopping = false;
    bool expired = false;
    std::thread watcher;
};

} // namespace SDK
