// The module's policy document and its entry points, with the records they log.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Framework/TaskPolicy.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationModule.h"
#include "TwoFactorAuthenticationPolicy.h"

using Poco::Message;

namespace {

const std::string kFeature = "two_factor_authentication_feature";
const std::string kValid = R"({"content":{"refresh_time":42,"echo":0,"local":1,"exclude_user_list":["root"]}})";
const char* const kPolicyFile = "TwoFactorAuthenticationPolicy.cpp";
const char* const kModuleFile = "TwoFactorAuthenticationModule.cpp";

std::string Name(size_t length, char c)
{
    return std::string(length, c);
}

/// A document excluding `count` users of 32 characters each.
std::string ManyNames(int refreshTime, size_t count)
{
    std::string users;
    for (size_t i = 0; i < count; ++i) {
        users += (i == 0 ? "\"" : ",\"") + Name(32, 'n') + "\"";
    }
    return R"({"content":{"refresh_time":)" + std::to_string(refreshTime) + R"(,"exclude_user_list":[)" + users +
           "]}}";
}

std::string UserList(const std::string& elements)
{
    return R"({"content":{"exclude_user_list":[)" + elements + "]}}";
}

std::string InvalidUser(const std::string& elements, int index)
{
    return "Parse task(" + kFeature + ") policy(" + UserList(elements) + ") exclude user(" + std::to_string(index) +
           ") invalid.";
}

TEST(PolicyTest, AcceptedDocumentGivesItsValuesAndNamesTheTask)
{
    const struct {
        std::string document;
        int refreshTime;
        int echo;
        int local;
        std::vector<std::string> users;
    } cases[] = {
        {R"({"content":{"refresh_time":600,"echo":0,"local":0,"exclude_user_list":[" root ","","admin",7]}})", 600, 0,
         0, {"root", "admin"}},
        {R"({"content":{"exclude_user_list":[]}})", 300, 1, 1, {}},
        {R"({"content":{"refresh_time":-5,"exclude_user_list":[]}})", -5, 1, 1, {}},
        {R"({"content":{"refresh_time":"600","echo":true,"local":null,"exclude_user_list":[]}})", 300, 1, 1, {}},
        {"{\"content\":{\"exclude_user_list\":[\" alice \",\"alice\",\"\\t\"]}}", 300, 1, 1, {"alice", "alice"}},
        {"  {\"id\":1,\"content\":{\"local\":1,\"x\":[],\"exclude_user_list\":[\"u\"]}}\n", 300, 1, 1, {"u"}},
        {R"({"content":{"exclude_user_list":["a.b_c-d","svc$","u@ad.example",")" + Name(32, 'x') + R"("]}})", 300, 1,
         1, {"a.b_c-d", "svc$", "u@ad.example", Name(32, 'x')}},
        // The longest module line Linux-PAM reads whole: 1022 characters.
        {ManyNames(300, 28), 300, 1, 1, std::vector<std::string>(28, Name(32, 'n'))},
    };
    for (const auto& c : cases) {
        TfaTest::LogCapture log;
        Engine::TwoFactorAuthenticationPolicy policy(kFeature);
        ASSERT_TRUE(policy.Parse(c.document)) << c.document;
        EXPECT_EQ(policy.GetRefreshTime(), c.refreshTime) << c.document;
        EXPECT_EQ(policy.GetEcho(), c.echo) << c.document;
        EXPECT_EQ(policy.GetLocal(), c.local) << c.document;
        EXPECT_EQ(policy.GetExcludeUserList(), c.users) << c.document;
        ASSERT_EQ(policy.Children().size(), 1u);
        auto* child = dynamic_cast<Framework::TaskPolicy*>(policy.Children().begin()->second);
        ASSERT_NE(child, nullptr);
        EXPECT_EQ(child->name, "two_factor_authentication_task");
        EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION,
                            "Parse feature(" + kFeature + ") policy(" + c.document + ") success.", kPolicyFile))
            << log.Dump();
    }
}

