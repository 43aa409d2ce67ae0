// The files the task rewrites, row by row on temporary copies: sshd_config
// (the precondition scan and the switch with its restart), the PAM include
// file generated from a system auth stack, and sshd's PAM service file
// pointed at it and back.
#include "TfaTestSupport.h"

using namespace TfaTest;

namespace {

const std::string K = "ChallengeResponseAuthentication", KBD = "KbdInteractiveAuthentication";

using ConfigFilesTest = TaskInTempDir;

TEST_F(ConfigFilesTest, SshdPreconditionRefusesOnlyExactFailingActiveLines)
{
    // Match blocks are not understood: a refusal inside one counts.
    const std::pair<std::string, bool> rows[] = {{"#UsePAM no\n", true}, {"  UsePAM\tno  \n", false},
        {"UsePAM no # note\n", true}, {"UsePAM No\n", true}, {"UsePAM=no\n", true},
        {"Match User backup\n    PasswordAuthentication no\n", false}};
    for (const auto& [content, expected] : rows) {
        WriteText(task->sshdConfigPath, content);
        EXPECT_EQ(task->IsUsePamAndPwdAuth(), expected) << content;
    }
    EXPECT_EQ(log.Records(), Records{});
}

TEST_F(ConfigFilesTest, SshdSwitchRewritesTheFileAndRestartsSshd)
{
    const std::string yes = K + " yes\n", no = K + " no\n", commentedYes = "#" + yes, commentedNo = "#" + no;
    // Only exactly "key yes" or "key no", behind at most one "#", is a key line.
    const std::string others = K + "=yes\n" + K + " yes # note\n" + K + " yes no\n" + K + "\n" + K + " Yes\n##" + K +
                               " yes\nchallengeresponseauthentication yes\n";
    const std::string kbdNo = KBD + " no\n", noK = "I No (" + K + ") config.";
    // original, switch on, result (and so one restart, whatever the script's exit status), file, records
    const std::tuple<std::string, bool, bool, std::string, Records> rows[] = {
        // Each lone key line gets its counterpart, the matched line keeps its
        // separator; every line is trimmed and ends with "\n".
        {"Port 22  \r\n\n   \n" + no + "\tForceCommand internal-sftp\n  #" + K + "\tno", true, true,
         "Port 22\n\n\n" + commentedNo + yes + "ForceCommand internal-sftp\n#" + K + "\tno\n" + yes, {}},
        {others + kbdNo + commentedYes, true, true, others + kbdNo + yes + commentedNo, {}},
        // A blank after the mark still counts.
        {yes + "# " + yes, false, true, commentedYes + no + "# " + yes + no, {}},
        {no, false, true, no + commentedYes, {}},
        // With both kinds present only the "#" moves: switching twice equals
        // switching once, and switching off leaves "no" even where it was "yes".
        {yes + commentedNo, true, true, yes + commentedNo, {}},
        {yes + commentedNo + commentedYes, false, true, commentedYes + no + commentedYes, {}},
        // Match blocks are not understood: their lines count alike.
        {"Match User x\n\t" + yes + no, true, true, "Match User x\n" + yes + commentedNo, {}},
        // The newer keyword only when the older one has no key line at all.
        {others + kbdNo, true, true, others + "#" + kbdNo + KBD + " yes\n", {noK}},
        // Neither keyword: the file stays as it is, not even normalised.
        {"  Port 22\nUsePAM yes", true, false, "  Port 22\nUsePAM yes", {noK, "I No (" + KBD + ") config."}},
    };
    long restarts = 0;
    for (const auto& [original, on, result, expected, logs] : rows) {
        WriteText(task->sshdConfigPath, original);
        log.Clear();
        EXPECT_EQ(task->SwitchSshdConfig(on), result) << original;
        EXPECT_EQ(ReadWholeFile(task->sshdConfigPath), expected) << original;
        EXPECT_EQ(log.Records(), logs) << original;
        EXPECT_EQ(installation.Restarts(), restarts += result) << original;
    }
}

TEST_F(ConfigFilesTest, PamIncludeFileMakesFirstPamUnixAuthLineRequiredAndAddsTheModuleAfterIt)
{
    task->refreshTime = 300;
    task->local = 0;
    task->excludeUserList = {"root", "deploy"};
    const std::string args = "pam_brackmoor.so refresh_time=300 echo=1 local=0 exclude_user_list=root;deploy\n";
    const std::string sufficient = "auth sufficient " + args, skip = "auth [success=1 default=ignore] " + args;
    const std::string earlier = "left by an earlier run\n";
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
        WriteText(task->pamIncludePath, earlier);
        EXPECT_EQ(task->GeneratePamBm("common-auth"), !expected.empty()) << origin;
        EXPECT_EQ(ReadWholeFile(task->pamIncludePath), expected.empty() ? earlier : expected) << origin;
    }
    EXPECT_EQ(log.Records(), Records{});
}

TEST_F(ConfigFilesTest, PamServiceFileIsRewrittenOnlyWhenRecognised)
{
    WriteText(task->pamDir + "password-auth", "auth sufficient pam_unix.so\n");
    WriteText(task->pamDir + "common-auth", "auth [success=1 default=ignore] pam_unix.so\n");
    const std::string args = "pam_brackmoor.so refresh_time=301 echo=1 local=1\n";
    const std::string fromPasswordAuth = "auth required pam_unix.so\nauth sufficient " + args;
    const std::string fromCommonAuth = "auth required  pam_unix.so\nauth [success=1 default=ignore] " + args;
    const std::string modified = "W Pam sshd config file has been modified.";
    // original, switch on, result, service file and include file afterwards (empty: none), records
    const std::tuple<std::string, bool, bool, std::string, std::string, Records> rows[] = {
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
    for (const auto& [original, on, result, expected, include, logs] : rows) {
        WriteText(task->pamSshdPath, original);
        fs::remove(task->pamIncludePath);
        log.Clear();
        EXPECT_EQ(task->SwitchAuth(on), result) << original;
        EXPECT_EQ(ReadWholeFile(task->pamSshdPath), expected) << original;
        EXPECT_EQ(ReadWholeFile(task->pamIncludePath), include) << original;
        EXPECT_EQ(log.Records(), logs) << original;
    }
}

TEST_F(ConfigFilesTest, PamFailuresNameTheFullPathAndLeaveTheServiceFile)
{
    EXPECT_FALSE(task->SwitchAuth(true));
    WriteText(task->pamSshdPath, "@include common-auth\n");
    EXPECT_FALSE(task->SwitchAuth(true));
    WriteText(task->pamDir + "common-auth", "auth required pam_unix.so\n");
    task->pamIncludePath = root.File("missing-dir/brackmoor-auth");
    EXPECT_FALSE(task->SwitchAuth(true));
    EXPECT_EQ(ReadWholeFile(task->pamSshdPath), "@include common-auth\n");
    EXPECT_EQ(log.Records(), (Records{"E Open pam sshd config(ROOT/pam.d/sshd) failed, errno(2).",
                                      "E Open origin pam config file(ROOT/pam.d/common-auth) failed, errno(2).",
                                      "E Generate pam bm config file failed.",
                                      "E Open pam bm config file(ROOT/missing-dir/brackmoor-auth) failed, errno(2).",
                                      "E Generate pam bm config file failed."}));
}

} // namespace
