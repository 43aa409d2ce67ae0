// The status command's reading of the real sshd's -T for a user's connection too: the settings the
// second factor needs, warnings about ways around it. Host keys are made in the sandbox's /etc.
#include "AgentTestSupport.h"

namespace {

const char* const kSshd = "/usr/sbin/sshd";
const std::string kBase = "KbdInteractiveAuthentication yes\nUsePAM yes\n";

std::string Status(const std::string& root, const std::string& sshdConfig, const std::string& arguments,
                   const std::string& user)
{
    AgentTest::WriteFile(root + "/etc/ssh/sshd_config", sshdConfig);
    AgentTest::WriteFile(root + "/etc/pam.d/brackmoor-auth",
                         "auth required pam_unix.so\nauth sufficient pam_brackmoor.so " + arguments + "\n");
    return AgentTest::RunStatus(root, kSshd, user).second;
}

TEST(StatusSshdTest, NamesEachWayAroundTheSecondFactorWithTheLineToChange)
{
    if (access(kSshd, X_OK) != 0) {
        GTEST_SKIP() << kSshd << " is not installed";
    }
    ASSERT_EQ(0, std::system("test -e /etc/ssh/ssh_host_ed25519_key || ssh-keygen -A >/dev/null"));
    TestSupport::TempDir dir;
    const std::string keys = "a key alone logs in, without the second factor";
    const std::string password = "the password method runs the same PAM stack";
    const std::string root = "root is excluded from the second factor and may log in with its password alone";
    const struct {
        const char* what;
        std::string config;
        std::string arguments;
        std::string user;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    } rows[] = {
        {"defaults", kBase, "local=1", "",
         {"[ ok ] sshd -T: kbdinteractiveauthentication yes", "[ ok ] sshd -T: usepam yes",
          "[warn] sshd -T: pubkeyauthentication yes, from sshd's default (no line sets it): " + keys,
          "[info] sshd -T: passwordauthentication yes, from sshd's default (no line sets it): " + password},
         {"gssapi", "hostbased", root}},
        {"key plus second factor", kBase + "AuthenticationMethods publickey,keyboard-interactive\n"
                                           "PasswordAuthentication no\n",
         "local=1", "", {}, {keys, password}},
        {"root excluded and allowed with a password", kBase + "PermitRootLogin yes\n",
         "local=1 exclude_user_list=admin;root", "",
         {"[warn] sshd -T: permitrootlogin yes, from " + dir.Path() + "/etc/ssh/sshd_config:3: " + root}, {}},
        {"root allowed but not excluded", kBase + "PermitRootLogin yes\n", "local=1 exclude_user_list=rooter", "",
         {}, {root}},
        {"other methods", kBase + "GSSAPIAuthentication yes\nHostbasedAuthentication yes\n", "local=1", "",
         {"gssapiauthentication yes, from " + dir.Path() + "/etc/ssh/sshd_config:3: a Kerberos ticket",
          "hostbasedauthentication yes, from " + dir.Path() + "/etc/ssh/sshd_config:4: a trusted host's key"},
         {}},
        // A Match block decides for its user: only sshd -T -C sees it.
        {"match block for another user", kBase + "Match User alice\n  PubkeyAuthentication no\n", "local=1", "bob",
         {"pubkeyauthentication yes for bob"}, {}},
        {"match block for this user", kBase + "Match User alice\n  PubkeyAuthentication no\n", "local=1", "alice",
         {}, {keys}},
        {"keyboard-interactive off for this user", kBase + "Match User alice\n  KbdInteractiveAuthentication no\n",
         "local=1", "alice", {"kbdinteractiveauthentication no: sshd will not ask for the second factor"}, {}},
        {"unknown option", kBase + "NoSuchOption yes\n", "local=1", "",
         {"): sshd would not start with this configuration"}, {"[ ok ] sshd -T"}},
    };
    for (const auto& row : rows) {
        const std::string output = Status(dir.Path(), row.config, row.arguments, row.user);
        for (const std::string& text : row.present) {
            EXPECT_NE(output.find(text), std::string::npos) << row.what << ": no '" << text << "' in\n" << output;
        }
        for (const std::string& text : row.absent) {
            EXPECT_EQ(output.find(text), std::string::npos) << row.what << ": '" << text << "' in\n" << output;
        }
    }
}

} // namespace
