#include <gtest/gtest.h>

#include "CodeLimits.h"

namespace brackmoor::verifyd {
namespace {

TEST(CodeLimits, WindowsSlideAndOnlyAdmittedRequestsCount)
{
    const CodeLimits minute{2, 100};
    const CodeLimits hour{10, 3};
    const struct {
        const CodeLimits& limits;
        int at; ///< seconds
        bool admitted;
        int retryAfter;
    } steps[] = {
        {minute, 0, true, 0},
        {minute, 10, true, 0},
        {minute, 20, false, 40}, // the first request leaves the window at 60
        {minute, 59, false, 1},
        {minute, 60, true, 0},   // had the refusals counted, it would still wait
        {minute, 61, false, 9},  // now the one from 10 must leave
        {hour, 0, true, 0},
        {hour, 60, true, 0},
        {hour, 120, true, 0},
        {hour, 1800, false, 1800},
        {hour, 3600, true, 0},
    };
    std::vector<std::int64_t> counted;
    for (const auto& s : steps) {
        if (s.at == 0) {
            counted.clear(); // another agent
        }
        std::chrono::seconds retry(0);
        const std::int64_t nowMs = 86400000 + s.at * 1000;
        EXPECT_EQ(s.limits.Admit(counted, nowMs, retry), s.admitted) << s.at;
        if (s.admitted) {
            counted.push_back(nowMs);
        } else {
            EXPECT_EQ(retry.count(), s.retryAfter) << s.at;
        }
    }
}

} // namespace
} // namespace brackmoor::verifyd
