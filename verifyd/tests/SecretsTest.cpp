#include <set>

#include <gtest/gtest.h>

#include "SDK/CryptoCodeUtils.h"
#include "Secrets.h"

namespace brackmoor::verifyd {
namespace {

TEST(Secrets, DigestIsLowerCaseHexSha256AsTheAgentComputesIt)
{
    EXPECT_EQ(Sha256Hex("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    for (const std::string text : {"", "+4915112345678", "alice@example.org"}) {
        std::string agentSide;
        ASSERT_EQ(SDK::CryptoCodeUtils::GetStrSha256(text, agentSide, 10240), 0);
        EXPECT_EQ(Sha256Hex(text), agentSide) << text;
    }
}

TEST(Secrets, TokensAre64HexDigitsAndNeverRepeat)
{
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string token = NewToken();
        ASSERT_EQ(token.size(), 64u);
        ASSERT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
        seen.insert(token);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(Secrets, CodesAreSixDigitsWithLeadingZerosKept)
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
}

TEST(Secrets, SameSecretComparesWholeValues)
{
    EXPECT_TRUE(SameSecret("abcdef", "abcdef"));
    EXPECT_FALSE(SameSecret("abcdef", "abcdeF"));
    EXPECT_FALSE(SameSecret("abcdef", "abcde"));
    EXPECT_FALSE(SameSecret("", "a"));
}

} // namespace
} // namespace brackmoor::verifyd
