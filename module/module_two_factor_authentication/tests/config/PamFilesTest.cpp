// The PAM include file generated from a system auth stack, and sshd's PAM
// service file pointed at it and back.
#include <gtest/gtest.h>

#include <cstdio>

#include "ConfigTestSupport.h"

using namespace ConfigTest;

namespace {

const std::string earlierInclude = "left by an earlier run\n";
const std::string modified = "W Pam sshd config file has been modified.";

class PamFilesTest : public TaskInTempDir {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(TaskInTempDir::SetUp());
        WriteText(task->pamDir + "password-auth", "auth sufficient pam_unix.so\n");
        WriteText(task->pamDir + "common-auth", "auth [success=1 default=ignore] pam_unix.so\n");
    }
};

TEST_F(PamFilesTest, IncludeFileMakesFirstPamUnixAuthLineRequiredAndAddsTheModuleAfterIt)
{
    task->refreshTime = 300;
    task->local = 0;
    task->excludeUserList = {"root", "deploy"};
    const std::string args = "pam_brackmoor.so refresh_time=300 echo=1 local=0 exclude_user_list=root;deploy\n";
    const std::string sufficient = "auth sufficient " + args;
    const std::string skip = "auth [success=1 default=ignore] " + args;
    const std::pair<std::string, std::string> rows[] = {  // origin, include file (empty: not written)
        {"auth requisite /lib/security/pam_unix.so\n", "auth required /lib/security/pam_unix.so\n" + sufficient},
        // Our line takes over the jump of a bracketed control. Of the bracket only
        // the second word goes: longer brackets leave a broken line.
        {"auth [success=1 new_authtok_reqd=done default=ignore] pam_unix.so\n",
         "auth required  default=ignore] pam_unix.so\n" + skip},
        // Only the first pam_unix line; every line trimmed and ended with "\n".
        {"#%PAM-1.0\n\n   \n  auth required pam_env.so  \r\nauth sufficient pam_unix.so\n"
         "auth  sufficient  pam_unix.so  x  ",
         "#%PAM-1.0\n\n\nauth required pam_env.so\nauth required pam_unix.so\n" + sufficient +
             "auth  sufficient  pam_unix.so  x\n"},
        // Only lines whose first four characters are "auth" count, wherever pam_unix.so stands.
        {"-auth sufficient pam_unix.so\n#auth sufficient pam_unix.so\naccount required pam_unix.so\n"
         "authx optional pam_exec.so /bin/pam_unix.so.sh\n",
         "-auth sufficient pam_unix.so\n#auth sufficient pam_unix.so\naccount required pam_unix.so\n"
         "authx required  /bin/pam_unix.so.sh\n" + skip},
        // Nowhere to put the module: an earlier include file stays.
        {"auth required pam_unix2.so\nauth required pam_deny.so\n", ""},
    };
    for (const auto& [origin, expected] : rows) {
        WriteText(task->pamDir + "common-auth", origin);
        WriteText(task->pamIncludePath, earlierInclude);
        EXPECT_EQ(task->GeneratePamBm("common-auth"), !expected.empty()) << origin;
        EXPECT_EQ(ReadText(task->pamIncludePath), expected.empty() ? earlierInclude : expected) << origin;
    }
    EXPECT_EQ(log.Records(), Records{});
}

TEST_F(PamFilesTest, ServiceFileIsRewrittenOnlyWhenRecognised)
{
    struct Row {
        std::string original;
        bool on;
        bool result;
        std::string expected;  // the service file afterwards
        std::string include;   // the include file afterwards; empty: none
        Records logs;
    };
    const std::string args = "pam_brackmoor.so refresh_time=301 echo=1 local=1\n";
    const std::string fromPasswordAuth = "auth required pam_unix.so\nauth sufficient " + args;
    const std::string fromCommonAuth = "auth required  pam_unix.so\nauth [success=1 default=ignore] " + args;
    const Row rows[] = {
        // Only auth include lines switch; the file is normalised.
        {"# comment  \r\n  @include common-auth  \r\n\r\n@include common-account\naccount include password-auth", true,
         true, "# comment\n#@include common-auth\n@include\tbrackmoor-auth\n\n@include common-account\n"
         "account include password-auth\n", fromCommonAuth, {}},
        // Two include lines: both switched, the include file written twice, the last one wins.
        {"auth  substack \t password-auth\n@include common-auth\n", true, true,
         "#auth  substack \t password-auth\nauth\tsubstack\tbrackmoor-auth\n#@include common-auth\n"
         "@include\tbrackmoor-auth\n", fromCommonAuth, {}},
        // Switching off restores the commented original and drops the added line.
        {"#auth substack password-auth\nauth\tsubstack\tbrackmoor-auth\n", false, true,
         "auth substack password-auth\n", "", {}},
        // An abnormal line after a good one: the include file is already written.
        {"auth substack password-auth\nauth include postlogin-auth\n", true, false,
         "auth substack password-auth\nauth include postlogin-auth\n", fromPasswordAuth,
         {"E Pam sshd config abnormal."}},
        // Already switched as far as can be told: the caller goes on, nothing is regenerated.
        {"@include\tbrackmoor-auth\n", true, true, "@include\tbrackmoor-auth\n", "", {modified}},
        {"@include\tbrackmoor-auth\n", false, true, "@include\tbrackmoor-auth\n", "", {modified}},
        // Nothing to restore: the file is not even normalised.
        {"#@include common-auth  \n", false, false, "#@include common-auth  \n", "", {}},
        // With the added line moved above its copy, every "-auth" line up to
        // and including the copy goes: no system stack is included any more.
        {"auth\tsubstack\tbrackmoor-auth\naccount include password-auth\n#auth substack password-auth\n"
         "session include password-auth\n",
         false, true, "session include password-auth\n", "", {}},
    };
    for (const Row& row : rows) {
        WriteText(task->pamSshdPath, row.original);
        std::remove(task->pamIncludePath.c_str());
        log.Clear();
        EXPECT_EQ(task->SwitchAuth(row.on), row.result) << row.original;
        EXPECT_EQ(ReadText(task->pamSshdPath), row.expected) << row.original;
        EXPECT_EQ(ReadText(task->pamIncludePath), row.include) << row.original;
        EXPECT_EQ(log.Records(), row.logs) << row.original;
    }
}

TEST_F(PamFilesTest, FailuresNameTheFullPathAndLeaveTheServiceFile)
{
    EXPECT_FALSE(task->SwitchAuth(true));
    WriteText(task->pamSshdPath, "@include common-auth\n");
    std::remove((task->pamDir + "common-auth").c_str());
    EXPECT_FALSE(task->SwitchAuth(true));
    WriteText(task->pamDir + "common-auth", "auth required pam_unix.so\n");
    task->pamIncludePath = root.File("missing-dir/brackmoor-auth");
    EXPECT_FALSE(task->SwitchAuth(true));
    EXPECT_EQ(ReadText(task->pamSshdPath), "@include common-auth\n");
    EXPECT_EQ(log.Records(), (Records{"E Open pam sshd config(ROOT/pam.d/sshd) failed, errno(2).",
                                      "E Open origin pam config file(ROOT/pam.d/common-auth) failed, errno(2).",
                                      "E Generate pam bm config file failed.",
                                      "E Open pam bm config file(ROOT/missing-dir/brackmoor-auth) failed, errno(2).",
                                      "E Generate pam bm config file failed."}));
}

} // namespace
