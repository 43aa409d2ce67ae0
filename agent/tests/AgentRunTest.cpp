// The agent binary end to end with test modules: policy delivery at start
// and on SIGHUP, the single-instance lock, and a stop on SIGTERM or SIGINT
// that unloads every module even when asked for while starting or repeated
// during the shut-down.

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "AgentTestSupport.h"
#include "TestSupport/TempDir.h"

using AgentTest::AgentProcess;
using AgentTest::Eventually;
using AgentTest::WriteFile;

namespace {

constexpr std::chrono::seconds kDeadline(20);
const char* const kHoldInit = "BRACKMOOR_TEST_MODULE_HOLD_INIT";
const char* const kHoldUnInit = "BRACKMOOR_TEST_MODULE_HOLD_UNINIT";
const char* const kUnloaded = "beta uninit begin\nbeta uninit end\nbeta destroy\n"
                              "alpha uninit begin\nalpha uninit end\nalpha destroy\n";

class AgentRunTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.Ok());
        AgentTest::CopyFile(AgentTest::TestModule("alpha"), dir.File("modules/alpha.so"));
        AgentTest::CopyFile(AgentTest::TestModule("beta"), dir.File("modules/beta.so"));
        AgentTest::CopyFile(AgentTest::TestModule("no_factory"), dir.File("modules/broken.so"));
        WriteFile(config, AgentTest::ConfigText(dir.Path(), "module_dir = " + dir.File("modules"), "alpha", "tfa"));
        WriteFile(policy, "{\"content\": 1}");
        setenv("BRACKMOOR_TEST_MODULE_RECORD", record.c_str(), 1);
    }
    void TearDown() override
    {
        for (const char* variable : {"BRACKMOOR_TEST_MODULE_RECORD", kHoldInit, kHoldUnInit}) {
            unsetenv(variable);
        }
    }

    TestSupport::TempDir dir;
    const std::string record = dir.File("record");
    const std::string policy = dir.File("tfa.json");
    const std::string config = dir.File("agent.conf");
    const std::string log = dir.File("log/agent.log");
    const std::vector<std::string> args = {"--config", config, "--foreground"};
};

TEST_F(AgentRunTest, DeliversAtStartAndOnSighupOnlyWhenChangedAndRefusesASecondInstance)
{
    AgentProcess agent(args, dir.Path());
    ASSERT_TRUE(Eventually(record, "alpha policy tfa {\"content\": 1}\n")) << agent.Stderr();

    AgentProcess second(args, dir.Path());
    EXPECT_EQ(second.Wait(kDeadline), 1);
    EXPECT_EQ(second.Stderr(), "brackmoor-agent: another instance is running (pid " + std::to_string(agent.Pid()) +
                                    "); pid file " + dir.File("agent.pid") + "\n");

    agent.Signal(SIGHUP);
    ASSERT_TRUE(Eventually(log, "Policy(tfa) from " + policy + " is unchanged; not pushed again."));
    WriteFile(policy, "{\"content\": 2}");
    agent.Signal(SIGHUP);
    ASSERT_TRUE(Eventually(record, "alpha policy tfa {\"content\": 2}\n"));
    WriteFile(policy, "{\"reject\": true}");
    agent.Signal(SIGHUP);
    ASSERT_TRUE(Eventually(log, "Policy(tfa) from " + policy + " rejected (module alpha, callback 10001, feature "
                                "tfa); the policy in force stays."));

    agent.Signal(SIGTERM);
    EXPECT_EQ(agent.Wait(kDeadline), 0) << agent.Stderr();
    // One of each module, in reverse order of loading at the end; the second instance loaded none.
    EXPECT_EQ(TestSupport::ReadWholeFile(record),
              "alpha create\nalpha init\nbeta create\nbeta init\nalpha policy tfa {\"content\": 1}\n"
              "alpha policy tfa {\"content\": 2}\nalpha reject tfa {\"reject\": true}\n" +
                  std::string(kUnloaded));
    EXPECT_TRUE(AgentTest::FileContains(log, "broken.so) skipped: no CreateModule"));
    EXPECT_NE(access(dir.File("agent.pid").c_str(), F_OK), 0) << "pid file left behind";
}

TEST_F(AgentRunTest, AStopWhileStartingPushesNoPolicyAndASecondSignalCannotCutTheShutDownShort)
{
    const std::string initHold = dir.File("release-init");
    const std::string unInitHold = dir.File("release-uninit");
    setenv(kHoldInit, initHold.c_str(), 1);
    setenv(kHoldUnInit, unInitHold.c_str(), 1);
    AgentProcess agent(args, dir.Path());
    ASSERT_TRUE(Eventually(record, "alpha init\n")) << agent.Stderr();
    agent.Signal(SIGINT);
    WriteFile(initHold, "");

    ASSERT_TRUE(Eventually(record, "beta uninit begin\n"));
    agent.Signal(SIGTERM);
    agent.Signal(SIGINT);
    ASSERT_TRUE(Eventually(log, "SIGTERM received during shut-down; ignored"));
    ASSERT_TRUE(Eventually(log, "SIGINT received during shut-down; ignored"));
    EXPECT_EQ(agent.Wait(std::chrono::milliseconds(0)), -1) << "stopped before the modules were unloaded";

    WriteFile(unInitHold, "");
    EXPECT_EQ(agent.Wait(kDeadline), 0);
    EXPECT_EQ(TestSupport::ReadWholeFile(record),
              "alpha create\nalpha init\nbeta create\nbeta init\n" + std::string(kUnloaded));
    EXPECT_TRUE(AgentTest::FileContains(log, "SIGINT received while starting; shutting down."));
    EXPECT_NE(agent.Stderr().find("brackmoor-agent stopped."), std::string::npos) << agent.Stderr();
}

} // namespace
