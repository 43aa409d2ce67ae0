// The status command on prepared system trees (--root) with a stand-in sshd:
// in force only when every part is, and each way of not being in force is
// named plainly.

#include <gtest/gtest.h>

#include <sstream>

#include "AgentTestSupport.h"
#include "CommandLine.h"
#include "PidFile.h"
#include "TestSupport/TempDir.h"
#include "status/StatusCommand.h"

using AgentTest::WriteFile;

namespace {

const char* const kPamDir = "/lib/x86_64-linux-gnu/security/";
const char* const kSshdOn = "port 22\\nusepam yes\\nkbdinteractiveauthentication yes\\n";
const char* const kPolicy = R"({"content":{"refresh_time":300,"exclude_user_list":[]}})";
const char* const kPolicyExcludingBob = R"({"content":{"refresh_time":300,"exclude_user_list":["bob"]}})";

/// A system on which the agent has switched the second factor on. In
/// sshd_config keywords are case-blind and the first value wins.
void WriteSwitchedSystem(const std::string& root)
{
    WriteFile(root + "/etc/ssh/sshd_config", "Include /etc/ssh/sshd_config.d/*.conf\n#KbdInteractiveAuthentication no\n"
                                             "KbdInteractiveAuthentication yes\n  usepam   YES  \nUsePAM no\n");
    WriteFile(root + "/etc/pam.d/sshd", "# PAM configuration for the Secure Shell service\n#@include common-auth\n"
                                        "@include\tbrackmoor-auth\naccount    required     pam_nologin.so\n"
                                        "@include common-account\n");
    WriteFile(root + "/etc/pam.d/brackmoor-auth",
              "auth\t[success=1 default=ignore]\tpam_unix.so nullok\n"
              "auth [success=1 default=ignore] pam_brackmoor.so refresh_time=300 echo=1 local=1\n"
              "auth\trequisite\t\t\tpam_deny.so\n");
    WriteFile(root + kPamDir + "pam_unix.so", "");
    WriteFile(root + kPamDir + "pam_brackmoor.so", "");
    WriteFile(root + "/etc/brackmoor/agent.conf",
              "[agent]\nid = a\npid_file = /run/agent.pid\n[service]\naddress = v:1\nca_file = /ca\n"
              "auth_token_file = /t\n[policy.tfa]\nfile = /etc/brackmoor/tfa.json\n"
              "module = two_factor_authentication_module\ncallback = 10001\nfeature = f\n");
    WriteFile(root + "/etc/brackmoor/tfa.json", kPolicy);
}

/// A stand-in for sshd -T: prints `settings`, or fails with `failure` when that is not empty.
std::string FakeSshd(const std::string& dir, const std::string& settings, const std::string& failure = "")
{
    const std::string body = failure.empty() ? "printf '" + settings + "'\n" : "echo '" + failure + "' >&2\nexit 255\n";
    WriteFile(dir + "/sshd", "#!/bin/sh\n" + body, 0755);
    return dir + "/sshd";
}

struct StatusRun {
    int status;
    std::string output;
};

StatusRun RunStatus(const std::string& root, const std::string& sshd)
{
    std::ostringstream out;
    const int status = Agent::StatusCommand::Run(
        Agent::CommandLine::Parse({"status", "--root", root, "--sshd", sshd}), out);
    return {status, out.str()};
}

TEST(StatusCommandTest, SwitchedSystemIsInForceWithOrWithoutSshd)
{
    TestSupport::TempDir dir;
    WriteSwitchedSystem(dir.Path());
    StatusRun run = RunStatus(dir.Path(), FakeSshd(dir.Path(), kSshdOn));
    EXPECT_EQ(run.status, 0) << run.output;
    const std::string expected[] = {
        "[ ok ] sshd_config: KbdInteractiveAuthentication yes is active",
        "[ ok ] sshd_config (effective): UsePAM yes, from " + dir.Path() + "/etc/ssh/sshd_config:4\n",
        "[ ok ] /etc/pam.d/sshd: includes brackmoor-auth (line 3)",
        "calls pam_brackmoor.so (line 2): refresh_time=300 echo=1 local=1",
        "[ ok ] sshd -T: kbdinteractiveauthentication yes",
        "[ ok ] policy: brackmoor-auth arguments match " + dir.Path() + "/etc/brackmoor/tfa.json",
        "[info] agent: not running",
        "second factor: in force\n",
    };
    for (const std::string& line : expected) {
        EXPECT_NE(run.output.find(line), std::string::npos) << line << "\n" << run.output;
    }
    // A running agent pushes a changed file when told to reload: a warning.
    Agent::PidFile agent;
    std::string error;
    WriteFile(dir.File("run/agent.pid"), "");
    ASSERT_TRUE(agent.Acquire(dir.File("run/agent.pid"), error)) << error;
    WriteFile(dir.File("etc/brackmoor/tfa.json"), kPolicyExcludingBob);
    run = RunStatus(dir.Path(), FakeSshd(dir.Path(), kSshdOn));
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("[warn] policy: brackmoor-auth has 'refresh_time=300 echo=1 local=1', " +
                              dir.Path() + "/etc/brackmoor/tfa.json makes 'refresh_time=300 echo=1 local=1 "
                              "exclude_user_list=bob': the file changed since it was pushed"),
              std::string::npos)
        << run.output;
    run = RunStatus(dir.Path(), dir.File("no-sshd-here"));
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("is not installed; effective settings not checked"), std::string::npos);
}

