#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <unordered_map>

namespace brackmoor::verifyd {

/// Slows down the guessing of tokens and agent ids: each client address may
/// fail authentication `failuresPerMinute` times in a row, and then once for
/// every 60 / failuresPerMinute seconds that pass (a token bucket). While an
/// address has no attempt left, each of its requests is refused before any
/// token is looked at, a correct one included, and the throttling is logged
/// once a minute per address rather than once per request.
///
/// IPv6 clients count by their /64 network, which one host usually has to
/// itself. Thread-safe.
class AuthThrottle {
public:
    using Clock = std::chrono::steady_clock;

    explicit AuthThrottle(int failuresPerMinute);

    /// Whether `client` may try to authenticate at `now`; when not,
    /// `retryAfter` is set to the whole seconds (at least 1) until it may.
    bool Allows(const std::string& client, Clock::time_point now, std::chrono::seconds& retryAfter);

    /// Counts a failed authentication of `client` at `now`.
    void Failed(const std::string& client, Clock::time_point now);

private:
    struct Bucket {
        double attempts = 0;          ///< left, refilled over time
        Clock::time_point updated;    ///< when `attempts` was last refilled
        Clock::time_point lastLogged; ///< last warning about this address
        long refusedSinceLog = 0;
    };

    /// The attempts `bucket` has at `now`, at most `capacity`.
    double Level(const Bucket& bucket, Clock::time_point now) const;
    /// The address's bucket, refilled up to `now`.
    Bucket& Refilled(const std::string& key, Clock::time_point now);
    /// Drops buckets that are full again, so idle addresses cost no memory.
    void Sweep(Clock::time_point now);

    const double capacity;
    const double perSecond;
    std::mutex lock;
    std::unordered_map<std::string, Bucket> buckets;
    Clock::time_point lastSweep;
};

} // namespace brackmoor::verifyd
