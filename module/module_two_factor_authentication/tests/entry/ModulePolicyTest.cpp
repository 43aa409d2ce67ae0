// The module's policy document and its entry points, with the records they log.
#include "TfaTestSupport.h"
#include "TwoFactorAuthenticationModule.h"
#include "TwoFactorAuthenticationPolicy.h"

using namespace TfaTest;

namespace {

const std::string kFeature = "two_factor_authentication_feature";
const std::string kValid = R"({"content":{"refresh_time":42,"echo":0,"local":1,"exclude_user_list":["root"]}})";

/// A document excluding `users` (array elements) and `count` more names of 32 characters.
std::string Excluding(std::string users, size_t count = 0, int refreshTime = 300)
{
    for (size_t i = 0; i < count; ++i) {
        users += (i == 0 ? "\"" : ",\"") + std::string(32, 'n') + "\"";
    }
    return R"({"content":{"refresh_time":)" + std::to_string(refreshTime) + R"(,"exclude_user_list":[)" + users + "]}}";
}

TEST(PolicyTest, AcceptedDocumentGivesItsValues)
{
    Engine::TwoFactorAuthenticationPolicy policy(kFeature);
    ASSERT_TRUE(policy.Parse(R"( {"id":1,"content":{"refresh_time":-5,"echo":0,"local":0,"exclude_user_list":)"
                             R"([" root\t\r\n","",7,"\t","a.b_c-d","svc$","u@ad.example","svc$"]}} )"));
    EXPECT_EQ(std::make_tuple(policy.GetRefreshTime(), policy.GetEcho(), policy.GetLocal()), std::make_tuple(-5, 0, 0));
    EXPECT_EQ(policy.GetExcludeUserList(),
              (std::vector<std::string>{"root", "a.b_c-d", "svc$", "u@ad.example", "svc$"}));
    EXPECT_EQ(policy.Children().size(), 1u) << "the task it drives";
    // 28 names make the longest module line Linux-PAM reads whole: 1022 characters.
    EXPECT_TRUE(Engine::TwoFactorAuthenticationPolicy(kFeature).Parse(Excluding("", 28)));
}

TEST(PolicyTest, RejectedDocumentIsLoggedWhole)
{
    const std::string parse = "E Parse feature(" + kFeature + ") policy(", invalid = ") exclude user(0) invalid.";
    const std::pair<std::string, std::string> cases[] = {
        {"{content:", parse + "{content:) failed."},
        {R"({"content":[1]})", parse + R"({"content":[1]}) content failed.)"},
        {R"({"content":{"exclude_user_list":"root"}})", ") exclude user list failed."},
        // Names that would end the argument, split the list, cut or add PAM lines.
        {Excluding(R"("x\nauth sufficient pam_permit.so")"), invalid},
        {Excluding(R"("x exclude_user_list=b")"), invalid},
        {Excluding(R"("root","x;bob")"), ") exclude user(1) invalid."}, {Excluding(R"("x#y")"), invalid},
        {Excluding(R"("x\u0000y")"), invalid}, {Excluding(R"("-x")"), invalid}, {Excluding(R"("x\ty")"), invalid},
        {Excluding(R"("jos\u00e9")"), invalid}, {Excluding("\"" + std::string(33, 'x') + "\""), invalid},
        // One character over the longest PAM line, and far over it.
        {Excluding("", 28, 3000), ") exclude user list too long."},
        {Excluding("", 10000), ") exclude user list too long."}};
    for (const auto& [document, error] : cases) {
        LogCapture log;
        Engine::TwoFactorAuthenticationPolicy policy(kFeature);
        EXPECT_FALSE(policy.Parse(document)) << document;
        EXPECT_TRUE(policy.Children().empty());
        // The whole document is quoted, so that a rejected one can be read in the log.
        EXPECT_THAT(log.Records(),
                    Contains(error[0] == 'E' ? error : "E Parse task(" + kFeature + ") policy(" + document + error));
    }
}

// Whatever comes of a pushed document, the policy held so far is marked expired.
TEST(ModuleTest, RefreshFeaturePolicyExpiresTheHeldPolicyOnEveryPath)
{
    const std::string unexpected = "E Expected feature name(" + kFeature + "), actual feature name(";
    const std::string cases[][3] = {  // feature, document, error record (empty: accepted)
        {kFeature, kValid, ""}, {kFeature + " ", kValid, unexpected + kFeature + " ), refresh policy failed."},
        {kFeature, "{}", "E Parse feature(" + kFeature + ") policy failed."}};
    for (const auto& [feature, document, error] : cases) {
        LogCapture log;
        Engine::TwoFactorAuthenticationModule module;
        Engine::TwoFactorAuthenticationPolicy held(kFeature);
        Framework::Policy* current = &held;
        std::unique_ptr<Framework::Policy> result(module.RefreshFeaturePolicy(feature, document, current));
        EXPECT_TRUE(held.expired) << feature;
        EXPECT_EQ(current, &held) << "the held policy is neither replaced nor deleted";
        EXPECT_EQ(result == nullptr, !error.empty()) << feature;
        EXPECT_THAT(log.Records(), Contains(error.empty() ? "I Refresh feature(" + kFeature + ") policy." : error));
    }
}

TEST(ModuleTest, InitRegistersTheCallbackUnderItsIdAndUnInitRemovesIt)
{
    LogCapture log;
    Engine::TwoFactorAuthenticationModule module;
    ASSERT_EQ(module.Init(), 0);
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("10002", kFeature, kValid, current), -1);
    EXPECT_EQ(module.RefreshPolicy("10001", kFeature, "{}", current), -2);
    module.UnInit();
    EXPECT_EQ(module.RefreshPolicy("10001", kFeature, kValid, current), -1) << "callback removed";
    EXPECT_EQ(log.Records(),
              (Records{"I Init module(two_factor_authentication_module).",
                       "I Register task(two_factor_authentication_task).",
                       "I Refresh feature(" + kFeature + ") policy.",
                       "E Parse feature(" + kFeature + ") policy({}) content failed.",
                       "E Parse feature(" + kFeature + ") policy failed.",
                       "I UnRegister task(two_factor_authentication_task).",
                       "I UnInit module(two_factor_authentication_module)."}));
}

} // namespace
