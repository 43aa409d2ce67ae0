#include <string>

#include <gtest/gtest.h>

#include "SDK/CryptoCodeUtils.h"

namespace {

TEST(CryptoCodeUtilsTest, Sha256MatchesKnownVectors)
{
    const std::pair<std::string, const char*> cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto& c : cases) {
        std::string digest;
        ASSERT_EQ(0, SDK::CryptoCodeUtils::GetStrSha256(c.first, digest, 1000000));
        EXPECT_EQ(c.second, digest) << c.first.substr(0, 20);
    }
}

TEST(CryptoCodeUtilsTest, RefusesInputBeyondTheBoundAndKeepsTheDigest)
{
    std::string digest = "untouched";
    EXPECT_NE(0, SDK::CryptoCodeUtils::GetStrSha256("abcde", digest, 4));
    EXPECT_NE(0, SDK::CryptoCodeUtils::GetStrSha256("", digest, -1));
    EXPECT_EQ("untouched", digest);
    EXPECT_EQ(0, SDK::CryptoCodeUtils::GetStrSha256("abcd", digest, 4));
}

} // namespace
