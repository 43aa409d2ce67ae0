#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace brackmoor::verifyd {

/// Per-agent limits on code requests over a sliding minute and a sliding hour.
///
/// The counters live in memory: they are consulted on every code request, and
/// keeping them out of the database keeps that path free of writes. A restart
/// therefore starts every agent with a fresh allowance; the limits guard the
/// contacts against floods of messages, which a restart cannot produce by
/// itself. Refused requests are not counted, so a client that keeps retrying
/// does not push its own waiting time further out.
///
/// Thread-safe.
class RateLimiter {
public:
    using Clock = std::chrono::steady_clock;

    RateLimiter(int requestsPerMinute, int requestsPerHour);

    /// Counts a code request of `agent` at `now` when it stays within both
    /// limits and returns true. Otherwise returns false and sets `retryAfter`
    /// to the whole seconds (at least 1) until a request would be allowed.
    bool TryAcquire(const std::string& agent, Clock::time_point now,
                    std::chrono::seconds& retryAfter);

private:
    /// Seconds until `since + window` is in the past, rounded up, at least 1.
    static std::chrono::seconds Until(Clock::time_point since, Clock::duration window,
                                      Clock::time_point now);

    const std::size_t perMinute;
    const std::size_t perHour;
    std::mutex lock;
    /// Times of each agent's counted requests within the last hour, oldest first.
    std::unordered_map<std::string, std::deque<Clock::time_point>> history;
};

} // namespace brackmoor::verifyd
