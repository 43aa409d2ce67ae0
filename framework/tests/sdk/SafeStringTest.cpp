#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

#include "SDK/SafeString.h"

// What fits is written; otherwise the buffer is left empty and the result says why.
TEST(SafeStringTest, WritesWhatFitsOrEmptiesTheBuffer)
{
    char buffer[8] = "old";
    EXPECT_EQ(7, sprintf_s(buffer, sizeof buffer, "%s=%d", "code", 42));
    EXPECT_STREQ("code=42", buffer);
    EXPECT_EQ(-1, sprintf_s(buffer, sizeof buffer, "%s=%d", "code", 420));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(0, strcpy_s(buffer, 4, "abc"));
    EXPECT_STREQ("abc", buffer);
    EXPECT_EQ(ERANGE, strcpy_s(buffer, 4, "abcd"));
    EXPECT_STREQ("", buffer);
    std::strcpy(buffer, "old");
    EXPECT_EQ(EINVAL, strcpy_s(buffer, 4, nullptr));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(EINVAL, strcpy_s(buffer, 0, "a"));
}
