// The agent binary end to end with test modules: policy delivery at start
// and on SIGHUP, shut-down on SIGTERM/SIGINT that a second signal cannot cut
// short, and the single-instance lock.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "AgentTestSupport.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"

using AgentTest::AgentProcess;
using AgentTest::Built;
using AgentTest::FileContains;
using AgentTest::ReadLines;
using AgentTest::WriteFile;
using TestSupport::WaitFor;

namespace {

constexpr std::chrono::seconds kDeadline(20);

class AgentRunTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.Ok());
        record = dir.File("record");
        policy = dir.File("tfa.json");
        config = dir.File("agent.conf");
        AgentTest::CopyFile(Built::TestModule("alpha"), dir.File("modules/alpha.so"));
        AgentTest::CopyFile(Built::TestModule("beta"), dir.File("modules/beta.so"));
        AgentTest::CopyFile(Built::TestModule("no_factory"), dir.File("modules/broken.so"));
        WriteFile(config, "[agent]\nid = agent-1\nmodule_dir = " + dir.File("modules") +
                              "\npid_file = " + dir.File("agent.pid") +
                              "\n[service]\naddress = 127.0.0.1:1\nca_file = /nonexistent/ca.pem\n"
                              "auth_token_file = /nonexistent/token\n[log]\ndir = " + dir.File("log") +
                              "\n[policy.tfa]\nfile = " + policy +
                              "\nmodule = alpha\ncallback = 10001\nfeature = two_factor_authentication_feature\n");
        WriteFile(policy, "{\"content\": 1}");
    }

    std::unique_ptr<AgentProcess> Start(std::map<std::string, std::string> env = {},
                                        std::vector<std::string> extra = {})
    {
        env["BRACKMOOR_TEST_MODULE_RECORD"] = record;
        std::vector<std::string> args = {"--config", config};
        args.insert(args.end(), extra.begin(), extra.end());
        return std::make_unique<AgentProcess>(args, env, dir.Path());
    }

    bool Recorded(const std::string& line)
    {
        return WaitFor(
            [&] {
                const auto lines = ReadLines(record);
                return std::find(lines.begin(), lines.end(), line) != lines.end();
            },
            kDeadline);
    }

    bool Logged(const std::string& text)
    {
        return WaitFor([&] { return FileContains(dir.File("log/agent.log"), text); }, kDeadline);
    }

    size_t CountRecorded(const std::string& prefix)
    {
        const auto lines = ReadLines(record);
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(),
                                                 [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
    }

    TestSupport::TempDir dir;
    std::string record;
    std::string policy;
    std::string config;
};

TEST_F(AgentRunTest, DeliversThePolicyAtStartAndOnSighupOnlyWhenChanged)
{
    auto agent = Start();
    ASSERT_TRUE(Recorded("alpha policy two_factor_authentication_feature {\"content\": 1}")) << agent->Stderr();

    agent->Signal(SIGHUP);
    ASSERT_TRUE(Logged("Policy(tfa) from " + policy + " is unchanged; not pushed again."));
    EXPECT_EQ(CountRecorded("alpha policy"), 1u);

    WriteFile(policy, "{\"content\": 2}");
    agent->Signal(SIGHUP);
    ASSERT_TRUE(Recorded("alpha policy two_factor_authentication_feature {\"content\": 2}"));

    WriteFile(policy, "{\"reject\": true}");
    agent->Signal(SIGHUP);
    ASSERT_TRUE(Recorded("alpha reject two_factor_authentication_feature {\"reject\": true}"));
    ASSERT_TRUE(Logged("rejected (module alpha, callback 10001, feature two_factor_authentication_feature); "
                       "the policy in force stays."));

    agent->Signal(SIGTERM);
    EXPECT_EQ(agent->Wait(kDeadline), 0) << agent->Stderr();
    const auto lines = ReadLines(record);
    ASSERT_GE(lines.size(), 6u);
    // Reverse order of loading; each module stopped before it is destroyed.
    EXPECT_EQ(std::vector<std::string>(lines.end() - 6, lines.end()),
              (std::vector<std::string>{"beta uninit begin", "beta uninit end", "beta destroy",
                                        "alpha uninit begin", "alpha uninit end", "alpha destroy"}));
    EXPECT_TRUE(FileContains(dir.File("log/agent.log"), "broken.so) skipped: no CreateModule"));
    EXPECT_NE(access(dir.File("agent.pid").c_str(), F_OK), 0) << "pid file left behind";
}

TEST_F(AgentRunTest, ASecondSignalDuringShutDownDoesNotCutItShort)
{
    const std::string hold = dir.File("release");
    auto agent = Start({{"BRACKMOOR_TEST_MODULE_HOLD", hold}});
    ASSERT_TRUE(Recorded("alpha policy two_factor_authentication_feature {\"content\": 1}"));

    agent->Signal(SIGTERM);
    ASSERT_TRUE(Recorded("beta uninit begin"));
    agent->Signal(SIGTERM);
    agent->Signal(SIGINT);
    ASSERT_TRUE(Logged("received during shut-down; ignored"));
    EXPECT_FALSE(agent->Exited());

    WriteFile(hold, "");
    EXPECT_EQ(agent->Wait(kDeadline), 0);
    EXPECT_TRUE(Recorded("alpha destroy"));
}

TEST_F(AgentRunTest, SigtermWhileStartingDeliversNoPolicy)
{
    const std::string hold = dir.File("release");
    auto agent = Start({{"BRACKMOOR_TEST_MODULE_HOLD_INIT", hold}});
    ASSERT_TRUE(Recorded("alpha init"));
    agent->Signal(SIGTERM);
    WriteFile(hold, "");
    EXPECT_EQ(agent->Wait(kDeadline), 0);
    EXPECT_TRUE(Recorded("alpha destroy"));
    EXPECT_EQ(CountRecorded("alpha policy"), 0u);
    EXPECT_TRUE(FileContains(dir.File("log/agent.log"), "SIGTERM received while starting; shutting down."));
}

TEST_F(AgentRunTest, SigintShutsDownLikeSigtermAndForegroundLogsToStderr)
{
    auto agent = Start({}, {"--foreground"});
    ASSERT_TRUE(Recorded("alpha policy two_factor_authentication_feature {\"content\": 1}"));
    agent->Signal(SIGINT);
    EXPECT_EQ(agent->Wait(kDeadline), 0);
    EXPECT_TRUE(Recorded("alpha destroy"));
    EXPECT_NE(agent->Stderr().find("brackmoor-agent stopped."), std::string::npos) << agent->Stderr();
}

TEST_F(AgentRunTest, ASecondInstanceIsRefusedWhileTheFirstRuns)
{
    auto first = Start();
    ASSERT_TRUE(Recorded("alpha policy two_factor_authentication_feature {\"content\": 1}"));

    auto second = Start();
    EXPECT_EQ(second->Wait(kDeadline), 1);
    EXPECT_EQ(second->Stderr(), "brackmoor-agent: another instance is running (pid " + std::to_string(first->Pid()) +
                                    "); pid file " + dir.File("agent.pid") + "\n");
    EXPECT_EQ(CountRecorded("alpha create"), 1u);
    EXPECT_FALSE(first->Exited());

    first->Signal(SIGTERM);
    EXPECT_EQ(first->Wait(kDeadline), 0);
    // With the first gone, the lock is free again.
    auto third = Start();
    ASSERT_TRUE(WaitFor([&] { return CountRecorded("alpha policy") == 2; }, kDeadline));
    third->Signal(SIGTERM);
    EXPECT_EQ(third->Wait(kDeadline), 0);
}

} // namespace
