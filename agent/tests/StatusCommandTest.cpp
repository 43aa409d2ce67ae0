// The status command on prepared system trees (--root), without sshd (its -T is StatusSshdTest's):
// in force only when every part is, and each way of not being in force is named plainly.
#include "AgentTestSupport.h"
#include "PidFile.h"

using AgentTest::WriteFile;
using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace {

const char* const kPolicy = R"({"content":{"refresh_time":300,"exclude_user_list":[]}})";
const char* const kPolicyExcludingBob = R"({"content":{"refresh_time":300,"exclude_user_list":["bob"]}})";

/// A system on which the agent has switched the second factor on. In
/// sshd_config keywords are case-blind and the first value wins.
void WriteSwitchedSystem(const std::string& root)
{
    WriteFile(root + "/etc/ssh/sshd_config", "Include /etc/ssh/sshd_config.d/*.conf\n#KbdInteractiveAuthentication no\n"
                                             "KbdInteractiveAuthentication yes\n  usepam   YES  \nUsePAM no\n");
    WriteFile(root + "/etc/pam.d/sshd", "# PAM configuration for the Secure Shell service\n#@include common-auth\n"
                                        "@include\tbrackmoor-auth\naccount    required     pam_nologin.so\n");
    WriteFile(root + "/etc/pam.d/brackmoor-auth", "auth\t[success=1 default=ignore]\tpam_unix.so nullok\n"
                                                  "auth [success=1 default=ignore] pam_brackmoor.so refresh_time=300 "
                                                  "echo=1 local=1\nauth\trequisite\t\t\tpam_deny.so\n");
    WriteFile(root + "/lib/x86_64-linux-gnu/security/pam_unix.so", "");
    WriteFile(root + "/lib/x86_64-linux-gnu/security/pam_brackmoor.so", "");
    WriteFile(root + "/etc/brackmoor/agent.conf",
              "[agent]\nid = a\npid_file = /run/agent.pid\n[service]\naddress = v:1\nca_file = /ca\n"
              "auth_token_file = /t\n[policy.tfa]\nfile = /etc/brackmoor/tfa.json\n"
              "module = two_factor_authentication_module\ncallback = 10001\nfeature = f\n");
    WriteFile(root + "/etc/brackmoor/tfa.json", kPolicy);
}

/// The status command without sshd: its exit status and output.
std::pair<int, std::string> Status(const std::string& root) { return AgentTest::RunStatus(root, root + "/no-sshd"); }

TEST(StatusCommandTest, SwitchedSystemIsInForce)
{
    TestSupport::TempDir dir;
    WriteSwitchedSystem(dir.Path());
    auto [status, output] = Status(dir.Path());
    EXPECT_EQ(status, 0);
    EXPECT_THAT(output, HasSubstr("[ ok ] sshd_config (effective): UsePAM yes, from " + dir.Path() +
                                  "/etc/ssh/sshd_config:4\n"));
    EXPECT_THAT(output, HasSubstr("[ ok ] policy: brackmoor-auth arguments match " +
                                  dir.File("etc/brackmoor/tfa.json")));
    EXPECT_THAT(output, HasSubstr("is not installed; effective settings not checked"));
    EXPECT_THAT(output, EndsWith("second factor: in force\n"));
    // A running agent pushes a changed file when told to reload: a warning.
    Agent::PidFile agent;
    std::string error;
    WriteFile(dir.File("run/agent.pid"), "");
    ASSERT_TRUE(agent.Acquire(dir.File("run/agent.pid"), error)) << error;
    WriteFile(dir.File("etc/brackmoor/tfa.json"), kPolicyExcludingBob);
    std::tie(status, output) = Status(dir.Path());
    EXPECT_EQ(status, 0);
    EXPECT_THAT(output, HasSubstr("[warn] policy: brackmoor-auth has 'refresh_time=300 echo=1 local=1', " +
                                  dir.File("etc/brackmoor/tfa.json") + " makes 'refresh_time=300 echo=1 local=1 "
                                  "exclude_user_list=bob': the file changed since it was pushed"));
}

TEST(StatusCommandTest, EveryBreakageIsNotInForceAndSaysWhy)
{
    // The file under the root that changes, its new content (nullptr: the file is removed), and the
    // reason the verdict gives.
    const struct {
        const char *file, *content, *reason;
    } breakages[] = {
        {"/etc/pam.d/sshd", "account required pam_nologin.so\n", "that could be linked"},
        {"/etc/pam.d/sshd", "@include common-auth\n", "not switched: line 1 still includes the system's auth stack"},
        {"/etc/pam.d/brackmoor-auth", nullptr, "missing, although /etc/pam.d/sshd includes it"},
        {"/etc/pam.d/brackmoor-auth", "auth required pam_unix.so\n", "has no auth line calling pam_brackmoor.so"},
        {"/etc/ssh/sshd_config.d/50-cloud.conf", "KbdInteractiveAuthentication=no\n", "a drop-in turns"},
        {"/etc/ssh/sshd_config", "challengeresponseauthentication no\nKbdInteractiveAuthentication yes\nUsePAM yes\n",
         "keyboard-interactive authentication no, from "},
        {"/etc/ssh/sshd_config", "KbdInteractiveAuthentication no\nUsePAM yes\n", "Authentication no is active"},
        {"/etc/ssh/sshd_config", "UsePAM yes\n", "the agent cannot switch keyboard-interactive authentication on"},
        {"/etc/ssh/sshd_config", "KbdInteractiveAuthentication yes\nUsePAM no\nUsePAM yes\n", "sshd does not use PAM"},
        {"/etc/ssh/sshd_config", "KbdInteractiveAuthentication yes\nMatch User backup\n  UsePAM yes\n",
         "UsePAM is not set anywhere; sshd's default is no"},
        {"/lib/x86_64-linux-gnu/security/pam_brackmoor.so", nullptr, "where PAM loads its modules from"},
        {"/etc/pam.d/brackmoor-auth", "auth sufficient pam_brackmoor.so refresh_time=300 echo=1 local=0\n",
         "(not local=1): every user who is not excluded is refused"},
        {"/etc/brackmoor/tfa.json", kPolicyExcludingBob, "exclude_user_list=bob': left by an agent that did not stop"},
    };
    for (const auto& b : breakages) {
        TestSupport::TempDir dir;
        WriteSwitchedSystem(dir.Path());
        if (b.content != nullptr) {
            WriteFile(dir.Path() + b.file, b.content);
        } else {
            ::unlink((dir.Path() + b.file).c_str());
        }
        const auto [status, output] = Status(dir.Path());
        EXPECT_EQ(status, 1);
        EXPECT_THAT(output, HasSubstr("second factor: NOT in force, because\n"));
        EXPECT_THAT(output.substr(output.find("second factor:")), HasSubstr(b.reason));
    }
}

} // namespace
