// The configuration file and command line: every fault is one line on
// standard error naming the file and the key, with exit status 2; a good
// file yields the settings the agent runs with.

#include <gtest/gtest.h>

#include <algorithm>

#include "AgentConfig.h"
#include "AgentTestSupport.h"
#include "CommandLine.h"
#include "TestSupport/TempDir.h"

using AgentTest::RunAgent;

namespace {

/// A complete configuration; each fault below breaks one line of it.
std::string GoodConfig(const std::string& dir)
{
    return AgentTest::ConfigText(dir, "installation_path = " + dir + "/opt", "two_factor_authentication_module",
                                 "two_factor_authentication_feature");
}

/// The good configuration with the line starting with `line` replaced by
/// `replacement` (removed when that is empty).
std::string Edited(const std::string& good, const std::string& line, const std::string& replacement)
{
    const std::string::size_type at = good.find("\n" + line) + 1;
    const std::string::size_type end = good.find('\n', at) + 1;
    return good.substr(0, at) + replacement + (replacement.empty() ? "" : "\n") + good.substr(end);
}

struct BadConfig {
    const char* name;
    const char* line;
    const char* replacement;
    const char* expected;      ///< what the message says after "<file>: "
    unsigned int mode = 0644;  ///< of the file; 0: no file at all
};

const BadConfig kBadConfigs[] = {
    {"agent_id_missing", "id = ", "", "missing key agent.id"},
    {"service_address_missing", "address = ", "", "missing key service.address"},
    {"ca_file_missing", "ca_file = ", "", "missing key service.ca_file"},
    {"token_file_missing", "auth_token_file = ", "", "missing key service.auth_token_file"},
    {"address_bad", "address = ", "address = a b:99999", "bad value for service.address"},
    {"timeout_out_of_range", "connect_timeout", "connect_timeout = 0", "bad value for service.connect_timeout"},
    {"log_level_bad", "level = ", "level = loud", "bad value for log.level"},
    {"module_dir_relative", "id = ", "id = agent-7\nmodule_dir = lib/modules",
     "bad value for agent.module_dir: 'lib/modules' (absolute path)"},
    {"pid_file_relative", "pid_file = ", "pid_file = agent.pid",
     "bad value for agent.pid_file: 'agent.pid' (absolute path)"},
    {"policy_file_missing", "file = ", "", "missing key policy.tfa.file"},
    {"policy_file_relative", "file = ", "file = tfa.json", "bad value for policy.tfa.file"},
    {"policy_module_missing", "module = ", "", "missing key policy.tfa.module"},
    {"policy_callback_missing", "callback = ", "", "missing key policy.tfa.callback"},
    {"policy_callback_blank", "callback = ", "callback = 10 001",
     "bad value for policy.tfa.callback: '10 001' (a name without blanks)"},
    {"policy_feature_missing", "feature = ", "", "missing key policy.tfa.feature"},
    {"no_policy_section", "[policy.", "", "missing section [policy.NAME]"},
    {"malformed_line", "feature = ", "feature = f\nthis is not a key", "malformed: line 19"},
    {"writable_by_others", "id = ", "id = agent-7", "writable by group or others", 0664},
    {"file_missing", "id = ", "id = agent-7", "cannot read: No such file or directory", 0},
};

class BadConfigTest : public ::testing::TestWithParam<BadConfig> {};

TEST_P(BadConfigTest, IsOneLineNamingFileAndKeyWithStatus2)
{
    TestSupport::TempDir dir;
    const BadConfig& c = GetParam();
    const std::string config = dir.File("agent.conf");
    if (c.mode != 0) {
        AgentTest::WriteFile(config, Edited(GoodConfig(dir.Path()), c.line, c.replacement), c.mode);
    }
    const AgentTest::AgentRun run = RunAgent({"--config", config}, dir.Path());
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.find("brackmoor-agent: " + config + ": " + c.expected), 0u) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_EQ(run.out, "");
}

INSTANTIATE_TEST_SUITE_P(EveryFault, BadConfigTest, ::testing::ValuesIn(kBadConfigs),
                         [](const ::testing::TestParamInfo<BadConfig>& test) { return std::string(test.param.name); });

TEST(ConfigFileTest, GoodFileGivesTheSettingsAndPolicyOptionReplacesTheFirstFeedsFile)
{
    TestSupport::TempDir dir;
    const std::string second = "[policy.second]\nfile = /etc/x.json\nmodule = m\ncallback = 7\nfeature = f\n";
    const std::string config = dir.Write("agent.conf", GoodConfig(dir.Path()) + second);
    Agent::AgentSettings settings;
    std::string error;
    ASSERT_TRUE(Agent::AgentConfig::Load(config, "/srv/other.json", settings, error)) << error;
    // Module, callback, feature, pid file and log directory are proven by the runs of the agent.
    EXPECT_EQ(settings.moduleDir, dir.Path() + "/opt/lib/modules/");  // the default under installation_path
    ASSERT_EQ(settings.feeds.size(), 2u);
    EXPECT_EQ(settings.feeds[0].file, "/srv/other.json");
    EXPECT_EQ(settings.feeds[1].name, "second");
    EXPECT_EQ(settings.feeds[1].file, "/etc/x.json");
}

struct CommandCase {
    std::vector<std::string> args;
    Agent::Command command;
    const char* error;
};

TEST(CommandLineTest, ParsesEachFormAndRefusesTheRest)
{
    using Agent::Command;
    const CommandCase cases[] = {
        {{}, Command::Run, ""},
        {{"--config", "/a.conf", "--policy=/p.json", "--foreground"}, Command::Run, ""},
        {{"status", "--root", "/r", "--sshd=/bin/true"}, Command::Status, ""},
        {{"--version"}, Command::Version, ""},
        {{"status", "--help"}, Command::Help, ""},
        {{"--root", "/r"}, Command::Invalid, "unknown option --root"},
        {{"status", "--policy", "/p"}, Command::Invalid, "unknown option --policy"},
        {{"--config"}, Command::Invalid, "option --config needs a value"},
        {{"--config="}, Command::Invalid, "option --config needs a value"},
        {{"start"}, Command::Invalid, "unknown argument start"},
    };
    for (const CommandCase& c : cases) {
        const Agent::CommandLine parsed = Agent::CommandLine::Parse(c.args);
        EXPECT_EQ(parsed.command, c.command) << ::testing::PrintToString(c.args);
        EXPECT_EQ(parsed.error, c.error) << ::testing::PrintToString(c.args);
    }
    // The values of the other options are proven by the runs of the agent and of the status command.
    EXPECT_EQ(Agent::CommandLine::Parse(cases[1].args).policyPath, "/p.json");
}

TEST(CommandLineTest, HelpAndVersionPrintAndSucceed)
{
    TestSupport::TempDir dir;
    EXPECT_EQ(RunAgent({"--version"}, dir.Path()).out, std::string("brackmoor-agent ") + BRACKMOOR_VERSION + "\n");
    const AgentTest::AgentRun help = RunAgent({"--help"}, dir.Path());
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("brackmoor-agent status"), std::string::npos);
    const AgentTest::AgentRun wrong = RunAgent({"--frobnicate"}, dir.Path());
    EXPECT_EQ(wrong.status, 2);
    EXPECT_EQ(wrong.err, "brackmoor-agent: unknown option --frobnicate (see --help)\n");
}

} // namespace
