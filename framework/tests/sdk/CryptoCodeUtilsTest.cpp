#include <string>

#include <gtest/gtest.h>

#include "SDK/CryptoCodeUtils.h"

// Digests are checked against an independent SHA-256 in the two-factor
// module's service suite; the bound on the input is not, so it is here.
TEST(CryptoCodeUtilsTest, RefusesInputBeyondTheBoundAndKeepsTheDigest)
{
    std::string digest = "untouched";
    EXPECT_NE(0, SDK::CryptoCodeUtils::GetStrSha256("abcde", digest, 4));
    EXPECT_NE(0, SDK::CryptoCodeUtils::GetStrSha256("", digest, -1));
    EXPECT_EQ("untouched", digest);
    EXPECT_EQ(0, SDK::CryptoCodeUtils::GetStrSha256("abcd", digest, 4));
}
