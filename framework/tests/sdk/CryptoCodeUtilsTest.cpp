#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SDK/CryptoCodeUtils.h"

namespace {

TEST(CryptoCodeUtilsTest, Sha256MatchesKnownVectors)
{
    struct Case {
        std::string text;
        const char* digest;
    } cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const Case& c : cases) {
        std::string digest;
        ASSERT_EQ(0, SDK::CryptoCodeUtils::GetStrSha256(c.text, digest, 1000000));
        EXPECT_EQ(c.digest, digest) << c.text.substr(0, 20);
    }
}

TEST(CryptoCodeUtilsTest, RefusesInputBeyondTheBoundAndKeepsTheDigest)
{
    std::string digest = "untouched";
    EXPECT_EQ(0, SDK::CryptoCodeUtils::GetStrSha256("abcd", digest, 4));
    digest = "untouched";
    EXPECT_NE(0, SDK::CryptoCodeUtils::GetStrSha256("abcde", digest, 4));
    EXPECT_NE(0, SDK::CryptoCodeUtils::GetStrSha256("", digest, -1));
    EXPECT_EQ("untouched", digest);
}

TEST(CryptoCodeUtilsTest, ThreadsHashIndependently)
{
    // Each thread has its own context: interleaved digests must not mix.
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &mismatches] {
            const std::string text = t % 2 == 0 ? "abc" : "";
            const char* expected = t % 2 == 0 ? "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
                                              : "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
            for (int i = 0; i < 2000; ++i) {
                std::string digest;
                if (SDK::CryptoCodeUtils::GetStrSha256(text, digest, 10240) != 0 || digest != expected) {
                    ++mismatches[t];
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::vector<int>(4, 0), mismatches);
}

} // namespace
