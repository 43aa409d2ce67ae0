// Logins under real Linux-PAM (pamtester) with the real pam_brackmoor.so,
// switched on through the module as the agent does: an excluded user logs in
// with the password, others also need the second factor; hostile policies
// change neither the include file nor who gets in. Inside the sandbox: users
// are made in its copy of /etc, the module goes to its PAM directory overlay.
#include "TfaTestSupport.h"
#include "TwoFactorAuthenticationModule.h"

using namespace TfaTest;

namespace {

/// pamtester's verdict for sshd's stack: the password, then nothing more.
bool LogsIn(const std::string& user, const std::string& password = "Right-Pass-42")
{
    return std::system(("printf '%s\\n' '" + password + "' | pamtester sshd " + user + " authenticate >/dev/null 2>&1")
                           .c_str()) == 0;
}

int Push(Engine::TwoFactorAuthenticationModule& module, const std::string& users)
{
    Framework::Policy* current = nullptr;
    return module.RefreshPolicy("10001", "two_factor_authentication_feature",
                                R"({"content":{"local":1,"exclude_user_list":[)" + users + "]}}", current);
}

TEST(PamtesterTest, OnlyExcludedUsersPassWithThePasswordAloneAndHostilePoliciesChangeNothing)
{
    if (std::system("command -v pamtester useradd >/dev/null && test -d /lib/x86_64-linux-gnu/security") != 0) {
        GTEST_SKIP() << "needs pamtester, useradd and a Debian PAM stack";
    }
    for (const std::string user : {"bmalice", "bmbob"}) {
        ASSERT_EQ(std::system(("id " + user + " >/dev/null 2>&1 || useradd -M " + user + "; echo " + user +
                               ":Right-Pass-42 | chpasswd").c_str()), 0);
    }
    StandInInstallation installation(PAM_MODULE_PATH);
    Engine::TwoFactorAuthenticationModule module;
    ASSERT_EQ(module.Init(), 0);
    ASSERT_EQ(Push(module, R"("bmalice")"), 0);
    const std::string include = ReadWholeFile("/etc/pam.d/brackmoor-auth");
    EXPECT_THAT(include, ::testing::HasSubstr(" pam_brackmoor.so refresh_time=300 echo=1 local=1 "
                                              "exclude_user_list=bmalice\n"));
    EXPECT_TRUE(LogsIn("bmalice"));
    EXPECT_FALSE(LogsIn("bmalice", "wrong-password"));
    EXPECT_FALSE(LogsIn("bmbob")) << "bmbob has no authenticator code to give";

    // Each would let bmbob in with the password alone, exclude him unnamed,
    // or cut the module line so that nobody gets in.
    std::string many = R"("uuuuuuuuuu")";
    for (int i = 1; i < 100; ++i) {
        many += R"(,"uuuuuuuuuu")";
    }
    for (const std::string users : {R"("x\nauth sufficient pam_permit.so")", R"("x exclude_user_list=bmbob")",
                                     R"("x;bmbob")", R"("bmalice#y")", R"("bmalice\u0000")", many.c_str()}) {
        EXPECT_EQ(Push(module, users), -2) << users;
        EXPECT_EQ(ReadWholeFile("/etc/pam.d/brackmoor-auth"), include) << users;
        EXPECT_TRUE(LogsIn("bmalice") && !LogsIn("bmbob")) << users;
    }
    module.UnInit();
    EXPECT_FALSE(fs::exists("/etc/pam.d/brackmoor-auth"));
    EXPECT_TRUE(LogsIn("bmbob")) << "switched off: the password alone again";
}

} // namespace
