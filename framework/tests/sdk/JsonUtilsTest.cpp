#include <string>

#include <gtest/gtest.h>

#include "SDK/JsonUtils.h"

// Members read by type, wrong types and malformed policies are proven through
// the two-factor module's policy suite; what it cannot show is here.

namespace {

using SDK::JsonUtils;

TEST(JsonUtilsTest, ParseAcceptsOneStrictValueOnly)
{
    const std::pair<std::string, int> cases[] = {
        {"{\"content\":{\"refresh_time\":300}}", 0},
        {"  \"text\"  ", 0},
        {"{} {}", -1},
        {"{\"a\":1,}", -1},
        {"{'a':1}", -1},
        {"// c\n{}", -1},
        {"{\"a\":1,\"a\":2}", -1},
        {std::string(5000, '[') + std::string(5000, ']'), -1},
    };
    for (const auto& c : cases) {
        Json::Value out(42);
        EXPECT_EQ(c.second, JsonUtils::ParseJsonStr(c.first.data(), c.first.size(), out)) << c.first.substr(0, 30);
        EXPECT_TRUE(c.second == 0 || out.isNull()) << c.first.substr(0, 30);
    }
    Json::Value out;
    EXPECT_EQ(-1, JsonUtils::ParseJsonStr(nullptr, 3, out));
    EXPECT_EQ(0, JsonUtils::ParseJsonStr("[1]garbage", 3, out)) << "only `length` bytes count";
}

TEST(JsonUtilsTest, GetIntValueTakesIntegralNumbersThatFitOnly)
{
    Json::Value v;
    const std::string text = R"({"real":600.0,"frac":600.5,"big":3000000000})";
    ASSERT_EQ(0, JsonUtils::ParseJsonStr(text.data(), text.size(), v));
    EXPECT_EQ(600, JsonUtils::GetIntValue(v, "real", -1));
    EXPECT_EQ(-1, JsonUtils::GetIntValue(v, "frac", -1));
    EXPECT_EQ(-1, JsonUtils::GetIntValue(v, "big", -1));
}

} // namespace
