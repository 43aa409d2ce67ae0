#include <gtest/gtest.h>

#include "SDK/StrUtils.h"

namespace {

// Split and Trim parse every sshd and PAM file the two-factor module and the
// agent's status command read, and their suites prove them there; the white
// space Trim removes is listed here in full.

TEST(StrUtilsTest, TrimRemovesWhiteSpaceAtBothEndsOnly)
{
    struct Case {
        std::string text;
        std::string expected;
    } cases[] = {
        {" \t\r\n\v\f", ""},
        {"  UsePAM yes\r\n", "UsePAM yes"},
        {"\v\fa \t b\f\v", "a \t b"},
        {std::string("\0a", 2), std::string("\0a", 2)},
    };
    for (const Case& c : cases) {
        std::string text = c.text;
        SDK::StrUtils::Trim(text);
        EXPECT_EQ(c.expected, text) << "'" << c.text << "'";
    }
}

} // namespace
