// The shipped examples are usable as they stand: the configuration loads and
// the policy document is one the two-factor module accepts.

#include <gtest/gtest.h>

#include "AgentConfig.h"
#include "TestSupport/TempDir.h"
#include "TwoFactorAuthenticationPolicy.h"

namespace {

const std::string kExamples = BRACKMOOR_PACKAGING_DIR;

TEST(ExamplesTest, ConfigurationLoadsWithTheDocumentedDefaults)
{
    Agent::AgentSettings settings;
    std::string error;
    ASSERT_TRUE(Agent::AgentConfig::Load(kExamples + "/agent.conf.example", "", settings, error)) << error;
    EXPECT_EQ(settings.moduleDir, "/opt/brackmoor/lib/modules/");
    EXPECT_EQ(settings.pidFile, "/run/brackmoor-agent.pid");
    EXPECT_EQ(settings.logDir, "/var/log/brackmoor");
    ASSERT_EQ(settings.feeds.size(), 1u);
    EXPECT_EQ(settings.feeds[0].file, "/etc/brackmoor/two_factor_authentication.json");
    EXPECT_EQ(settings.feeds[0].module, "two_factor_authentication_module");
    EXPECT_EQ(settings.feeds[0].callback, "10001");
    EXPECT_EQ(settings.feeds[0].feature, "two_factor_authentication_feature");
}

TEST(ExamplesTest, PolicyIsAcceptedByTheModule)
{
    Engine::TwoFactorAuthenticationPolicy policy("two_factor_authentication_feature");
    ASSERT_TRUE(policy.Parse(TestSupport::ReadWholeFile(kExamples + "/two_factor_authentication.json.example")));
    EXPECT_EQ(policy.GetRefreshTime(), 300);
    EXPECT_EQ(policy.GetEcho(), 1);
    EXPECT_EQ(policy.GetLocal(), 1);
    EXPECT_EQ(policy.GetExcludeUserList(), std::vector<std::string>{"root"});
}

} // namespace
