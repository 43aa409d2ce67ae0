#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "LogCapture.h"
#include "TwoFactorAuthenticationModule.h"
#include "TwoFactorAuthenticationPolicy.h"

namespace {

const std::string feature = "two_factor_authentication_feature";
const std::string valid = R"({"content":{"refresh_time":42,"echo":0,"local":1,"exclude_user_list":["root"]}})";
const char* moduleFile = "TwoFactorAuthenticationModule.cpp";

/// A policy standing for the one the framework holds.
std::unique_ptr<Engine::TwoFactorAuthenticationPolicy> HeldPolicy()
{
    return std::make_unique<Engine::TwoFactorAuthenticationPolicy>(feature);
}

struct Refresh {
    const char* name;
    std::string featureName;
    std::string document;
    std::string error;  // empty: accepted
};

class RefreshFeaturePolicy : public ::testing::TestWithParam<Refresh> {};

TEST_P(RefreshFeaturePolicy, MarksTheHeldPolicyExpiredWhateverHappens)
{
    const Refresh& row = GetParam();
    LogCapture log;
    Engine::TwoFactorAuthenticationModule module;
    auto held = HeldPolicy();
    Framework::Policy* current = held.get();

    std::unique_ptr<Framework::Policy> result(module.RefreshFeaturePolicy(row.featureName, row.document, current));

    EXPECT_TRUE(held->expired);
    EXPECT_EQ(current, held.get()) << "the held policy is neither replaced nor deleted";
    log.Expect("Refresh feature(" + row.featureName + ") policy.", Poco::Message::PRIO_INFORMATION, moduleFile);
    if (row.error.empty()) {
        ASSERT_NE(result, nullptr);
        EXPECT_FALSE(result->expired);
        EXPECT_EQ(result->name, feature);
    } else {
        EXPECT_EQ(result, nullptr);
        log.Expect(row.error, Poco::Message::PRIO_ERROR, moduleFile);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RefreshFeaturePolicy,
    ::testing::Values(
        Refresh{"accepted", feature, valid, ""},
        Refresh{"trailing_blank_in_name", feature + " ", valid,
                "Expected feature name(" + feature + "), actual feature name(" + feature +
                    " ), refresh policy failed."},
        Refresh{"other_feature", "baseline_feature", valid,
                "Expected feature name(" + feature + "), actual feature name(baseline_feature), refresh policy failed."},
        Refresh{"upper_case_name", "TWO_FACTOR_AUTHENTICATION_FEATURE", valid,
                "Expected feature name(" + feature +
                    "), actual feature name(TWO_FACTOR_AUTHENTICATION_FEATURE), refresh policy failed."},
        Refresh{"rejected_document", feature, R"({"content":{}})", "Parse feature(" + feature + ") policy failed."}),
    [](const ::testing::TestParamInfo<Refresh>& row) { return std::string(row.param.name); });

TEST(RefreshFeaturePolicyFirst, NoHeldPolicyReturnsTheNewOne)
{
    Engine::TwoFactorAuthenticationModule module;
    Framework::Policy* current = nullptr;
    std::unique_ptr<Framework::Policy> result(module.RefreshFeaturePolicy(feature, valid, current));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(current, nullptr);
    auto* policy = dynamic_cast<Engine::TwoFactorAuthenticationPolicy*>(result.get());
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(policy->GetRefreshTime(), 42);
    EXPECT_EQ(policy->GetEcho(), 0);
}

TEST(ModuleLifecycle, InitRegistersAndUnInitRemovesWithTheirRecords)
{
    LogCapture log;
    Engine::TwoFactorAuthenticationModule module;
    EXPECT_STREQ(module.name(), "two_factor_authentication_module");
    ASSERT_EQ(module.Init(), 0);
    log.Expect("Init module(two_factor_authentication_module).", Poco::Message::PRIO_INFORMATION, moduleFile);
    log.Expect("Register task(two_factor_authentication_task).", Poco::Message::PRIO_INFORMATION, moduleFile);

    // The callback is reachable under "10001" and feeds the framework.
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("10001", feature, "not json", current), -2);
    EXPECT_EQ(module.RefreshPolicy("10002", feature, valid, current), -1);

    module.UnInit();
    log.Expect("UnRegister task(two_factor_authentication_task).", Poco::Message::PRIO_INFORMATION, moduleFile);
    log.Expect("UnInit module(two_factor_authentication_module).", Poco::Message::PRIO_INFORMATION, moduleFile);
    EXPECT_EQ(module.RefreshPolicy("10001", feature, valid, current), -1) << "callback removed";
}

TEST(ModuleLifecycle, UnInitWithoutInitRunsItsStepsQuietly)
{
    LogCapture log;
    Engine::TwoFactorAuthenticationModule module;
    module.UnInit();
    EXPECT_FALSE(log.channel->Contains("UnRegister task"));
    log.Expect("UnInit module(two_factor_authentication_module).", Poco::Message::PRIO_INFORMATION, moduleFile);
}

} // namespace
