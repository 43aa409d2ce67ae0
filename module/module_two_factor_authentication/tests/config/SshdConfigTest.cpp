// sshd_config: recognising key lines, rewriting one line, the precondition
// check and the whole-file switch with its restart.
#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
using Poco::Message;

namespace {

const std::string K = "ChallengeResponseAuthentication";
const std::string KBD = "KbdInteractiveAuthentication";

struct KeyLineCase {
    std::string line;
    std::string value;
    bool expected;
};

class KeyLineTest : public ::testing::TestWithParam<KeyLineCase> {};

TEST_P(KeyLineTest, RecognisesExactlyKeyBlankValue)
{
    Engine::TwoFactorAuthenticationTask task;
    const KeyLineCase& c = GetParam();
    EXPECT_EQ(task.IsHasKeyLine(c.line, K, c.value), c.expected) << "line: " << c.line;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, KeyLineTest,
    ::testing::Values(KeyLineCase{K + " yes", "yes", true}, KeyLineCase{K + "\tyes", "yes", true},
                      KeyLineCase{"  " + K + " \t  no  ", "no", true}, KeyLineCase{K + " yes", "no", false},
                      KeyLineCase{K + "=yes", "yes", false}, KeyLineCase{K + " yes # note", "yes", false},
                      KeyLineCase{K + " yes no", "yes", false}, KeyLineCase{K, "yes", false},
                      KeyLineCase{K + " Yes", "yes", false}, KeyLineCase{"challengeresponseauthentication yes", "yes", false},
                      KeyLineCase{"#" + K + " yes", "yes", false}, KeyLineCase{"", "yes", false}));

struct ModifyCase {
    std::string line;
    bool switchOn;
    int keyLineState;
    std::string expected;
};

class ModifyLineTest : public ::testing::TestWithParam<ModifyCase> {};

TEST_P(ModifyLineTest, AppendsReplacementAndCounterpart)
{
    Engine::TwoFactorAuthenticationTask task;
    const ModifyCase& c = GetParam();
    std::string output = "before\n";
    task.ModifySshdLine(c.line, K, c.keyLineState, c.switchOn, output);
    EXPECT_EQ(output, "before\n" + c.expected) << "line: " << c.line << " on: " << c.switchOn
                                               << " state: " << c.keyLineState;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ModifyLineTest,
    ::testing::Values(
        ModifyCase{K + " yes", true, 0, K + " yes\n#" + K + " no\n"},
        ModifyCase{K + " yes", true, 1, K + " yes\n"},
        ModifyCase{"#" + K + " yes", true, 0, K + " yes\n#" + K + " no\n"},
        ModifyCase{K + " yes", false, 0, "#" + K + " yes\n" + K + " no\n"},
        ModifyCase{"#" + K + " yes", false, 1, "#" + K + " yes\n"},
        ModifyCase{K + " no", true, 0, "#" + K + " no\n" + K + " yes\n"},
        ModifyCase{"#" + K + " no", true, 1, "#" + K + " no\n"},
        ModifyCase{K + " no", false, 0, K + " no\n#" + K + " yes\n"},
        ModifyCase{"#" + K + " no", false, 1, K + " no\n"},
        // The matched line keeps its separator, the added one gets a blank.
        ModifyCase{K + "\tno", true, 0, "#" + K + "\tno\n" + K + " yes\n"},
        // A blank after the mark still counts; removing the mark keeps it.
        ModifyCase{"# " + K + " yes", true, 1, " " + K + " yes\n"},
        // Any non-zero state suppresses the counterpart.
        ModifyCase{K + " no", true, -1, "#" + K + " no\n"},
        ModifyCase{K + " no", true, -2, "#" + K + " no\n"},
        ModifyCase{K + "=yes", true, 0, K + "=yes\n"},
        ModifyCase{"##" + K + " yes", false, 0, "##" + K + " yes\n"},
        ModifyCase{KBD + " no", true, 0, KBD + " no\n"},
        ModifyCase{"Port 22", true, 0, "Port 22\n"},
        ModifyCase{"", false, 0, "\n"}));

// Tests that work on an sshd_config file in a temporary tree.
class SshdFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(root.Ok());
        task = TaskIn(root.Path());
    }

    void WriteConfig(const std::string& text) { WriteText(task->sshdConfigPath, text); }
    std::string Config() const { return ReadText(task->sshdConfigPath); }

    TestSupport::TempDir root;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
    StandInInstallation installation;
    ModuleLogCapture log;
};

struct TwoKeyCase {
    std::string content;
    int expected;
};

class TwoKeyLineTest : public SshdFileTest, public ::testing::WithParamInterface<TwoKeyCase> {};

