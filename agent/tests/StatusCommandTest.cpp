// The status command on prepared system trees (--root) with a stand-in sshd:
// in force only when every part is, and each way of not being in force is
// named plainly.

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "AgentTestSupport.h"
#include "CommandLine.h"
#include "TestSupport/TempDir.h"
#include "status/SshdSettingsReader.h"
#include "status/StatusCommand.h"

using AgentTest::WriteFile;

namespace {

const char* const kPamDir = "/lib/x86_64-linux-gnu/security/";

/// A system on which the agent has switched the second factor on.
void WriteSwitchedSystem(const std::string& root)
{
    WriteFile(root + "/etc/ssh/sshd_config",
              "Include /etc/ssh/sshd_config.d/*.conf\n"
              "#KbdInteractiveAuthentication no\n"
              "KbdInteractiveAuthentication yes\n"
              "UsePAM yes\n");
    WriteFile(root + "/etc/pam.d/sshd",
              "# PAM configuration for the Secure Shell service\n"
              "#@include common-auth\n"
              "@include\tbrackmoor-auth\n"
              "account    required     pam_nologin.so\n"
              "@include common-account\n");
    WriteFile(root + "/etc/pam.d/brackmoor-auth",
              "auth\t[success=1 default=ignore]\tpam_unix.so nullok\n"
              "auth [success=1 default=ignore] pam_brackmoor.so refresh_time=300 echo=1 local=1\n"
              "auth\trequisite\t\t\tpam_deny.so\n");
    WriteFile(root + kPamDir + "pam_unix.so", "");
    WriteFile(root + kPamDir + "pam_brackmoor.so", "");
}

/// A stand-in for sshd -T: prints `settings` (or fails with `failure`).
std::string FakeSshd(const std::string& dir, const std::string& settings, const std::string& failure = "")
{
    const std::string path = dir + "/sshd";
    const std::string body = failure.empty() ? "printf '" + settings + "'\n"
                                             : "echo '" + failure + "' >&2\nexit 255\n";
    WriteFile(path, "#!/bin/sh\n" + body, 0755);
    return path;
}

const char* const kSshdOn = "port 22\\nusepam yes\\nkbdinteractiveauthentication yes\\n";

struct StatusRun {
    int status;
    std::string output;
};

StatusRun RunStatus(const std::string& root, const std::string& sshd)
{
    Agent::CommandLine options = Agent::CommandLine::Parse({"status", "--root", root, "--sshd", sshd});
    std::ostringstream out;
    const int status = Agent::StatusCommand::Run(options, out);
    return {status, out.str()};
}

TEST(StatusCommandTest, SwitchedSystemIsInForce)
{
    TestSupport::TempDir dir;
    WriteSwitchedSystem(dir.Path());
    const StatusRun run = RunStatus(dir.Path(), FakeSshd(dir.Path(), kSshdOn));
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("[ ok ] sshd_config: KbdInteractiveAuthentication yes is active"), std::string::npos);
    EXPECT_NE(run.output.find("[ ok ] /etc/pam.d/sshd: includes brackmoor-auth (line 3)"), std::string::npos);
    EXPECT_NE(run.output.find("calls pam_brackmoor.so (line 2): refresh_time=300 echo=1 local=1"), std::string::npos);
    EXPECT_NE(run.output.find("[ ok ] sshd -T: kbdinteractiveauthentication yes"), std::string::npos);
    EXPECT_NE(run.output.find("[info] agent: not running"), std::string::npos);
    EXPECT_NE(run.output.find("second factor: in force\n"), std::string::npos);
}

TEST(StatusCommandTest, WithoutSshdTheFilesDecide)
{
    TestSupport::TempDir dir;
    WriteSwitchedSystem(dir.Path());
    const StatusRun run = RunStatus(dir.Path(), dir.File("no-sshd-here"));
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("is not installed; effective settings not checked"), std::string::npos);
}

struct Breakage {
    const char* name;
    std::function<void(const std::string& root)> breakIt;
    std::string sshdSettings;  ///< what the stand-in sshd prints
    std::string sshdFailure;   ///< non-empty: the stand-in sshd fails with this
    const char* reason;        ///< expected in the verdict
};

