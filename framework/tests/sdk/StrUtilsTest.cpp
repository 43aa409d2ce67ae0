#include <gtest/gtest.h>

#include "SDK/StrUtils.h"

namespace {

using Fields = std::vector<std::string>;

TEST(StrUtilsTest, SplitCutsAtAnySeparatorAndDropsEmptyFields)
{
    struct Case {
        std::string text;
        std::string separators;
        Fields expected;
    } cases[] = {
        {"", " \t", {}},
        {" \t \t", " \t", {}},
        {"a", " \t", {"a"}},
        {"  a \t b ", " \t", {"a", "b"}},
        {"auth\trequired  pam_unix.so", " \t", {"auth", "required", "pam_unix.so"}},
        {"1:+15550100", ":", {"1", "+15550100"}},
        {"::a::b::", ":", {"a", "b"}},
        {"a,b;c", ",;", {"a", "b", "c"}},
        {"abc", "", {"abc"}},
    };
    for (const Case& c : cases) {
        Fields out{"stale"};
        SDK::StrUtils::Split(c.text, c.separators, out);
        EXPECT_EQ(c.expected, out) << "'" << c.text << "' at '" << c.separators << "'";
    }
}

TEST(StrUtilsTest, TrimRemovesWhiteSpaceAtBothEndsOnly)
{
    struct Case {
        std::string text;
        std::string expected;
    } cases[] = {
        {"", ""},
        {" \t\r\n\v\f", ""},
        {"x", "x"},
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