struct Breakage {
    const char* name;
    const char* file;     ///< under the root; nullptr: no file changed
    const char* content;  ///< the file's new content; nullptr: the file is removed
    const char* reason;   ///< expected in the verdict
    const char* sshdSettings = kSshdOn;
    const char* sshdFailure = "";
};

const Breakage kBreakages[] = {
    {"service_file_without_linkable_include", "/etc/pam.d/sshd", "account required pam_nologin.so\n",
     "has no include line of password-auth or common-auth that could be linked: switching on succeeds without "
     "linking anything"},
    {"service_file_not_switched", "/etc/pam.d/sshd", "@include common-auth\n",
     "not switched: line 1 still includes the system's auth stack"},
    {"include_file_missing_under_switched_service", "/etc/pam.d/brackmoor-auth", nullptr,
     "missing, although /etc/pam.d/sshd includes it: sshd's PAM stack is broken"},
    {"include_file_without_module_line", "/etc/pam.d/brackmoor-auth", "auth required pam_unix.so\n",
     "present but has no auth line calling pam_brackmoor.so"},
    {"drop_in_turns_keyboard_interactive_off", "/etc/ssh/sshd_config.d/50-cloud.conf",
     "# hardening\nKbdInteractiveAuthentication=no\n", "a drop-in turns keyboard-interactive authentication off: "},
    {"earlier_line_of_the_alias_wins", "/etc/ssh/sshd_config",
     "challengeresponseauthentication no\n#KbdInteractiveAuthentication no\nKbdInteractiveAuthentication yes\n"
     "UsePAM yes\n",
     "keyboard-interactive authentication no, from "},
    {"keyword_switched_off", "/etc/ssh/sshd_config",
     "KbdInteractiveAuthentication no\n#KbdInteractiveAuthentication yes\nUsePAM yes\n",
     "KbdInteractiveAuthentication no is active"},
    {"no_keyword_line_to_switch", "/etc/ssh/sshd_config", "UsePAM yes\n",
     "the agent cannot switch keyboard-interactive authentication on"},
    {"use_pam_only_in_a_match_block", "/etc/ssh/sshd_config",
     "#KbdInteractiveAuthentication no\nKbdInteractiveAuthentication yes\nMatch User backup\n  UsePAM yes\n",
     "UsePAM is not set anywhere; sshd's default is no"},
    {"module_copy_missing_where_pam_loads", "/lib/x86_64-linux-gnu/security/pam_brackmoor.so", nullptr,
     "where PAM loads its modules from"},
    {"sshd_reports_keyboard_interactive_off", nullptr, nullptr,
     "kbdinteractiveauthentication no: sshd will not ask for the second factor",
     "usepam yes\\nkbdinteractiveauthentication no\\n"},
    {"service_mode_without_agent", "/etc/pam.d/brackmoor-auth",
     "auth required pam_unix.so\nauth sufficient pam_brackmoor.so refresh_time=300 echo=1 local=0\n",
     "the PAM module asks it for every login (not local=1): every user who is not excluded is refused"},
    {"arguments_left_by_a_killed_agent", "/etc/brackmoor/tfa.json", kPolicyExcludingBob,
     "makes 'refresh_time=300 echo=1 local=1 exclude_user_list=bob': left by an agent that did not stop cleanly"},
    {"sshd_refuses_the_configuration", nullptr, nullptr,
     "failed (Bad configuration option: Frobnicate): sshd would not start with this configuration", "",
     "Bad configuration option: Frobnicate"},
};

class StatusBreakageTest : public ::testing::TestWithParam<Breakage> {};

TEST_P(StatusBreakageTest, IsNotInForceAndSaysWhy)
{
    TestSupport::TempDir dir;
    WriteSwitchedSystem(dir.Path());
    const Breakage& b = GetParam();
    if (b.file != nullptr && b.content != nullptr) {
        WriteFile(dir.Path() + b.file, b.content);
    } else if (b.file != nullptr) {
        ::unlink((dir.Path() + b.file).c_str());
    }
    const StatusRun run = RunStatus(dir.Path(), FakeSshd(dir.Path(), b.sshdSettings, b.sshdFailure));
    EXPECT_EQ(run.status, 1) << run.output;
    const std::string::size_type verdict = run.output.find("second factor: NOT in force, because\n");
    ASSERT_NE(verdict, std::string::npos) << run.output;
    EXPECT_NE(run.output.find(b.reason, verdict), std::string::npos) << run.output;
}

INSTANTIATE_TEST_SUITE_P(EachWay, StatusBreakageTest, ::testing::ValuesIn(kBreakages),
                         [](const ::testing::TestParamInfo<Breakage>& test) { return std::string(test.param.name); });

} // namespace
