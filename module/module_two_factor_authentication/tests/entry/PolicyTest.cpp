#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Framework/TaskPolicy.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationPolicy.h"

namespace {

const std::string feature = "two_factor_authentication_feature";

struct Accepted {
    const char* name;
    std::string document;
    int refreshTime;
    int echo;
    int local;
    std::vector<std::string> users;
};

class PolicyAccepted : public ::testing::TestWithParam<Accepted> {};

TEST_P(PolicyAccepted, ReadsValuesAndNamesTheTask)
{
    const Accepted& row = GetParam();
    LogCapture log;
    Engine::TwoFactorAuthenticationPolicy policy(feature);
    ASSERT_TRUE(policy.Parse(row.document));
    EXPECT_EQ(policy.GetRefreshTime(), row.refreshTime);
    EXPECT_EQ(policy.GetEcho(), row.echo);
    EXPECT_EQ(policy.GetLocal(), row.local);
    EXPECT_EQ(policy.GetExcludeUserList(), row.users);

    ASSERT_EQ(policy.Children().size(), 1u);
    auto* child = dynamic_cast<Framework::TaskPolicy*>(policy.Children().begin()->second);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->name, "two_factor_authentication_task");
    EXPECT_EQ(child->parent, nullptr);
    EXPECT_EQ(child->task, nullptr);
    EXPECT_EQ(child->context, nullptr);

    log.Expect("Parse feature(" + feature + ") policy(" + row.document + ") success.",
               Poco::Message::PRIO_INFORMATION, "TwoFactorAuthenticationPolicy.cpp");
}

INSTANTIATE_TEST_SUITE_P(
    Documents, PolicyAccepted,
    ::testing::Values(
        Accepted{"full",
                 R"({"content":{"refresh_time":600,"echo":0,"local":0,"exclude_user_list":[" root ","","admin",7]}})",
                 600, 0, 0, {"root", "admin"}},
        Accepted{"defaults", R"({"content":{"exclude_user_list":[]}})", 300, 1, 1, {}},
        Accepted{"zero_refresh", R"({"content":{"refresh_time":0,"exclude_user_list":[]}})", 0, 1, 1, {}},
        Accepted{"negative_refresh", R"({"content":{"refresh_time":-5,"exclude_user_list":[]}})", -5, 1, 1, {}},
        Accepted{"wrong_types_default",
                 R"({"content":{"refresh_time":"600","echo":true,"local":null,"exclude_user_list":[]}})", 300, 1, 1,
                 {}},
        Accepted{"duplicates_kept", "{\"content\":{\"exclude_user_list\":[\" alice \",\"alice\",\"\\t\"]}}", 300, 1, 1,
                 {"alice", "alice"}},
        Accepted{"extra_members_ignored",
                 "  {\"id\":1,\"content\":{\"local\":1,\"x\":[],\"exclude_user_list\":[\"u\"]}}\n", 300, 1, 1,
                 {"u"}}),
    [](const ::testing::TestParamInfo<Accepted>& row) { return std::string(row.param.name); });

struct Rejected {
    const char* name;
    std::string document;
    std::string messageFormat;  // %s stands for the document
};

class PolicyRejected : public ::testing::TestWithParam<Rejected> {};

TEST_P(PolicyRejected, LogsTheWholeDocument)
{
    const Rejected& row = GetParam();
    LogCapture log;
    Engine::TwoFactorAuthenticationPolicy policy(feature);
    EXPECT_FALSE(policy.Parse(row.document));
    EXPECT_TRUE(policy.Children().empty());
    std::string text = row.messageFormat;
    text.replace(text.find("%s"), 2, row.document);
    log.Expect(text, Poco::Message::PRIO_ERROR, "TwoFactorAuthenticationPolicy.cpp");
}

INSTANTIATE_TEST_SUITE_P(
    Documents, PolicyRejected,
    ::testing::Values(
        Rejected{"not_json", "{content:", "Parse feature(" + feature + ") policy(%s) failed."},
        Rejected{"empty", "", "Parse feature(" + feature + ") policy(%s) failed."},
        Rejected{"no_content", R"({"refresh_time":5})", "Parse feature(" + feature + ") policy(%s) content failed."},
        Rejected{"content_not_object", R"({"content":[1]})",
                 "Parse feature(" + feature + ") policy(%s) content failed."},
        Rejected{"no_exclude_list", R"({"content":{"refresh_time":600,"echo":0,"local":0}})",
                 "Parse task(" + feature + ") policy(%s) exclude user list failed."},
        Rejected{"exclude_list_not_array", R"({"content":{"exclude_user_list":"root"}})",
                 "Parse task(" + feature + ") policy(%s) exclude user list failed."}),
    [](const ::testing::TestParamInfo<Rejected>& row) { return std::string(row.param.name); });

TEST(PolicyGetters, ExcludeListIsACopy)
{
    Engine::TwoFactorAuthenticationPolicy policy(feature);
    ASSERT_TRUE(policy.Parse(R"({"content":{"exclude_user_list":["a","b"]}})"));
    std::vector<std::string> copy = policy.GetExcludeUserList();
    copy.push_back("c");
    EXPECT_EQ(policy.GetExcludeUserList(), (std::vector<std::string>{"a", "b"}));
}

} // namespace
