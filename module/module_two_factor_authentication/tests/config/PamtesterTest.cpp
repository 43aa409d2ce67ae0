// Logins under real Linux-PAM (pamtester) with the real pam_brackmoor.so,
// switched on through the module as the agent does: an excluded user logs in
// with the password, others also need the second factor; hostile policies
// change neither the include file nor who gets in. Inside the sandbox: users
// are made in its copy of /etc, the module goes to its PAM directory overlay.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "ConfigTestSupport.h"
#include "TwoFactorAuthenticationModule.h"

using namespace ConfigTest;

namespace {

const std::string kFeature = "two_factor_authentication_feature";
const std::string kPassword = "Right-Pass-42";
const std::string kInForce = R"({"content":{"local":1,"exclude_user_list":["bmalice"]}})";

int RunShell(const std::string& command)
{
    const int status = std::system(command.c_str());
    return (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

/// pamtester's verdict for sshd's stack: the password, then nothing more.
bool LogsIn(const std::string& user, const std::string& password = kPassword)
{
    return RunShell("printf '%s\\n' '" + password + "' | pamtester sshd " + user + " authenticate >/dev/null 2>&1") ==
           0;
}

std::string Users(const std::string& elements)
{
    return R"({"content":{"local":1,"exclude_user_list":[)" + elements + "]}}";
}

TEST(PamtesterTest, OnlyExcludedUsersPassWithThePasswordAloneAndHostilePoliciesChangeNothing)
{
    if (RunShell("for tool in pamtester useradd chpasswd; do command -v $tool >/dev/null || exit 1; done") != 0) {
        GTEST_SKIP() << "pamtester, useradd or chpasswd is not installed";
    }
    if (!std::filesystem::exists("/etc/pam.d/common-auth") || !std::filesystem::is_directory(
                                                                  "/lib/x86_64-linux-gnu/security")) {
        GTEST_SKIP() << "no Debian PAM stack";
    }
    for (const char* user : {"bmalice", "bmbob"}) {
        ASSERT_EQ(RunShell(std::string("id ") + user + " >/dev/null 2>&1 || useradd -M " + user), 0);
        ASSERT_EQ(RunShell(std::string("echo '") + user + ":" + kPassword + "' | chpasswd"), 0);
    }
    StandInInstallation installation(PAM_MODULE_PATH);
    Engine::TwoFactorAuthenticationModule module;
    ASSERT_EQ(module.Init(), 0);
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module.RefreshPolicy("10001", kFeature, kInForce, current), 0);
    const std::string include = ReadText("/etc/pam.d/brackmoor-auth");
    ASSERT_NE(include.find("pam_brackmoor.so refresh_time=300 echo=1 local=1 exclude_user_list=bmalice\n"),
              std::string::npos);
    EXPECT_TRUE(LogsIn("bmalice"));
    EXPECT_FALSE(LogsIn("bmalice", "wrong-password"));
    EXPECT_FALSE(LogsIn("bmbob")) << "bmbob has no authenticator code to give";

    // Each would let bmbob in with the password alone, exclude him unnamed,
    // or cut the module line so that nobody gets in.
    std::string many;
    for (int i = 0; i < 100; ++i) {
        many += (i == 0 ? "\"" : ",\"") + std::string(10, 'u') + "\"";
    }
    for (const std::string& users :
         {std::string(R"("x\nauth sufficient pam_permit.so")"), std::string(R"("x exclude_user_list=bmbob")"),
          std::string(R"("x;bmbob")"), std::string(R"("bmalice#y")"), std::string(R"("bmalice\u0000")"), many}) {
        EXPECT_EQ(module.RefreshPolicy("10001", kFeature, Users(users), current), -2) << users;
        EXPECT_EQ(ReadText("/etc/pam.d/brackmoor-auth"), include) << users;
        EXPECT_TRUE(LogsIn("bmalice")) << users;
        EXPECT_FALSE(LogsIn("bmbob")) << users;
    }

    module.UnInit();
    EXPECT_FALSE(std::filesystem::exists("/etc/pam.d/brackmoor-auth"));
    EXPECT_TRUE(LogsIn("bmbob")) << "switched off: the password alone again";
}

} // namespace
