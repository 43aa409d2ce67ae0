#include <string>

#include <gtest/gtest.h>

#include "SDK/JsonUtils.h"

namespace {

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value)) << text;
    return value;
}

TEST(JsonUtilsTest, ParseAcceptsOneStrictValueOnly)
{
    struct Case {
        std::string text;
        int expected;
    } cases[] = {
        {"{\"content\":{\"refresh_time\":300}}", 0},
        {"[1,2]", 0},
        {"\"text\"", 0},
        {"  {}  ", 0},
        {"", -1},
        {"{", -1},
        {"{} {}", -1},
        {"{\"a\":1,}", -1},
        {"{'a':1}", -1},
        {"// c\n{}", -1},
        {"{\"a\":1,\"a\":2}", -1},
        {std::string(5000, '[') + std::string(5000, ']'), -1},
    };
    for (const Case& c : cases) {
        Json::Value out(42);
        EXPECT_EQ(c.expected, SDK::JsonUtils::ParseJsonStr(c.text.data(), c.text.size(), out)) << c.text.substr(0, 30);
        if (c.expected != 0) {
            EXPECT_TRUE(out.isNull());
        }
    }
    Json::Value out;
    EXPECT_EQ(-1, SDK::JsonUtils::ParseJsonStr(nullptr, 3, out));
    // Only `length` bytes count: the text need not end with NUL.
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr("[1]garbage", 3, out));
}

TEST(JsonUtilsTest, GetIntValueReadsIntegralNumbersOnly)
{
    const Json::Value v = Parse(R"({"int":600,"real":600.0,"frac":600.5,"text":"600","bool":true,
                                    "big":3000000000,"neg":-5,"null":null})");
    struct Case {
        const char* key;
        int expected;
    } cases[] = {
        {"int", 600}, {"real", 600}, {"frac", -1}, {"text", -1}, {"bool", -1},
        {"big", -1},  {"neg", -5},   {"null", -1}, {"absent", -1}, {nullptr, -1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.expected, SDK::JsonUtils::GetIntValue(v, c.key, -1)) << (c.key ? c.key : "null key");
    }
}

TEST(JsonUtilsTest, AccessorsOnNonObjectsGiveDefaultsInsteadOfAsserting)
{
    Json::Value out(7);
    for (const Json::Value& v : {Json::Value(), Json::Value(5), Json::Value("s"), Parse("[1,2]")}) {
        EXPECT_EQ(3, SDK::JsonUtils::GetIntValue(v, "a", 3));
        EXPECT_EQ("d", SDK::JsonUtils::GetStringValue(v, "a", "d"));
        EXPECT_FALSE(SDK::JsonUtils::GetSubobjectValue(v, "a", out));
        EXPECT_FALSE(SDK::JsonUtils::GetArrayValue(v, "a", out));
    }
    EXPECT_EQ(7, out.asInt());
    EXPECT_EQ("", SDK::JsonUtils::GetStringValue(Json::Value(), "a", nullptr));
}

TEST(JsonUtilsTest, TypedMemberAccess)
{
    const Json::Value v = Parse(R"({"content":{"echo":1},"list":["a"],"name":"x","num":1})");
    Json::Value out;
    EXPECT_TRUE(SDK::JsonUtils::GetSubobjectValue(v, "content", out));
    EXPECT_EQ(1, SDK::JsonUtils::GetIntValue(out, "echo", 0));
    EXPECT_FALSE(SDK::JsonUtils::GetSubobjectValue(v, "list", out));
    EXPECT_TRUE(SDK::JsonUtils::GetArrayValue(v, "list", out));
    EXPECT_EQ(1u, out.size());
    EXPECT_FALSE(SDK::JsonUtils::GetArrayValue(v, "content", out));
    EXPECT_EQ("x", SDK::JsonUtils::GetStringValue(v, "name", "d"));
    EXPECT_EQ("d", SDK::JsonUtils::GetStringValue(v, "num", "d"));
}

TEST(JsonUtilsTest, JsonToStringIsCompactAndRoundTrips)
{
    Json::Value v(Json::objectValue);
    v["random"] = "42";
    v["n"] = 1;
    v["list"] = Json::Value(Json::arrayValue);
    v["list"].append("é");
    const std::string text = SDK::JsonUtils::JsonToString(v);
    EXPECT_EQ("{\"list\":[\"é\"],\"n\":1,\"random\":\"42\"}", text);
    EXPECT_EQ(v, Parse(text));
}

} // namespace