const Breakage kBreakages[] = {
    {"service_file_without_linkable_include",
     [](const std::string& r) { WriteFile(r + "/etc/pam.d/sshd", "account required pam_nologin.so\n"); }, kSshdOn, "",
     "has no include line of password-auth or common-auth that could be linked: switching on succeeds without "
     "linking anything"},
    {"service_file_not_switched",
     [](const std::string& r) { WriteFile(r + "/etc/pam.d/sshd", "@include common-auth\n"); }, kSshdOn, "",
     "not switched: line 1 still includes the system's auth stack"},
    {"include_file_missing_under_switched_service",
     [](const std::string& r) { ::unlink((r + "/etc/pam.d/brackmoor-auth").c_str()); }, kSshdOn, "",
     "missing, although /etc/pam.d/sshd includes it: sshd's PAM stack is broken"},
    {"include_file_without_module_line",
     [](const std::string& r) { WriteFile(r + "/etc/pam.d/brackmoor-auth", "auth required pam_unix.so\n"); },
     kSshdOn, "", "present but has no auth line calling pam_brackmoor.so"},
    {"drop_in_turns_keyboard_interactive_off",
     [](const std::string& r) {
         WriteFile(r + "/etc/ssh/sshd_config.d/50-cloud.conf", "# hardening\nKbdInteractiveAuthentication=no\n");
     },
     kSshdOn, "",
     "a drop-in turns keyboard-interactive authentication off: "},
    {"earlier_line_of_the_alias_wins",
     [](const std::string& r) {
         WriteFile(r + "/etc/ssh/sshd_config", "challengeresponseauthentication no\n#KbdInteractiveAuthentication no\n"
                                               "KbdInteractiveAuthentication yes\nUsePAM yes\n");
     },
     kSshdOn, "", "keyboard-interactive authentication no, from "},
    {"keyword_switched_off",
     [](const std::string& r) {
         WriteFile(r + "/etc/ssh/sshd_config", "KbdInteractiveAuthentication no\n#KbdInteractiveAuthentication yes\n"
                                               "UsePAM yes\n");
     },
     kSshdOn, "", "KbdInteractiveAuthentication no is active"},
    {"no_keyword_line_to_switch",
     [](const std::string& r) { WriteFile(r + "/etc/ssh/sshd_config", "UsePAM yes\n"); }, kSshdOn, "",
     "the agent cannot switch keyboard-interactive authentication on"},
    {"use_pam_unset",
     [](const std::string& r) {
         WriteFile(r + "/etc/ssh/sshd_config", "#KbdInteractiveAuthentication no\nKbdInteractiveAuthentication yes\n");
     },
     kSshdOn, "", "UsePAM is not set anywhere; sshd's default is no"},
    {"module_copy_missing_where_pam_loads",
     [](const std::string& r) { ::unlink((r + kPamDir + "pam_brackmoor.so").c_str()); }, kSshdOn, "",
     "where PAM loads its modules from"},
    {"sshd_reports_keyboard_interactive_off", [](const std::string&) {},
     "usepam yes\\nkbdinteractiveauthentication no\\n", "",
     "kbdinteractiveauthentication no: sshd will not ask for the second factor"},
    {"sshd_refuses_the_configuration", [](const std::string&) {}, "", "Bad configuration option: Frobnicate",
     "failed (Bad configuration option: Frobnicate): sshd would not start with this configuration"},
};

class StatusBreakageTest : public ::testing::TestWithParam<Breakage> {};

TEST_P(StatusBreakageTest, IsNotInForceAndSaysWhy)
{
    TestSupport::TempDir dir;
    WriteSwitchedSystem(dir.Path());
    GetParam().breakIt(dir.Path());
    const StatusRun run = RunStatus(dir.Path(), FakeSshd(dir.Path(), GetParam().sshdSettings, GetParam().sshdFailure));
    EXPECT_EQ(run.status, 1) << run.output;
    const std::string::size_type verdict = run.output.find("second factor: NOT in force, because\n");
    ASSERT_NE(verdict, std::string::npos) << run.output;
    EXPECT_NE(run.output.find(GetParam().reason, verdict), std::string::npos) << run.output;
}

INSTANTIATE_TEST_SUITE_P(EachWay, StatusBreakageTest, ::testing::ValuesIn(kBreakages),
                         [](const ::testing::TestParamInfo<Breakage>& test) { return std::string(test.param.name); });

TEST(SshdSettingsReaderTest, FirstValueWinsAcrossIncludesUntilMatch)
{
    TestSupport::TempDir dir;
    const std::string root = dir.Path();
    WriteFile(root + "/etc/ssh/sshd_config", "Port 22\n"
                                             "Include conf.d/*.conf\n"
                                             "  usepam   YES  \n"
                                             "Match User backup\n"
                                             "  KbdInteractiveAuthentication no\n");
    WriteFile(root + "/etc/ssh/conf.d/20-b.conf", "ChallengeResponseAuthentication yes\nport 2222\n");
    WriteFile(root + "/etc/ssh/conf.d/10-a.conf", "# nothing but a comment\n");
    Agent::SshdSettingsReader reader(root);
    ASSERT_TRUE(reader.Read(root + "/etc/ssh/sshd_config"));
    EXPECT_EQ(reader.Get("port").value, "22");
    EXPECT_EQ(reader.Get("usepam").value, "YES");
    EXPECT_EQ(reader.Get("usepam").line, 3);
    const Agent::SshdSetting keyboard = reader.Get("kbdinteractiveauthentication");
    EXPECT_EQ(keyboard.value, "yes");  // the alias in the drop-in; the Match block does not count
    EXPECT_EQ(keyboard.file, root + "/etc/ssh/conf.d/20-b.conf");
    EXPECT_FALSE(reader.Get("passwordauthentication").found);
    EXPECT_FALSE(Agent::SshdSettingsReader(root).Read(root + "/absent"));
}

} // namespace
