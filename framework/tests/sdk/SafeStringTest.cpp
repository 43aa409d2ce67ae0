#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

#include "SDK/SafeString.h"

namespace {

TEST(SafeStringTest, SprintfWritesWhatFitsAndEmptiesTheBufferOtherwise)
{
    char buffer[8];
    EXPECT_EQ(7, sprintf_s(buffer, sizeof buffer, "%s=%d", "code", 42));
    EXPECT_STREQ("code=42", buffer);
    EXPECT_EQ(-1, sprintf_s(buffer, sizeof buffer, "%s=%d", "code", 420));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(-1, sprintf_s(buffer, 0, "x"));
    EXPECT_EQ(-1, sprintf_s(nullptr, sizeof buffer, "x"));
}

TEST(SafeStringTest, StrcpyCopiesWhatFitsAndReportsWhy)
{
    char buffer[4];
    EXPECT_EQ(0, strcpy_s(buffer, sizeof buffer, "abc"));
    EXPECT_STREQ("abc", buffer);
    EXPECT_EQ(ERANGE, strcpy_s(buffer, sizeof buffer, "abcd"));
    EXPECT_STREQ("", buffer);
    std::strcpy(buffer, "old");
    EXPECT_EQ(EINVAL, strcpy_s(buffer, sizeof buffer, nullptr));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(EINVAL, strcpy_s(nullptr, sizeof buffer, "a"));
    EXPECT_EQ(EINVAL, strcpy_s(buffer, 0, "a"));
}

} // namespace
