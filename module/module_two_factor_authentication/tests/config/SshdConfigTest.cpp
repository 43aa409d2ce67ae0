// sshd_config: editing one line, the precondition check and the whole-file
// switch with its restart.
#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
using Records = std::vector<std::string>;

namespace {

const std::string K = "ChallengeResponseAuthentication";
const std::string KBD = "KbdInteractiveAuthentication";

TEST(SshdLineTest, MovesTheCommentMarkAndAddsTheCounterpartOnlyToLoneKeyLines)
{
    struct Row {
        std::string line;  // trimmed, as the file rewrite passes it
        bool on;
        int keyLineState;  // IsHasTwoKeyLine() for the file: 0 only one kind of key line
        std::string expected;
    };
    const Row rows[] = {
        {K + " yes", true, 0, K + " yes\n#" + K + " no\n"},
        {K + " yes", true, 1, K + " yes\n"},
        {"#" + K + " yes", true, 0, K + " yes\n#" + K + " no\n"},
        {K + " yes", false, 0, "#" + K + " yes\n" + K + " no\n"},
        {"#" + K + " yes", false, 1, "#" + K + " yes\n"},
        {K + " no", true, 0, "#" + K + " no\n" + K + " yes\n"},
        {"#" + K + " no", true, 1, "#" + K + " no\n"},
        {K + " no", false, 0, K + " no\n#" + K + " yes\n"},
        {"#" + K + " no", false, 1, K + " no\n"},
        // The matched line keeps its separator, the added one gets a blank.
        {K + "\tno", true, 0, "#" + K + "\tno\n" + K + " yes\n"},
        // A blank after the mark still counts; removing the mark keeps it.
        {"# " + K + " yes", true, 1, " " + K + " yes\n"},
        // Any non-zero state suppresses the counterpart.
        {K + " no", true, -1, "#" + K + " no\n"},
    };
    Engine::TwoFactorAuthenticationTask task;
    for (const Row& row : rows) {
        std::string output = "before\n";
        task.ModifySshdLine(row.line, K, row.keyLineState, row.on, output);
        EXPECT_EQ(output, "before\n" + row.expected) << row.line << " on " << row.on << " state " << row.keyLineState;
    }
    // Only exactly "key yes" or "key no", behind at most one "#", is a key line.
    for (const std::string& line : {K + "=yes", K + " yes # note", K + " yes no", K, K + " Yes", "##" + K + " yes",
                                    std::string("challengeresponseauthentication yes"), KBD + " no", std::string()}) {
        for (bool on : {true, false}) {
            std::string output;
            task.ModifySshdLine(line, K, 0, on, output);
            EXPECT_EQ(output, line + "\n");
        }
    }
}

class SshdConfigTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(root.Ok()); }

    TestSupport::TempDir root;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task = TaskIn(root.Path());
    StandInInstallation installation;
    ModuleLogCapture log{root.Path()};
};

TEST_F(SshdConfigTest, PreconditionRefusesOnlyExactFailingActiveLines)
{
    const std::pair<std::string, bool> rows[] = {
        {"", true},
        {"UsePAM yes\nPasswordAuthentication yes\n", true},
        {"#UsePAM no\n", true},
        {"  UsePAM\tno  \n", false},
        {"UsePAM no # note\n", true},
        {"UsePAM No\n", true},
        {"UsePAM=no\n", true},
        {"PasswordAuthentication no", false},
        {"PermitEmptyPasswords yes\n", false},
        {"PermitEmptyPasswords no\n", true},
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
        bool result;  // and so one restart
        std::string expected;
        Records logs;
    };
    const std::string noK = "I No (" + K + ") config.";
    const Row rows[] = {
        // A whole cycle: the first switch adds the counterpart, later ones move the "#".
        {K + " no\n", true, true, "#" + K + " no\n" + K + " yes\n", {}},
        {"#" + K + " no\n" + K + " yes\n", false, true, K + " no\n#" + K + " yes\n", {}},
        // Switching off leaves the keyword at "no" even where it was "yes".
        {K + " yes\n", true, true, K + " yes\n#" + K + " no\n", {}},
        {K + " yes\n#" + K + " no\n", false, true, "#" + K + " yes\n" + K + " no\n", {}},
        // Switching twice equals switching once; the newer keyword stays as it is.
        {K + " yes\n#" + K + " no\n" + KBD + " no\n", true, true, K + " yes\n#" + K + " no\n" + KBD + " no\n", {}},
        // Every lone line gets its own counterpart.
        {K + " no\nPort 22\n#" + K + " no\n", true, true,
         "#" + K + " no\n" + K + " yes\nPort 22\n#" + K + " no\n" + K + " yes\n", {}},
        // Every line trimmed and ended with "\n".
        {"Port 22  \r\n\n   \nMatch User backup\n\tForceCommand internal-sftp\n  " + K + "\tno", true, true,
         "Port 22\n\n\nMatch User backup\nForceCommand internal-sftp\n#" + K + "\tno\n" + K + " yes\n", {}},
        // Match blocks are not understood: their lines count alike.
        {"Match User x\n\t" + K + " yes\n" + K + " no", true, true, "Match User x\n" + K + " yes\n#" + K + " no\n", {}},
        // The newer keyword only when the older one has no key line at all.
        {"challengeresponseauthentication yes\n" + K + " yes extra\n##" + K + " yes\n" + KBD + " no\n", true, true,
         "challengeresponseauthentication yes\n" + K + " yes extra\n##" + K + " yes\n#" + KBD + " no\n" + KBD + " yes\n",
         {noK}},
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

TEST_F(SshdConfigTest, RestartIgnoresTheScriptsExitStatus)
{
    const std::string script = installation.Path() + "sudobin/sshrestart.sh";
    WriteText(script, ReadText(script) + "exit 3\n");
    EXPECT_TRUE(task->RestartSsh());
    EXPECT_EQ(installation.RestartCount(), 1);
    EXPECT_EQ(log.Records(), Records{});
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
