// The generated include file under real Linux-PAM: a service switched to it
// still checks passwords, and the module line really takes part in the
// stack. Inside the sandbox: a user is created in its copy of /etc and
// stand-in modules are installed on its overlays.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "ConfigTestSupport.h"

using namespace ConfigTest;

namespace {

const std::string securityDir = "/lib/x86_64-linux-gnu/security/";
const std::string user = "bmtester";
const std::string password = "Right-Pass-42";
const std::string service = "brackmoor-sshd-test";

// Exit status of a shell command line; -1 when it did not exit normally.
int RunShell(const std::string& command)
{
    const int status = std::system(command.c_str());
    return (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

// pamtester's result for the user with `secret` typed at the password prompt.
int Authenticate(const std::string& secret)
{
    return RunShell("printf '%s\\n' '" + secret + "' | pamtester " + service + " " + user + " authenticate >/dev/null 2>&1");
}

// Installs the system module `module` in place of ours.
bool InstallInsteadOfOurs(Engine::TwoFactorAuthenticationTask& task, const std::string& module)
{
    StandInInstallation installation(securityDir + module);
    return task.CopyAuthModule();
}

TEST(PamtesterTest, IncludeFileKeepsThePasswordCheckAndCallsTheModule)
{
    if (RunShell("for tool in pamtester useradd chpasswd; do command -v $tool >/dev/null || exit 1; done") != 0) {
        GTEST_SKIP() << "pamtester, useradd or chpasswd is not installed";
    }
    if (!std::filesystem::exists("/etc/pam.d/common-auth") || !std::filesystem::exists(securityDir + "pam_unix.so")) {
        GTEST_SKIP() << "no Debian PAM stack (/etc/pam.d/common-auth, " << securityDir << "pam_unix.so)";
    }
    ASSERT_EQ(RunShell("id " + user + " >/dev/null 2>&1 || useradd -M -s /usr/sbin/nologin " + user), 0);
    ASSERT_EQ(RunShell("echo '" + user + ":" + password + "' | chpasswd"), 0);
    // The machine's own common-auth is the origin; the service is shaped like Debian's sshd file.
    Engine::TwoFactorAuthenticationTask task;
    task.pamSshdPath = "/etc/pam.d/" + service;
    WriteText(task.pamSshdPath, "@include common-auth\n@include common-account\n");

    ASSERT_TRUE(InstallInsteadOfOurs(task, "pam_permit.so"));
    ASSERT_TRUE(task.SwitchAuth(true));
    ASSERT_NE(ReadText(task.pamIncludePath).find("pam_brackmoor.so refresh_time="), std::string::npos);
    EXPECT_EQ(Authenticate(password), 0);
    EXPECT_NE(Authenticate("wrong-password"), 0);

    ASSERT_TRUE(InstallInsteadOfOurs(task, "pam_deny.so"));
    EXPECT_NE(Authenticate(password), 0);

    ASSERT_TRUE(task.SwitchAuth(false));
    EXPECT_EQ(Authenticate(password), 0);
    EXPECT_NE(Authenticate("wrong-password"), 0);
    task.DeleteAuthModule();
}

} // namespace
