#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace brackmoor::verifyd {

/// The per-agent limits on code requests, over a sliding minute and a sliding
/// hour. Only requests that were granted count, so a client that keeps
/// retrying too early does not push its own waiting time further out.
///
/// The decision is made here; the counted requests are kept in the database
/// (Database::CountCodeRequest), so that every instance of the service sees
/// the same ones and a restart forgets none.
struct CodeLimits {
    int perMinute = 3;
    int perHour = 20;

    /// Whether one more request at `nowMs` stays within both limits, given
    /// the times of the agent's counted requests (milliseconds since the
    /// epoch, oldest first; those older than an hour are ignored). When it
    /// does not, `retryAfter` is set to the whole seconds (at least 1) until
    /// a request would be admitted.
    bool Admit(const std::vector<std::int64_t>& countedMs, std::int64_t nowMs,
               std::chrono::seconds& retryAfter) const;
};

} // namespace brackmoor::verifyd
