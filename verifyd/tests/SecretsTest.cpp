#include <set>

#include <gtest/gtest.h>

#include "Secrets.h"

namespace brackmoor::verifyd {
namespace {

TEST(Secrets, CodesAreSixDigitsTokensNeverRepeatAndComparisonsTakeWholeValues)
{
    // 3000 draws: every first digit 0..9 shows up unless the codes are
    // badly skewed (the chance of missing one by luck is about 10^-136).
    std::set<char> firstDigits;
    for (int i = 0; i < 3000; ++i) {
        const std::string code = NewCode();
        ASSERT_EQ(code.size(), 6u);
        ASSERT_EQ(code.find_first_not_of("0123456789"), std::string::npos) << code;
        firstDigits.insert(code[0]);
    }
    EXPECT_EQ(firstDigits.size(), 10u);
    EXPECT_NE(NewToken(), NewToken());
    // Whole values only: never a prefix, nor the empty value.
    EXPECT_TRUE(SameSecret("abcdef", "abcdef"));
    EXPECT_FALSE(SameSecret("abcdef", "abcdeF"));
    EXPECT_FALSE(SameSecret("abcdef", "abcde"));
    EXPECT_FALSE(SameSecret("", "a"));
}

} // namespace
} // namespace brackmoor::verifyd
