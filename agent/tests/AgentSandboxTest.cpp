// The agent from the build tree with the real two-factor module on this
// system's files, inside the sandbox (private /etc and /usr/lib): the policy
// switches the second factor on and SIGTERM restores sshd's and PAM's
// configuration. The status command is checked against the real files and
// the real sshd -T before and after.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "AgentTestSupport.h"
#include "TestSupport/TempDir.h"

using AgentTest::Eventually;
using AgentTest::FileContains;
using AgentTest::WriteFile;
using TestSupport::ReadWholeFile;

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

/// `text` with blanks around each line removed: the module writes the lines it keeps that way.
std::string Normalised(const std::string& text)
{
    std::istringstream in(text);
    std::string result;
    for (std::string line; std::getline(in, line);) {
        line.erase(0, line.find_first_not_of(" \t\r"));
        result += line.erase(line.find_last_not_of(" \t\r") + 1) + "\n";
    }
    return result;
}

bool Exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

TEST(AgentSandboxTest, SwitchesOnAndRestoresOnSigterm)
{
    if (!Exists(kSshdConfig) || !Exists("/lib/x86_64-linux-gnu/security/pam_unix.so")) {
        GTEST_SKIP() << "needs sshd's configuration and the x86-64 PAM module directory";
    }
    TestSupport::TempDir dir;
    const std::string install = dir.File("opt/");
    WriteFile(install + "module/pam_brackmoor.so", "stand-in PAM module\n");
    // Counts the restarts, then lets the installation's own script check and reload sshd.
    WriteFile(install + "sudobin/sshrestart.sh",
              "#!/bin/sh\necho restart >> " + dir.File("restarts") + "\n" + kRestartScript, 0755);
    AgentTest::CopyFile(BRACKMOOR_TFA_MODULE, install + "lib/modules/libtwo_factor_authentication_module.so");
    const std::string config = dir.File("agent.conf");
    const std::string log = dir.File("log/agent.log");
    WriteFile(config, AgentTest::ConfigText(dir.Path(), "installation_path = " + install,
                                            "two_factor_authentication_module", "two_factor_authentication_feature"));
    WriteFile(dir.File("tfa.json"), "{\"content\": {\"refresh_time\": 300, \"echo\": 1, \"local\": 1, "
                                    "\"exclude_user_list\": [\"root\"]}}\n");
    const std::string originalPamSshd = Normalised(ReadWholeFile(kPamSshd));
    const auto status = [&] { return AgentTest::RunAgent({"status", "--config", config}, dir.Path()); };

    AgentTest::AgentProcess agent({"--config", config}, dir.Path());
    ASSERT_TRUE(Eventually(kPamInclude, "exclude_user_list=root")) << ReadWholeFile(log);
    ASSERT_TRUE(Eventually(kPamSshd, "brackmoor-auth"));
    EXPECT_TRUE(Exists(kModuleCopy));
    AgentTest::AgentRun run = status();
    EXPECT_EQ(run.status, 0) << run.out << run.err;

    agent.Signal(SIGTERM);
    ASSERT_EQ(agent.Wait(kDeadline), 0);
    EXPECT_FALSE(Exists(kPamInclude));
    EXPECT_FALSE(Exists(kModuleCopy));
    EXPECT_EQ(Normalised(ReadWholeFile(kPamSshd)), originalPamSshd);
    EXPECT_FALSE(FileContains(kSshdConfig, "\nKbdInteractiveAuthentication yes"));
    run = status();
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_NE(run.out.find("not switched"), std::string::npos) << run.out;
    const std::string restarts = ReadWholeFile(dir.File("restarts"));
    EXPECT_GE(std::count(restarts.begin(), restarts.end(), '\n'), 2);
}

} // namespace
