#include "RateLimiter.h"

#include <algorithm>

namespace brackmoor::verifyd {
namespace {

constexpr std::chrono::minutes kMinute(1);
constexpr std::chrono::hours kHour(1);

} // namespace

RateLimiter::RateLimiter(int requestsPerMinute, int requestsPerHour)
    : perMinute(static_cast<std::size_t>(std::max(requestsPerMinute, 1))),
      perHour(static_cast<std::size_t>(std::max(requestsPerHour, 1)))
{
}

bool RateLimiter::TryAcquire(const std::string& agent, Clock::time_point now,
                             std::chrono::seconds& retryAfter)
{
    std::lock_guard<std::mutex> guard(lock);
    std::deque<Clock::time_point>& times = history[agent];
    while (!times.empty() && now - times.front() >= kHour) {
        times.pop_front();
    }

    if (times.size() >= perHour) {
        // The request that would fall out of the hour first is the one
        // perHour places back from the end.
        retryAfter = Until(times[times.size() - perHour], kHour, now);
        return false;
    }
    const auto inLastMinute = static_cast<std::size_t>(
        std::count_if(times.begin(), times.end(),
                      [&](Clock::time_point t) { return now - t < kMinute; }));
    if (inLastMinute >= perMinute) {
        retryAfter = Until(times[times.size() - perMinute], kMinute, now);
        return false;
    }
    times.push_back(now);
    return true;
}

std::chrono::seconds RateLimiter::Until(Clock::time_point since, Clock::duration window,
                                        Clock::time_point now)
{
    const Clock::duration left = since + window - now;
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(left);
    return std::max(seconds, std::chrono::seconds(1));
}

} // namespace brackmoor::verifyd
