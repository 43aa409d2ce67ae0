#include <gtest/gtest.h>

#include "RateLimiter.h"

namespace brackmoor::verifyd {
namespace {

TEST(RateLimiter, LimitsSlidePerAgentAndOnlyGrantedRequestsCount)
{
    const RateLimiter::Clock::time_point t0 = RateLimiter::Clock::time_point() + std::chrono::hours(24);
    RateLimiter minute(2, 100);
    RateLimiter hour(10, 3);
    const struct {
        RateLimiter& limiter;
        const char* agent;
        int at; ///< seconds after t0
        bool granted;
        int retryAfter;
    } steps[] = {
        {minute, "a", 0, true, 0},
        {minute, "a", 10, true, 0},
        {minute, "a", 20, false, 40}, // the first request leaves the window at 60
        {minute, "b", 20, true, 0},   // agents are counted apart
        {minute, "a", 59, false, 1},
        {minute, "a", 60, true, 0},   // had the refusals counted, "a" would still wait
        {minute, "a", 61, false, 9},  // now the one from 10 must leave
        {hour, "a", 0, true, 0},
        {hour, "a", 60, true, 0},
        {hour, "a", 120, true, 0},
        {hour, "a", 1800, false, 1800},
        {hour, "a", 3600, true, 0},
    };
    for (const auto& s : steps) {
        std::chrono::seconds retry(0);
        EXPECT_EQ(s.limiter.TryAcquire(s.agent, t0 + std::chrono::seconds(s.at), retry), s.granted)
            << s.at;
        if (!s.granted) {
            EXPECT_EQ(retry.count(), s.retryAfter) << s.at;
        }
    }
}

} // namespace
} // namespace brackmoor::verifyd
