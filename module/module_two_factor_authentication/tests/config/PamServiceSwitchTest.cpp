// sshd's PAM service file: pointing its auth include at the module's include
// file and back, one line and one whole file at a time.
#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
using Poco::Message;

namespace {

const std::string originText = "auth sufficient pam_unix.so\n";
const std::string modifiedWarning = "Pam sshd config file has been modified.";

class ServiceFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(root.Ok());
        task = TaskIn(root.Path());
        WriteText(task->pamDir + "password-auth", originText);
        WriteText(task->pamDir + "common-auth", "auth [success=1 default=ignore] pam_unix.so\n");
    }

    void WriteService(const std::string& text) { WriteText(task->pamSshdPath, text); }
    std::string Service() const { return ReadText(task->pamSshdPath); }

    TestSupport::TempDir root;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
    ModuleLogCapture log;
};

struct EnableCase {
    std::string line;
    int result;
    std::string newLine;
};

class EnableLineTest : public ServiceFileTest, public ::testing::WithParamInterface<EnableCase> {};

TEST_P(EnableLineTest, RewritesIncludeLine)
{
    const EnableCase& c = GetParam();
    std::string commented;
    std::string added;
    EXPECT_EQ(task->EnableAuth(c.line, commented, added), c.result) << c.line;
    EXPECT_EQ(commented, "#" + c.line);
    if (c.result == 0) {
        EXPECT_EQ(added, c.newLine);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, EnableLineTest,
    ::testing::Values(EnableCase{"auth  substack \t password-auth", 0, "auth\tsubstack\tbrackmoor-auth"},
                      EnableCase{"@include common-auth", 0, "@include\tbrackmoor-auth"},
                      EnableCase{"auth include brackmoor-auth", 1, ""},
                      EnableCase{"@include\tbrackmoor-auth", 1, ""},
                      EnableCase{"auth include system-auth", -1, ""},
                      EnableCase{"auth include postlogin-auth", -1, ""}));

struct DisableCase {
    std::string line;
    int flags;
    std::string restored;
};

class DisableLineTest : public ServiceFileTest, public ::testing::WithParamInterface<DisableCase> {};

TEST_P(DisableLineTest, ClassifiesLine)
{
    const DisableCase& c = GetParam();
    std::string restored;
    EXPECT_EQ(task->DisableAuth(c.line, restored), c.flags) << c.line;
    EXPECT_EQ(restored, c.restored) << c.line;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DisableLineTest,
    ::testing::Values(DisableCase{"#auth  substack password-auth", 2, "auth  substack password-auth"},
                      DisableCase{"#@include common-auth", 2, "@include common-auth"},
                      DisableCase{"auth substack password-auth", 0, "auth substack password-auth"},
                      DisableCase{"auth\tsubstack\tbrackmoor-auth", 1, ""},
                      DisableCase{"#auth include system-auth", 0, "#auth include system-auth"}));

struct SwitchCase {
    std::string name;
    std::string original;
    bool on;
    bool result;
    std::string expected;  // the file afterwards
    std::vector<std::string> logs;
};

class SwitchFileTest : public ServiceFileTest, public ::testing::WithParamInterface<SwitchCase> {};

TEST_P(SwitchFileTest, RewritesOnlyRecognisedFiles)
{
    const SwitchCase& c = GetParam();
    WriteService(c.original);
    EXPECT_EQ(task->SwitchAuth(c.on), c.result);
    EXPECT_EQ(Service(), c.expected);
    EXPECT_EQ(log.Texts(), c.logs) << log.Dump();
}

const std::string rhOn = "#%PAM-1.0\n#auth       substack     password-auth\nauth\tsubstack\tbrackmoor-auth\n"
                         "auth       include      postlogin\n-auth      optional     pam_reauthorize.so prepare\n"
                         "account    include      password-auth\n";
const std::string rhOff = "#%PAM-1.0\nauth       substack     password-auth\nauth       include      postlogin\n"
                          "-auth      optional     pam_reauthorize.so prepare\naccount    include      password-auth\n";

INSTANTIATE_TEST_SUITE_P(
    Files, SwitchFileTest,
    ::testing::Values(
        SwitchCase{"RedHatOn", rhOff, true, true, rhOn, {}},
        SwitchCase{"RedHatOff", rhOn, false, true, rhOff, {}},
        SwitchCase{"DebianOnNormalises", "# comment  \r\n  @include common-auth  \r\n\r\n@include common-account", true, true,
                   "# comment\n#@include common-auth\n@include\tbrackmoor-auth\n\n@include common-account\n", {}},
        // Nothing links the include file, yet the file counts as switched on.
        SwitchCase{"NoIncludeLineOn", "auth required pam_unix.so  \n", true, true, "auth required pam_unix.so\n", {}},
        SwitchCase{"NoIncludeLineOff", "auth required pam_unix.so  \n", false, false, "auth required pam_unix.so  \n", {}},
        SwitchCase{"AbnormalStackOn", "auth include system-auth\n", true, false, "auth include system-auth\n",
                   {"Pam sshd config abnormal."}},
        SwitchCase{"AlreadyOn", rhOn, true, true, rhOn, {modifiedWarning}},
        SwitchCase{"AlreadyOff", rhOff, false, false, rhOff, {}},
        SwitchCase{"OnlyCommentedCopyOff", "#@include common-auth\n", false, false, "#@include common-auth\n", {}},
        SwitchCase{"AddedLineWithoutCopyOff", "@include\tbrackmoor-auth\n", false, true, "@include\tbrackmoor-auth\n",
                   {modifiedWarning}},
        // An administrator's commented include is left alone when switching
        // on, and comes back active with the real one when switching off.
        SwitchCase{"AdminCommentedIncludeOn", "#auth include password-auth\nauth substack password-auth\n", true, true,
                   "#auth include password-auth\n#auth substack password-auth\nauth\tsubstack\tbrackmoor-auth\n", {}},
        SwitchCase{"AdminCommentedIncludeOff",
                   "#auth include password-auth\n#auth substack password-auth\nauth\tsubstack\tbrackmoor-auth\n", false,
                   true, "auth include password-auth\nauth substack password-auth\n", {}},
        // With the added line moved above its copy, every "-auth" line up to
        // and including the copy goes: no system stack is included any more.
        SwitchCase{"AddedLineMovedUpOff",
                   "auth\tsubstack\tbrackmoor-auth\naccount include password-auth\n#auth substack password-auth\n"
                   "session include password-auth\n",
                   false, true, "session include password-auth\n", {}},
        SwitchCase{"TwoIncludesOn", "auth substack password-auth\n@include common-auth\n", true, true,
                   "#auth substack password-auth\nauth\tsubstack\tbrackmoor-auth\n#@include common-auth\n@include\tbrackmoor-auth\n",
                   {}}),
    [](const ::testing::TestParamInfo<SwitchCase>& param) { return param.param.name; });

TEST_F(ServiceFileTest, SwitchingOnGeneratesTheIncludeFileFromTheNamedStack)
{
    WriteService(rhOff);
    ASSERT_TRUE(task->SwitchAuth(true));
    EXPECT_EQ(ReadText(task->pamIncludePath),
              "auth required pam_unix.so\nauth sufficient pam_brackmoor.so refresh_time=301 echo=1 local=1\n");
}

TEST_F(ServiceFileTest, AlreadySwitchedFileDoesNotRegenerate)
{
    WriteService(rhOn);
    ASSERT_TRUE(task->SwitchAuth(true));
    EXPECT_FALSE(Exists(task->pamIncludePath));
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, modifiedWarning)) << log.Dump();
}

