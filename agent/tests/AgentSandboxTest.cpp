// The agent with the real two-factor module on this system's files, inside
// the sandbox (private /etc and /usr/lib): the policy switches the second
// factor on, a changed policy is applied, a rejected one changes nothing,
// and SIGTERM restores sshd's and PAM's configuration. The status command
// is checked against the real files and the real sshd -T at each stage.

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "AgentTestSupport.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"

using AgentTest::AgentProcess;
using AgentTest::FileContains;
using AgentTest::ReadLines;
using AgentTest::WriteFile;
using TestSupport::WaitFor;

namespace {

constexpr std::chrono::seconds kDeadline(30);
const char* const kPamSshd = "/etc/pam.d/sshd";
const char* const kPamInclude = "/etc/pam.d/brackmoor-auth";
const char* const kSshdConfig = "/etc/ssh/sshd_config";
const char* const kModuleCopy = "/lib/x86_64-linux-gnu/security/pam_brackmoor.so";
#ifdef BRACKMOOR_RESTART_SCRIPT
const std::string kRestartScript = std::string("exec ") + BRACKMOOR_RESTART_SCRIPT + "\n";
#else
const std::string kRestartScript;
#endif

std::string Policy(const std::string& excluded)
{
    return "{\"content\": {\"refresh_time\": 300, \"echo\": 1, \"local\": 1, \"exclude_user_list\": [" + excluded +
           "]}}\n";
}

/// The file's lines with surrounding white space removed, as the module writes them back.
std::vector<std::string> Normalised(const std::vector<std::string>& lines)
{
    std::vector<std::string> result;
    for (std::string line : lines) {
        line.erase(0, line.find_first_not_of(" \t\r"));
        line.erase(line.find_last_not_of(" \t\r") + 1);
        result.push_back(line);
    }
    return result;
}

bool Exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

class AgentSandboxTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* inSandbox = std::getenv("BRACKMOOR_IN_SANDBOX");
        if (inSandbox == nullptr || std::string(inSandbox) != "1") {
            GTEST_SKIP() << "changes /etc: runs only inside tests/sandbox/sandbox-run";
        }
        if (!Exists(kSshdConfig) || !Exists("/lib/x86_64-linux-gnu/security/pam_unix.so")) {
            GTEST_SKIP() << "needs sshd's configuration and the x86-64 PAM module directory";
        }
        ASSERT_TRUE(dir.Ok());
        const std::string install = dir.File("opt/");
        WriteFile(install + "module/pam_brackmoor.so", "stand-in PAM module\n");
        // Counts the restarts, then lets the installation's own script check and reload sshd.
        WriteFile(install + "sudobin/sshrestart.sh",
                  "#!/bin/sh\necho restart >> " + dir.File("restarts") + "\n" + kRestartScript, 0755);
        AgentTest::CopyFile(BRACKMOOR_TFA_MODULE, install + "lib/modules/libtwo_factor_authentication_module.so");
        policy = dir.File("tfa.json");
        config = dir.File("agent.conf");
        WriteFile(config, "[agent]\nid = sandbox-agent\ninstallation_path = " + install + "\npid_file = " +
                              dir.File("agent.pid") +
                              "\n[service]\naddress = 127.0.0.1:9\nca_file = /nonexistent/ca.pem\n"
                              "auth_token_file = /nonexistent/token\n[log]\ndir = " + dir.File("log") +
                              "\n[policy.two_factor_authentication]\nfile = " + policy +
                              "\nmodule = two_factor_authentication_module\ncallback = 10001\n"
                              "feature = two_factor_authentication_feature\n");
        WriteFile(policy, Policy("\"root\""));
        originalPamSshd = ReadLines(kPamSshd);
    }

    int Status()
    {
        std::string out;
        std::string err;
        const int status = AgentTest::RunAgent({"status", "--config", config}, dir.Path(), out, err);
        lastStatus = out + err;
        return status;
    }

    bool IncludeFileSays(const std::string& text)
    {
        return WaitFor([&] { return FileContains(kPamInclude, text); }, kDeadline);
    }

    TestSupport::TempDir dir;
    std::string policy;
    std::string config;
    std::vector<std::string> originalPamSshd;
    std::string lastStatus;
};

TEST_F(AgentSandboxTest, SwitchesOnFollowsThePolicyAndRestoresOnSigterm)
{
    AgentProcess agent({"--config", config}, {}, dir.Path());
    ASSERT_TRUE(IncludeFileSays("exclude_user_list=root")) << TestSupport::ReadWholeFile(dir.File("log/agent.log"));
    ASSERT_TRUE(WaitFor([] { return FileContains(kPamSshd, "brackmoor-auth"); }, kDeadline));
    EXPECT_TRUE(Exists(kModuleCopy));
    EXPECT_EQ(Status(), 0) << lastStatus;

    WriteFile(policy, Policy("\"root\", \"admin\""));
    agent.Signal(SIGHUP);
    ASSERT_TRUE(IncludeFileSays("exclude_user_list=root;admin"));

    WriteFile(policy, "{\"content\": {\"local\": 1}}\n");  // no exclude_user_list: rejected
    agent.Signal(SIGHUP);
    ASSERT_TRUE(WaitFor([&] { return FileContains(dir.File("log/agent.log"), "rejected"); }, kDeadline));
    EXPECT_TRUE(FileContains(kPamInclude, "exclude_user_list=root;admin"));
    EXPECT_EQ(Status(), 0) << lastStatus;

    agent.Signal(SIGTERM);
    ASSERT_EQ(agent.Wait(kDeadline), 0);
    EXPECT_FALSE(Exists(kPamInclude));
    EXPECT_FALSE(Exists(kModuleCopy));
    EXPECT_EQ(ReadLines(kPamSshd), Normalised(originalPamSshd));
    EXPECT_FALSE(FileContains(kSshdConfig, "\nKbdInteractiveAuthentication yes"));
    EXPECT_EQ(Status(), 1) << lastStatus;
    EXPECT_NE(lastStatus.find("not switched"), std::string::npos) << lastStatus;
    EXPECT_GE(ReadLines(dir.File("restarts")).size(), 2u);
}

} // namespace
