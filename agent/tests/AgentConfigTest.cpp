// The configuration file and command line: every fault is one line on standard error naming the
// file and the key, with exit status 2; a good file yields the settings the agent runs with.
#include <algorithm>

#include "AgentConfig.h"
#include "AgentTestSupport.h"
#include "TwoFactorAuthenticationPolicy.h"

using AgentTest::RunAgent;

namespace {

TEST(ConfigFileTest, EveryFaultIsOneLineNamingFileAndKeyWithStatus2)
{
    TestSupport::TempDir dir;
    const std::string config = dir.File("agent.conf");
    const std::string good = AgentTest::ConfigText(dir.Path(), "installation_path = " + dir.Path() + "/opt",
                                                   "two_factor_authentication_module", "f");
    // The line of the good file that starts with `line` is replaced (removed
    // when `replacement` is empty); `expected` follows "<file>: ".
    const struct {
        const char *line, *replacement, *expected;
        unsigned int mode = 0644;  ///< of the file; 0: no file at all
    } faults[] = {
        // The bounds of each [agent], [service] and [log] value, and agent.id, are ConfigManager's suite's;
        // that an accepted file has absolute paths and every feed key is the fuzz target's.
        {"ca_file = ", "", "missing key service.ca_file"},
        {"auth_token_file = ", "", "missing key service.auth_token_file"},
        {"id = ", "id = a\nmodule_dir = lib/modules", "bad value for agent.module_dir: 'lib/modules' (absolute path)"},
        {"file = ", "", "missing key policy.tfa.file"}, {"file = ", "file = tfa.json", "bad value for policy.tfa.file"},
        {"callback = ", "callback = 10 001", "bad value for policy.tfa.callback: '10 001' (a name without blanks)"},
        {"[policy.", "", "missing section [policy.NAME]"},
        {"feature = ", "feature = f\nthis is not a key", "malformed: line 19"},
        {"id = ", "id = a", "writable by group or others", 0664},
        {"id = ", "id = a", "cannot read: No such file or directory", 0}};
    for (const auto& fault : faults) {
        const size_t at = good.find(std::string("\n") + fault.line) + 1, end = good.find('\n', at) + 1;
        std::remove(config.c_str());
        if (fault.mode != 0) {
            AgentTest::WriteFile(config, good.substr(0, at) + fault.replacement + (*fault.replacement ? "\n" : "") +
                                             good.substr(end), fault.mode);
        }
        const auto [status, out, err] = RunAgent({"--config", config}, dir.Path());
        EXPECT_EQ(status, 2) << fault.expected;
        EXPECT_EQ(err.find("brackmoor-agent: " + config + ": " + fault.expected), 0u) << err;
        EXPECT_EQ(out + std::to_string(std::count(err.begin(), err.end(), '\n')), "1") << "one line, on standard error";
    }
    // The good file gives the settings; --policy replaces the first feed's file.
    AgentTest::WriteFile(config, good + "[policy.second]\nfile = /etc/x.json\nmodule = m\ncallback = 7\nfeature = f\n");
    Agent::AgentSettings settings;
    std::string error;
    ASSERT_TRUE(Agent::AgentConfig::Load(config, "/srv/other.json", settings, error)) << error;
    EXPECT_EQ(settings.moduleDir, dir.Path() + "/opt/lib/modules/");  // the default under installation_path
    ASSERT_EQ(settings.feeds.size(), 2u);
    EXPECT_EQ(settings.feeds[0].file + " " + settings.feeds[1].name + " " + settings.feeds[1].file,
              "/srv/other.json second /etc/x.json");
}

TEST(CommandLineTest, ParsesEachFormAndRefusesTheRest)
{
    using Agent::Command;
    const std::tuple<std::vector<std::string>, Command, std::string> cases[] = {
        {{"--config", "/a.conf", "--policy=/p.json", "--foreground"}, Command::Run, ""},
        {{"status", "--help"}, Command::Help, ""}, {{"start"}, Command::Invalid, "unknown argument start"},
        {{"--root", "/r"}, Command::Invalid, "unknown option --root"},
        {{"status", "--policy", "/p"}, Command::Invalid, "unknown option --policy"},
        {{"--config"}, Command::Invalid, "option --config needs a value"},
        {{"--config="}, Command::Invalid, "option --config needs a value"}};
    for (const auto& [args, command, error] : cases) {
        const Agent::CommandLine parsed = Agent::CommandLine::Parse(args);
        EXPECT_EQ(std::make_pair(parsed.command, parsed.error), std::make_pair(command, error))
            << ::testing::PrintToString(args);
    }
    EXPECT_EQ(Agent::CommandLine::Parse(std::get<0>(cases[0])).policyPath, "/p.json");
    TestSupport::TempDir dir;
    EXPECT_EQ(std::get<1>(RunAgent({"--version"}, dir.Path())), "brackmoor-agent " BRACKMOOR_VERSION "\n");
    EXPECT_THAT(std::get<1>(RunAgent({"--help"}, dir.Path())), ::testing::HasSubstr("brackmoor-agent status"));
    EXPECT_EQ(RunAgent({"--frobnicate"}, dir.Path()),
              std::make_tuple(2, "", "brackmoor-agent: unknown option --frobnicate (see --help)\n"));
}

// The shipped examples are usable as they stand.
TEST(ConfigFileTest, ExampleConfigurationLoadsAndFeedsTheModuleADocumentItAccepts)
{
    Agent::AgentSettings settings;
    std::string error;
    ASSERT_TRUE(Agent::AgentConfig::Load(BRACKMOOR_PACKAGING_DIR "/agent.conf.example", "", settings, error)) << error;
    ASSERT_EQ(settings.feeds.size(), 1u);
    const Agent::PolicyFeed& feed = settings.feeds[0];
    EXPECT_EQ(feed.file + " " + feed.module + " " + feed.callback + " " + feed.feature,
              "/etc/brackmoor/two_factor_authentication.json two_factor_authentication_module 10001 "
              "two_factor_authentication_feature");
    Engine::TwoFactorAuthenticationPolicy policy(feed.feature);
    EXPECT_TRUE(policy.Parse(AgentTest::ReadWholeFile(BRACKMOOR_PACKAGING_DIR "/two_factor_authentication.json"
                                                                              ".example")));
}

} // namespace
