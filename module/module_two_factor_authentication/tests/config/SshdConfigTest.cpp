// sshd_config: the precondition check and the switch, line by line, with
// its restart.
#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

using namespace ConfigTest;

namespace {

const std::string K = "ChallengeResponseAuthentication";
const std::string KBD = "KbdInteractiveAuthentication";

using SshdConfigTest = TaskInTempDir;

TEST_F(SshdConfigTest, PreconditionRefusesOnlyExactFailingActiveLines)
{
    const std::pair<std::string, bool> rows[] = {
        {"#UsePAM no\n", true},
        {"  UsePAM\tno  \n", false},
        {"UsePAM no # note\n", true},
        {"UsePAM No\n", true},
        {"UsePAM=no\n", true},
        // Match blocks are not understood: a refusal inside one counts.
        {"Match User backup\n    PasswordAuthentication no\n", false},
    };
    for (const auto& [content, expected] : rows) {
        WriteText(task->sshdConfigPath, content);
        EXPECT_EQ(task->IsUsePamAndPwdAuth(), expected) << content;
    }
    EXPECT_EQ(log.Records(), Records{});
}

TEST_F(SshdConfigTest, SwitchRewritesTheFileAndRestartsSshd)
{
    struct Row {
        std::string original;
        bool on;
        bool result;  // and so one restart, whatever the script's exit status
        std::string expected;
        Records logs;
    };
    const std::string yes = K + " yes\n", no = K + " no\n", commentedYes = "#" + yes, commentedNo = "#" + no;
    // Only exactly "key yes" or "key no", behind at most one "#", is a key line.
    const std::string others = K + "=yes\n" + K + " yes # note\n" + K + " yes no\n" + K + "\n" + K + " Yes\n##" + K +
                               " yes\nchallengeresponseauthentication yes\n";
    const std::string kbdNo = KBD + " no\n";
    const std::string noK = "I No (" + K + ") config.";
    const Row rows[] = {
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
    int restarts = 0;
    for (const Row& row : rows) {
        WriteText(task->sshdConfigPath, row.original);
        log.Clear();
        EXPECT_EQ(task->SwitchSshdConfig(row.on), row.result) << row.original;
        EXPECT_EQ(ReadText(task->sshdConfigPath), row.expected) << row.original;
        EXPECT_EQ(log.Records(), row.logs) << row.original;
        restarts += row.result ? 1 : 0;
        EXPECT_EQ(installation.RestartCount(), restarts) << row.original;
    }
}

TEST_F(SshdConfigTest, MissingFileFailsWithItsErrnoAndNoRestart)
{
    EXPECT_FALSE(task->IsUsePamAndPwdAuth());
    EXPECT_FALSE(task->SwitchSshdConfig(true));
    const std::string error = "E Open sshd config file(ROOT/sshd_config) failed, errno(2).";
    EXPECT_EQ(log.Records(), (Records{error, error}));
    EXPECT_EQ(installation.RestartCount(), 0);
}

TEST_F(SshdConfigTest, UnknownInstallationPathFailsTheRestartAfterTheRewrite)
{
    WriteText(task->sshdConfigPath, K + " no\n");
    installation.Unset();
    EXPECT_FALSE(task->SwitchSshdConfig(true));
    EXPECT_EQ(ReadText(task->sshdConfigPath), "#" + K + " no\n" + K + " yes\n");
    EXPECT_EQ(log.Records(), Records{"E Get install path failed, copy auth module failed."});
}

} // namespace
