#include "CodeLimits.h"

#include <algorithm>
#include <iterator>

namespace brackmoor::verifyd {
namespace {

constexpr std::int64_t kMinuteMs = 60 * 1000;
constexpr std::int64_t kHourMs = 60 * kMinuteMs;

/// Seconds until `sinceMs + windowMs` is in the past, rounded up, at least 1.
std::chrono::seconds Until(std::int64_t sinceMs, std::int64_t windowMs, std::int64_t nowMs)
{
    const std::int64_t left = sinceMs + windowMs - nowMs;
    return std::chrono::seconds(std::max<std::int64_t>((left + 999) / 1000, 1));
}

} // namespace

bool CodeLimits::Admit(const std::vector<std::int64_t>& countedMs, std::int64_t nowMs,
                       std::chrono::seconds& retryAfter) const
{
    std::vector<std::int64_t> hour;
    std::copy_if(countedMs.begin(), countedMs.end(), std::back_inserter(hour),
                 [nowMs](std::int64_t t) { return nowMs - t < kHourMs; });
    const auto hourLimit = static_cast<std::size_t>(std::max(perHour, 1));
    const auto minuteLimit = static_cast<std::size_t>(std::max(perMinute, 1));
    if (hour.size() >= hourLimit) {
        // The request that leaves the hour first is the one hourLimit places
        // back from the newest.
        retryAfter = Until(hour[hour.size() - hourLimit], kHourMs, nowMs);
        return false;
    }
    const auto inLastMinute = static_cast<std::size_t>(std::count_if(
        hour.begin(), hour.end(), [nowMs](std::int64_t t) { return nowMs - t < kMinuteMs; }));
    if (inLastMinute >= minuteLimit) {
        retryAfter = Until(hour[hour.size() - minuteLimit], kMinuteMs, nowMs);
        return false;
    }
    return true;
}

} // namespace brackmoor::verifyd