TEST_P(TwoKeyLineTest, CountsActiveAndCommentedLines)
{
    WriteConfig(GetParam().content);
    EXPECT_EQ(task->IsHasTwoKeyLine(K), GetParam().expected) << GetParam().content;
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(
    Files, TwoKeyLineTest,
    ::testing::Values(TwoKeyCase{K + " yes\n#" + K + " no\n", 1}, TwoKeyCase{"#" + K + " no\n", 0},
                      TwoKeyCase{K + " no\n" + K + " no\n", 0}, TwoKeyCase{"challengeresponseauthentication yes\n", -1},
                      TwoKeyCase{K + " yes extra\n" + K + "\n", -1}, TwoKeyCase{"  " + K + " \t yes  \n", 0},
                      TwoKeyCase{"# " + K + " yes\n", 0}, TwoKeyCase{"##" + K + " yes\n", -1},
                      // Match blocks are not understood: their lines count alike.
                      TwoKeyCase{"Port 22\nMatch User x\n\t" + K + " yes\n" + K + " no", 1},
                      TwoKeyCase{"", -1}));

TEST_F(SshdFileTest, UnreadableFileIsReportedWithErrno)
{
    EXPECT_EQ(task->IsHasTwoKeyLine(K), -2);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open sshd config file(" + task->sshdConfigPath + ") failed, errno(2)."))
        << log.Dump();
    log.Clear();
    EXPECT_FALSE(task->IsUsePamAndPwdAuth());
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open sshd config file(" + task->sshdConfigPath + ") failed, errno(2)."))
        << log.Dump();
    log.Clear();
    EXPECT_FALSE(task->SwitchSshdConfig(true));
    EXPECT_EQ(log.Texts().size(), 1u) << log.Dump();
    EXPECT_EQ(installation.RestartCount(), 0);
}

struct PreconditionCase {
    std::string content;
    bool expected;
};

class PreconditionTest : public SshdFileTest, public ::testing::WithParamInterface<PreconditionCase> {};

TEST_P(PreconditionTest, RefusesOnlyExactFailingActiveLines)
{
    WriteConfig(GetParam().content);
    EXPECT_EQ(task->IsUsePamAndPwdAuth(), GetParam().expected) << GetParam().content;
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(
    Files, PreconditionTest,
    ::testing::Values(PreconditionCase{"", true}, PreconditionCase{"UsePAM yes\nPasswordAuthentication yes\n", true},
                      PreconditionCase{"#UsePAM no\n", true}, PreconditionCase{"UsePAM  no\n", false},
                      PreconditionCase{"  UsePAM\tno  \n", false}, PreconditionCase{"UsePAM no # note\n", true},
                      PreconditionCase{"UsePAM No\n", true}, PreconditionCase{"PasswordAuthentication no", false},
                      PreconditionCase{"PasswordAuthentication without-password\n", true},
                      PreconditionCase{"PermitEmptyPasswords yes\n", false},
                      PreconditionCase{"PermitEmptyPasswords no\n", true},
                      PreconditionCase{"UsePAM=no\n", true},
                      PreconditionCase{"Match User backup\n    PasswordAuthentication no\n", false}));

TEST_F(SshdFileTest, FullCycleMovesTheCommentMark)
{
    WriteConfig(K + " no\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), "#" + K + " no\n" + K + " yes\n");
    ASSERT_TRUE(task->SwitchSshdConfig(false));
    EXPECT_EQ(Config(), K + " no\n#" + K + " yes\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), "#" + K + " no\n" + K + " yes\n");
    EXPECT_EQ(installation.RestartCount(), 3);
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

TEST_F(SshdFileTest, SwitchingOffLeavesTheKeywordAtNoEvenWhereItWasYes)
{
    WriteConfig(K + " yes\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), K + " yes\n#" + K + " no\n");
    ASSERT_TRUE(task->SwitchSshdConfig(false));
    EXPECT_EQ(Config(), "#" + K + " yes\n" + K + " no\n");
}

TEST_F(SshdFileTest, SwitchingTwiceEqualsSwitchingOnce)
{
    WriteConfig("#" + K + " yes\n" + KBD + " no\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    const std::string once = Config();
    EXPECT_EQ(once, K + " yes\n#" + K + " no\n" + KBD + " no\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), once);
}

TEST_F(SshdFileTest, FallsBackToKbdInteractiveOnlyWhenTheOlderKeywordIsAbsent)
{
    WriteConfig("UsePAM yes\n" + KBD + " no\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), "UsePAM yes\n#" + KBD + " no\n" + KBD + " yes\n");
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "No (" + K + ") config.")) << log.Dump();
    EXPECT_EQ(log.Texts().size(), 1u) << log.Dump();
}

TEST_F(SshdFileTest, NeitherKeywordFailsWithoutTouchingTheFile)
{
    const std::string original = "  Port 22\nUsePAM yes";
    WriteConfig(original);
    EXPECT_FALSE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), original);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"No (" + K + ") config.", "No (" + KBD + ") config."}));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "No (" + KBD + ") config."));
    EXPECT_EQ(installation.RestartCount(), 0);

    WriteConfig("");
    EXPECT_FALSE(task->SwitchSshdConfig(false));
    EXPECT_EQ(Config(), "");
}

TEST_F(SshdFileTest, RewriteTrimsEveryLineAndEndsEachWithNewline)
{
    WriteConfig("Port 22  \r\n\n   \nMatch User backup\n\tForceCommand internal-sftp\n  " + K + "\tno");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), "Port 22\n\n\nMatch User backup\nForceCommand internal-sftp\n#" + K + "\tno\n" + K + " yes\n");
}

TEST_F(SshdFileTest, EveryLoneLineGetsItsOwnCounterpart)
{
    WriteConfig(K + " no\nPort 22\n#" + K + " no\n");
    ASSERT_TRUE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), "#" + K + " no\n" + K + " yes\nPort 22\n#" + K + " no\n" + K + " yes\n");
}

TEST_F(SshdFileTest, RestartRunsTheInstallationScriptAndIgnoresItsResult)
{
    EXPECT_TRUE(task->RestartSsh());
    EXPECT_EQ(installation.RestartCount(), 1);
    WriteText(installation.Path() + "sudobin/sshrestart.sh", "#!/bin/sh\nexit 3\n");
    EXPECT_TRUE(task->RestartSsh());
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

TEST_F(SshdFileTest, UnknownInstallationPathFailsTheRestartAfterTheRewrite)
{
    WriteConfig(K + " no\n");
    NoInstallationPath noPath;
    EXPECT_FALSE(task->SwitchSshdConfig(true));
    EXPECT_EQ(Config(), "#" + K + " no\n" + K + " yes\n");
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Get install path failed, copy auth module failed.")) << log.Dump();
    EXPECT_EQ(installation.RestartCount(), 0);
}

} // namespace