TEST_F(ServiceFileTest, TwoIncludeLinesWriteTheIncludeFileTwiceLastOneWins)
{
    WriteService("auth substack password-auth\n@include common-auth\n");
    ASSERT_TRUE(task->SwitchAuth(true));
    EXPECT_EQ(ReadText(task->pamIncludePath), "auth required  pam_unix.so\nauth [success=1 default=ignore] "
                                              "pam_brackmoor.so refresh_time=301 echo=1 local=1\n");
}

TEST_F(ServiceFileTest, LaterAbnormalLineLeavesTheIncludeFileButNotTheServiceFile)
{
    const std::string original = "auth substack common-auth\nauth include postlogin-auth\n";
    WriteService(original);
    EXPECT_FALSE(task->SwitchAuth(true));
    EXPECT_EQ(Service(), original);
    EXPECT_TRUE(Exists(task->pamIncludePath));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Pam sshd config abnormal.")) << log.Dump();
}

TEST_F(ServiceFileTest, UngeneratableIncludeFileFailsTheSwitch)
{
    const std::string path = task->pamDir + "common-auth";
    ASSERT_EQ(std::remove(path.c_str()), 0);
    WriteService("@include common-auth\n");
    EXPECT_FALSE(task->SwitchAuth(true));
    EXPECT_EQ(Service(), "@include common-auth\n");
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"Open origin pam config file(" + path + ") failed, errno(2).",
                                                     "Generate pam bm config file failed."}));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Generate pam bm config file failed."));
}

TEST_F(ServiceFileTest, MissingServiceFileIsReported)
{
    EXPECT_FALSE(task->SwitchAuth(true));
    EXPECT_FALSE(task->SwitchAuth(false));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open pam sshd config(" + task->pamSshdPath + ") failed, errno(2)."))
        << log.Dump();
    EXPECT_EQ(log.Texts().size(), 2u);
}

} // namespace
