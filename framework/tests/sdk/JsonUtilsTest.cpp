#include <string>

#include <gtest/gtest.h>

#include "SDK/JsonUtils.h"

namespace {

using SDK::JsonUtils;

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    EXPECT_EQ(0, JsonUtils::ParseJsonStr(text.data(), text.size(), value)) << text;
    return value;
}

TEST(JsonUtilsTest, ParseAcceptsOneStrictValueOnly)
{
    const std::pair<std::string, int> cases[] = {
        {"{\"content\":{\"refresh_time\":300}}", 0},
        {"[1,2]", 0},
        {"  \"text\"  ", 0},
        {"", -1},
        {"{", -1},
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
    // Only `length` bytes count: the text need not end with NUL.
    EXPECT_EQ(0, JsonUtils::ParseJsonStr("[1]garbage", 3, out));
}

TEST(JsonUtilsTest, GetIntValueReadsIntegralNumbersOnly)
{
    const Json::Value v = Parse(R"({"int":600,"real":600.0,"frac":600.5,"text":"600","bool":true,
                                    "big":3000000000,"neg":-5,"null":null})");
    const std::pair<const char*, int> cases[] = {
        {"int", 600}, {"real", 600}, {"frac", -1}, {"text", -1}, {"bool", -1},
        {"big", -1},  {"neg", -5},   {"null", -1}, {"absent", -1}, {nullptr, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, JsonUtils::GetIntValue(v, c.first, -1)) << (c.first ? c.first : "null key");
    }
}

TEST(JsonUtilsTest, MembersAreReadByTypeAndNonObjectsGiveDefaults)
{
    const Json::Value v = Parse(R"({"content":{"echo":1},"list":["a"],"name":"x","num":1})");
    Json::Value out;
    EXPECT_TRUE(JsonUtils::GetSubobjectValue(v, "content", out) && out == Parse(R"({"echo":1})"));
    EXPECT_TRUE(JsonUtils::GetArrayValue(v, "list", out) && out == Parse(R"(["a"])"));
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(v, "list", out));
    EXPECT_FALSE(JsonUtils::GetArrayValue(v, "content", out));
    EXPECT_EQ("x", JsonUtils::GetStringValue(v, "name", "d"));
    EXPECT_EQ("d", JsonUtils::GetStringValue(v, "num", "d"));
    // No assertion inside the JSON library, whatever the value is.
    for (const Json::Value& other : {Json::Value(), Json::Value(5), Json::Value("s"), Parse("[1,2]")}) {
        EXPECT_EQ(3, JsonUtils::GetIntValue(other, "a", 3));
        EXPECT_EQ("d", JsonUtils::GetStringValue(other, "a", "d"));
        EXPECT_FALSE(JsonUtils::GetSubobjectValue(other, "a", out) || JsonUtils::GetArrayValue(other, "a", out));
    }
    EXPECT_EQ("", JsonUtils::GetStringValue(Json::Value(), "a", nullptr));
}

TEST(JsonUtilsTest, JsonToStringIsCompactAndRoundTrips)
{
    Json::Value v(Json::objectValue);
    v["random"] = "42";
    v["n"] = 1;
    v["list"].append("é");
    const std::string text = JsonUtils::JsonToString(v);
    EXPECT_EQ("{\"list\":[\"é\"],\"n\":1,\"random\":\"42\"}", text);
    EXPECT_EQ(v, Parse(text));
}

} // namespace
