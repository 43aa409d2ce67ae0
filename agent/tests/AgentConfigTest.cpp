// The configuration file and command line: every fault is one line on
// standard error naming the file and the key, with exit status 2; a good
// file yields the settings the agent runs with.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "AgentConfig.h"
#include "AgentTestSupport.h"
#include "CommandLine.h"
#include "TestSupport/TempDir.h"

using AgentTest::RunAgent;

namespace {

/// A complete configuration; each case below breaks one thing in it.
std::string GoodConfig(const std::string& dir)
{
    return "[agent]\n"
           "id = agent-7\n"
           "installation_path = " + dir + "/opt\n"
           "pid_file = " + dir + "/agent.pid\n"
           "[service]\n"
           "address = verify.example:8443\n"
           "ca_file = " + dir + "/ca.pem\n"
           "auth_token_file = " + dir + "/token\n"
           "connect_timeout = 5\n"
           "[log]\n"
           "dir = " + dir + "/log\n"
           "level = information\n"
           "[policy.two_factor_authentication]\n"
           "file = " + dir + "/tfa.json\n"
           "module = two_factor_authentication_module\n"
           "callback = 10001\n"
           "feature = two_factor_authentication_feature\n";
}

/// Where the first line starting with `linePrefix` begins.
std::string::size_type LineAt(const std::string& text, const std::string& linePrefix)
{
    return text.find("\n" + linePrefix) + 1;
}

std::string Without(const std::string& text, const std::string& linePrefix)
{
    const std::string::size_type at = LineAt(text, linePrefix);
    return text.substr(0, at) + text.substr(text.find('\n', at) + 1);
}

std::string Replaced(const std::string& text, const std::string& linePrefix, const std::string& line)
{
    const std::string::size_type at = LineAt(text, linePrefix);
    return text.substr(0, at) + line + "\n" + text.substr(text.find('\n', at) + 1);
}

struct BadConfig {
    const char* name;
    std::function<std::string(const std::string& good)> edit;
    const char* expected;  ///< what the message says after "<file>: "
};

const BadConfig kBadConfigs[] = {
    {"agent_id_missing", [](const std::string& g) { return Without(g, "id = "); }, "missing key agent.id"},
    {"service_address_missing", [](const std::string& g) { return Without(g, "address = "); },
     "missing key service.address"},
    {"ca_file_missing", [](const std::string& g) { return Without(g, "ca_file = "); }, "missing key service.ca_file"},
    {"token_file_missing", [](const std::string& g) { return Without(g, "auth_token_file = "); },
     "missing key service.auth_token_file"},
    {"address_bad", [](const std::string& g) { return Replaced(g, "address = ", "address = a b:99999"); },
     "bad value for service.address"},
    {"timeout_out_of_range", [](const std::string& g) { return Replaced(g, "connect_timeout", "connect_timeout = 0"); },
     "bad value for service.connect_timeout"},
    {"log_level_bad", [](const std::string& g) { return Replaced(g, "level = ", "level = loud"); },
     "bad value for log.level"},
    {"module_dir_relative",
     [](const std::string& g) { return Replaced(g, "id = ", "id = agent-7\nmodule_dir = lib/modules"); },
     "bad value for agent.module_dir: 'lib/modules' (absolute path)"},
    {"pid_file_relative", [](const std::string& g) { return Replaced(g, "pid_file = ", "pid_file = agent.pid"); },
     "bad value for agent.pid_file: 'agent.pid' (absolute path)"},
    {"policy_file_missing", [](const std::string& g) { return Without(g, "file = "); },
     "missing key policy.two_factor_authentication.file"},
    {"policy_file_relative", [](const std::string& g) { return Replaced(g, "file = ", "file = tfa.json"); },
     "bad value for policy.two_factor_authentication.file"},
    {"policy_module_missing", [](const std::string& g) { return Without(g, "module = "); },
     "missing key policy.two_factor_authentication.module"},
    {"policy_callback_missing", [](const std::string& g) { return Without(g, "callback = "); },
     "missing key policy.two_factor_authentication.callback"},
    {"policy_callback_blank", [](const std::string& g) { return Replaced(g, "callback = ", "callback = 10 001"); },
     "bad value for policy.two_factor_authentication.callback: '10 001' (a name without blanks)"},
    {"policy_feature_missing", [](const std::string& g) { return Without(g, "feature = "); },
     "missing key policy.two_factor_authentication.feature"},
    {"no_policy_section", [](const std::string& g) { return g.substr(0, g.find("[policy.")); },
     "missing section [policy.NAME]"},
    {"malformed_line", [](const std::string& g) { return g + "this is not a key\n"; }, "malformed: line 18"},
};

class BadConfigTest : public ::testing::TestWithParam<BadConfig> {};

TEST_P(BadConfigTest, IsOneLineNamingFileAndKeyWithStatus2)
{
    TestSupport::TempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string config = dir.Write("agent.conf", GetParam().edit(GoodConfig(dir.Path())));
    std::string out;
    std::string err;
    EXPECT_EQ(RunAgent({"--config", config}, dir.Path(), out, err), 2);
    EXPECT_EQ(err.find("brackmoor-agent: " + config + ": " + GetParam().expected), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_EQ(out, "");
}

INSTANTIATE_TEST_SUITE_P(EveryFault, BadConfigTest, ::testing::ValuesIn(kBadConfigs),
                         [](const ::testing::TestParamInfo<BadConfig>& test) { return std::string(test.param.name); });

TEST(ConfigFileTest, MissingFileIsNamedWithStatus2)
{
    TestSupport::TempDir dir;
    std::string out;
    std::string err;
    EXPECT_EQ(RunAgent({"--config", dir.File("absent.conf")}, dir.Path(), out, err), 2);
    EXPECT_EQ(err, "brackmoor-agent: " + dir.File("absent.conf") + ": cannot read: No such file or directory\n");
}

TEST(ConfigFileTest, FileOthersMayWriteIsRefusedWithStatus2)
{
    TestSupport::TempDir dir;
    const std::string config = dir.Write("agent.conf", GoodConfig(dir.Path()), 0664);
    std::string out;
    std::string err;
    EXPECT_EQ(RunAgent({"--config", config}, dir.Path(), out, err), 2);
    EXPECT_EQ(err, "brackmoor-agent: " + config + ": writable by group or others\n");
}

TEST(ConfigFileTest, GoodFileGivesTheSettingsWithDefaults)
{
    TestSupport::TempDir dir;
    const std::string config = dir.Write("agent.conf", GoodConfig(dir.Path()) +
                                                           "[policy.second]\nfile = /etc/x.json\nmodule = m\n"
                                                           "callback = 7\nfeature = f\n");
    Agent::AgentSettings settings;
    std::string error;
    ASSERT_TRUE(Agent::AgentConfig::Load(config, "", settings, error)) << error;
    EXPECT_EQ(settings.installationPath, dir.Path() + "/opt/");
    EXPECT_EQ(settings.moduleDir, dir.Path() + "/opt/lib/modules/");
    EXPECT_EQ(settings.pidFile, dir.Path() + "/agent.pid");
    EXPECT_EQ(settings.logDir, dir.Path() + "/log");
    ASSERT_EQ(settings.feeds.size(), 2u);
    EXPECT_EQ(settings.feeds[0].name, "two_factor_authentication");
    EXPECT_EQ(settings.feeds[0].file, dir.Path() + "/tfa.json");
    EXPECT_EQ(settings.feeds[0].module, "two_factor_authentication_module");
    EXPECT_EQ(settings.feeds[0].callback, "10001");
    EXPECT_EQ(settings.feeds[0].feature, "two_factor_authentication_feature");
    EXPECT_EQ(settings.feeds[1].name, "second");
    EXPECT_EQ(settings.feeds[1].file, "/etc/x.json");
}

TEST(ConfigFileTest, PolicyOptionReplacesTheFirstFeedsFileOnly)
{
    TestSupport::TempDir dir;
    const std::string config = dir.Write("agent.conf", GoodConfig(dir.Path()) + "[policy.second]\nfile = /etc/x.json\n"
                                                                                "module = m\ncallback = 7\nfeature = f\n");
    Agent::AgentSettings settings;
    std::string error;
    ASSERT_TRUE(Agent::AgentConfig::Load(config, "/srv/other.json", settings, error)) << error;
    EXPECT_EQ(settings.feeds[0].file, "/srv/other.json");
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
    const Agent::CommandLine run = Agent::CommandLine::Parse({"--config", "/a.conf", "--policy=/p.json", "--foreground"});
    EXPECT_EQ(run.configPath, "/a.conf");
    EXPECT_EQ(run.policyPath, "/p.json");
    EXPECT_TRUE(run.foreground);
    const Agent::CommandLine status = Agent::CommandLine::Parse({"status", "--root", "/r", "--sshd=/bin/true"});
    EXPECT_EQ(status.rootDir, "/r");
    EXPECT_EQ(status.sshdPath, "/bin/true");
}

TEST(CommandLineTest, HelpAndVersionPrintAndSucceed)
{
    TestSupport::TempDir dir;
    std::string out;
    std::string err;
    EXPECT_EQ(RunAgent({"--version"}, dir.Path(), out, err), 0);
    EXPECT_EQ(out, std::string("brackmoor-agent ") + BRACKMOOR_VERSION + "\n");
    EXPECT_EQ(RunAgent({"--help"}, dir.Path(), out, err), 0);
    EXPECT_NE(out.find("brackmoor-agent status"), std::string::npos);
    EXPECT_EQ(RunAgent({"--frobnicate"}, dir.Path(), out, err), 2);
    EXPECT_EQ(err, "brackmoor-agent: unknown option --frobnicate (see --help)\n");
}

} // namespace
