#include <gtest/gtest.h>

#include "RateLimiter.h"

namespace brackmoor::verifyd {
namespace {

using std::chrono::seconds;
using Clock = RateLimiter::Clock;

const Clock::time_point t0 = Clock::time_point() + std::chrono::hours(24);

TEST(RateLimiter, MinuteLimitSlidesAndTellsWhenToRetry)
{
    RateLimiter limiter(2, 100);
    seconds retry(0);
    EXPECT_TRUE(limiter.TryAcquire("a", t0, retry));
    EXPECT_TRUE(limiter.TryAcquire("a", t0 + seconds(10), retry));
    EXPECT_FALSE(limiter.TryAcquire("a", t0 + seconds(20), retry));
    EXPECT_EQ(retry, seconds(40)); // the first request leaves the window at t0 + 60
    EXPECT_FALSE(limiter.TryAcquire("a", t0 + seconds(59), retry));
    EXPECT_EQ(retry, seconds(1));
    EXPECT_TRUE(limiter.TryAcquire("a", t0 + seconds(60), retry));
    EXPECT_FALSE(limiter.TryAcquire("a", t0 + seconds(61), retry));
    EXPECT_EQ(retry, seconds(9)); // now the one from t0 + 10 must leave
}

TEST(RateLimiter, HourLimitHoldsAcrossMinutes)
{
    RateLimiter limiter(10, 3);
    seconds retry(0);
    for (int minute = 0; minute < 3; ++minute) {
        EXPECT_TRUE(limiter.TryAcquire("a", t0 + std::chrono::minutes(minute), retry));
    }
    EXPECT_FALSE(limiter.TryAcquire("a", t0 + std::chrono::minutes(30), retry));
    EXPECT_EQ(retry, seconds(30 * 60));
    EXPECT_TRUE(limiter.TryAcquire("a", t0 + std::chrono::hours(1), retry));
}

TEST(RateLimiter, AgentsAreCountedApartAndRefusalsAreNotCounted)
{
    RateLimiter limiter(1, 10);
    seconds retry(0);
    EXPECT_TRUE(limiter.TryAcquire("a", t0, retry));
    EXPECT_TRUE(limiter.TryAcquire("b", t0, retry));
    for (int i = 1; i < 50; ++i) {
        EXPECT_FALSE(limiter.TryAcquire("a", t0 + seconds(i), retry));
    }
    // Had the refusals counted, "a" would be locked out well past a minute.
    EXPECT_TRUE(limiter.TryAcquire("a", t0 + seconds(60), retry));
}

} // namespace
} // namespace brackmoor::verifyd