TEST(PolicyTest, RejectedDocumentIsLoggedWhole)
{
    const std::string parse = "Parse feature(" + kFeature + ") policy(";
    const std::string list = "Parse task(" + kFeature + ") policy(";
    const std::pair<std::string, std::string> cases[] = {
        {"{content:", parse + "{content:) failed."},
        {"", parse + ") failed."},
        {R"({"refresh_time":5})", parse + R"({"refresh_time":5}) content failed.)"},
        {R"({"content":[1]})", parse + R"({"content":[1]}) content failed.)"},
        {R"({"content":{"refresh_time":600}})",
         list + R"({"content":{"refresh_time":600}}) exclude user list failed.)"},
        {R"({"content":{"exclude_user_list":"root"}})",
         list + R"({"content":{"exclude_user_list":"root"}}) exclude user list failed.)"},
        // Names that would end the argument, split the list, cut or add PAM lines.
        {UserList(R"("x\nauth sufficient pam_permit.so")"), InvalidUser(R"("x\nauth sufficient pam_permit.so")", 0)},
        {UserList(R"("x exclude_user_list=bob")"), InvalidUser(R"("x exclude_user_list=bob")", 0)},
        {UserList(R"("root","x;bob")"), InvalidUser(R"("root","x;bob")", 1)},
        {UserList(R"("x#y")"), InvalidUser(R"("x#y")", 0)},
        {UserList(R"("x\u0000y")"), InvalidUser(R"("x\u0000y")", 0)},
        {UserList(R"("-x")"), InvalidUser(R"("-x")", 0)},
        {UserList(R"("x\ty")"), InvalidUser(R"("x\ty")", 0)},
        {UserList(R"("jos\u00e9")"), InvalidUser(R"("jos\u00e9")", 0)},
        {UserList("\"" + Name(33, 'x') + "\""), InvalidUser("\"" + Name(33, 'x') + "\"", 0)},
        // One character over the PAM line, and far over it.
        {ManyNames(3000, 28), list + ManyNames(3000, 28) + ") exclude user list too long."},
        {ManyNames(300, 10000), list + ManyNames(300, 10000) + ") exclude user list too long."},
    };
    for (const auto& c : cases) {
        TfaTest::LogCapture log;
        Engine::TwoFactorAuthenticationPolicy policy(kFeature);
        EXPECT_FALSE(policy.Parse(c.first)) << c.first;
        EXPECT_TRUE(policy.Children().empty());
        EXPECT_TRUE(log.Has(Message::PRIO_ERROR, c.second, kPolicyFile)) << log.Dump();
    }
}

// Whatever comes of a pushed document, the policy held so far is marked expired.
TEST(ModuleTest, RefreshFeaturePolicyExpiresTheHeldPolicyOnEveryPath)
{
    const struct {
        std::string feature;
        std::string document;
        std::string error;  // empty: accepted
    } cases[] = {
        {kFeature, kValid, ""},
        {kFeature + " ", kValid,
         "Expected feature name(" + kFeature + "), actual feature name(" + kFeature + " ), refresh policy failed."},
        {"TWO_FACTOR_AUTHENTICATION_FEATURE", kValid,
         "Expected feature name(" + kFeature +
             "), actual feature name(TWO_FACTOR_AUTHENTICATION_FEATURE), refresh policy failed."},
        {kFeature, R"({"content":{}})", "Parse feature(" + kFeature + ") policy failed."},
    };
    for (const auto& c : cases) {
        TfaTest::LogCapture log;
        Engine::TwoFactorAuthenticationModule module;
        Engine::TwoFactorAuthenticationPolicy held(kFeature);
        Framework::Policy* current = &held;
        std::unique_ptr<Framework::Policy> result(module.RefreshFeaturePolicy(c.feature, c.document, current));
        EXPECT_TRUE(held.expired) << c.feature;
        EXPECT_EQ(current, &held) << "the held policy is neither replaced nor deleted";
        EXPECT_EQ(result == nullptr, !c.error.empty()) << c.feature;
        EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Refresh feature(" + c.feature + ") policy.", kModuleFile));
        if (!c.error.empty()) {
            EXPECT_TRUE(log.Has(Message::PRIO_ERROR, c.error, kModuleFile)) << log.Dump();
        }
    }
}

TEST(ModuleTest, InitRegistersAndUnInitRemovesWithTheirRecords)
{
    TfaTest::LogCapture log;
    Engine::TwoFactorAuthenticationModule module;
    EXPECT_STREQ(module.name(), "two_factor_authentication_module");
    ASSERT_EQ(module.Init(), 0);
    // The callback is reachable under "10001" only.
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("10001", kFeature, "not json", current), -2);
    EXPECT_EQ(module.RefreshPolicy("10002", kFeature, kValid, current), -1);
    module.UnInit();
    EXPECT_EQ(module.RefreshPolicy("10001", kFeature, kValid, current), -1) << "callback removed";

    for (const char* text : {"Init module(two_factor_authentication_module).",
                             "Register task(two_factor_authentication_task).",
                             "UnRegister task(two_factor_authentication_task).",
                             "UnInit module(two_factor_authentication_module)."}) {
        EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, text, kModuleFile)) << text << "\n" << log.Dump();
    }
}

} // namespace
