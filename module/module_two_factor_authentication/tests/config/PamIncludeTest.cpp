// The PAM include file: module arguments, the pam_unix rewrite and the
// generated file.
#include <gtest/gtest.h>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
using Poco::Message;

namespace {

struct ParametersCase {
    int refreshTime;
    int echo;
    int local;
    std::vector<std::string> excluded;
    std::string expected;
};

class ParametersTest : public ::testing::TestWithParam<ParametersCase> {};

TEST_P(ParametersTest, JoinsPolicyValues)
{
    Engine::TwoFactorAuthenticationTask task;
    const ParametersCase& c = GetParam();
    SetPolicy(task, c.refreshTime, c.echo, c.local, c.excluded);
    EXPECT_EQ(task.GenerateParameters(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Policies, ParametersTest,
    ::testing::Values(ParametersCase{301, 1, 0, {"u1", "u2"}, "refresh_time=301 echo=1 local=0 exclude_user_list=u1;u2"},
                      ParametersCase{300, 0, 1, {}, "refresh_time=300 echo=0 local=1"},
                      ParametersCase{-5, -1, 2147483647, {"root"}, "refresh_time=-5 echo=-1 local=2147483647 exclude_user_list=root"},
                      ParametersCase{-2147483647 - 1, 0, 0, {}, "refresh_time=-2147483648 echo=0 local=0"},
                      // Entries go in as stored: empty ones leave empty items.
                      ParametersCase{1, 1, 1, {"a", "", "b c"}, "refresh_time=1 echo=1 local=1 exclude_user_list=a;;b c"}));

struct RequiredCase {
    std::string line;
    std::string expected;
    bool dropped;
};

class RequiredTest : public ::testing::TestWithParam<RequiredCase> {};

TEST_P(RequiredTest, ForcesRequiredControl)
{
    Engine::TwoFactorAuthenticationTask task;
    const RequiredCase& c = GetParam();
    std::string out;
    EXPECT_EQ(task.ReplaceSufficientToRequired(c.line, out), c.dropped) << c.line;
    EXPECT_EQ(out, c.expected) << c.line;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, RequiredTest,
    ::testing::Values(
        RequiredCase{"auth sufficient pam_unix.so nullok try_first_pass", "auth required pam_unix.so nullok try_first_pass", false},
        RequiredCase{"auth\t\tsufficient   pam_unix.so\tnullok", "auth required pam_unix.so nullok", false},
        RequiredCase{"auth required pam_unix.so", "auth required pam_unix.so", false},
        RequiredCase{"auth requisite /lib/security/pam_unix.so", "auth required /lib/security/pam_unix.so", false},
        // The dropped second word of the bracket leaves two blanks behind.
        RequiredCase{"auth [success=1 default=ignore] pam_unix.so nullok", "auth required  pam_unix.so nullok", true},
        RequiredCase{"auth\t[success=2\tdefault=ignore]\tpam_unix.so", "auth required  pam_unix.so", true},
        // Longer brackets keep their later words; such lines are not repaired.
        RequiredCase{"auth [success=1 new_authtok_reqd=done default=ignore] pam_unix.so",
                     "auth required  default=ignore] pam_unix.so", true},
        RequiredCase{"auth", "auth", false}));

class IncludeFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(root.Ok());
        task = TaskIn(root.Path());
        SetPolicy(*task, 300, 1, 0, {"root", "deploy"});
    }

    void WriteOrigin(const std::string& name, const std::string& text) { WriteText(task->pamDir + name, text); }
    std::string Include() const { return ReadText(task->pamIncludePath); }

    TestSupport::TempDir root;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
    ModuleLogCapture log;
};

const std::string args = "refresh_time=300 echo=1 local=0 exclude_user_list=root;deploy";
const std::string sufficientLine = "auth sufficient pam_brackmoor.so " + args + "\n";
const std::string skipLine = "auth [success=1 default=ignore] pam_brackmoor.so " + args + "\n";

struct IncludeCase {
    std::string name;
    std::string origin;
    std::string expected;
};

class IncludeTextTest : public IncludeFileTest, public ::testing::WithParamInterface<IncludeCase> {};

TEST_P(IncludeTextTest, InsertsModuleAfterFirstPamUnixAuthLine)
{
    WriteOrigin("common-auth", GetParam().origin);
    ASSERT_TRUE(task->GeneratePamBm("common-auth"));
    EXPECT_EQ(Include(), GetParam().expected);
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(
    Origins, IncludeTextTest,
    ::testing::Values(
        IncludeCase{"TabbedSufficient", "auth\tsufficient\tpam_unix.so\tnullok\n",
                    "auth required pam_unix.so nullok\n" + sufficientLine},
        IncludeCase{"BracketedControl", "auth [success=1 default=ignore] pam_unix.so nullok_secure\nauth requisite pam_deny.so\n",
                    "auth required  pam_unix.so nullok_secure\n" + skipLine + "auth requisite pam_deny.so\n"},
        IncludeCase{"OnlyFirstOfTwo", "auth sufficient pam_unix.so\nauth  sufficient  pam_unix.so  try_first_pass  \n",
                    "auth required pam_unix.so\n" + sufficientLine + "auth  sufficient  pam_unix.so  try_first_pass\n"},
        IncludeCase{"Normalised", "#%PAM-1.0\n\n   \n  auth required pam_env.so  \r\nauth required pam_unix.so",
                    "#%PAM-1.0\n\n\nauth required pam_env.so\nauth required pam_unix.so\n" + sufficientLine},
        // "-auth", comments and a name inside an argument: only lines whose
        // first four characters are "auth" count, wherever pam_unix.so stands.
        IncludeCase{"OnlyAuthLinesCount",
                    "-auth sufficient pam_unix.so\n#auth sufficient pam_unix.so\naccount required pam_unix.so\n"
                    "authx optional pam_exec.so /bin/pam_unix.so.sh\n",
                    "-auth sufficient pam_unix.so\n#auth sufficient pam_unix.so\naccount required pam_unix.so\n"
                    "authx required  /bin/pam_unix.so.sh\n" + skipLine}),
    [](const ::testing::TestParamInfo<IncludeCase>& param) { return param.param.name; });

TEST_F(IncludeFileTest, EmptyExcludeListEndsWithLocalValue)
{
    SetPolicy(*task, 301, 1, 1, {});
    WriteOrigin("password-auth", "auth sufficient pam_unix.so\n");
    ASSERT_TRUE(task->GeneratePamBm("password-auth"));
    EXPECT_EQ(Include(), "auth required pam_unix.so\nauth sufficient pam_brackmoor.so refresh_time=301 echo=1 local=1\n");
}

TEST_F(IncludeFileTest, OriginWithoutPamUnixWritesNothing)
{
    WriteText(task->pamIncludePath, "left by an earlier run\n");
    WriteOrigin("common-auth", "auth required pam_unix2.so\nauth required pam_deny.so\n");
    EXPECT_FALSE(task->GeneratePamBm("common-auth"));
    EXPECT_EQ(Include(), "left by an earlier run\n");
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

TEST_F(IncludeFileTest, MissingOriginNamesTheFullPath)
{
    EXPECT_FALSE(task->GeneratePamBm("common-auth"));
    EXPECT_FALSE(Exists(task->pamIncludePath));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR,
                        "Open origin pam config file(" + task->pamDir + "common-auth) failed, errno(2)."))
        << log.Dump();
}

TEST_F(IncludeFileTest, UnwritableIncludeFileIsReported)
{
    WriteOrigin("common-auth", "auth required pam_unix.so\n");
    task->pamIncludePath = root.Path() + "/missing-dir/brackmoor-auth";
    EXPECT_FALSE(task->GeneratePamBm("common-auth"));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open pam bm config file(" + task->pamIncludePath + ") failed, errno(2)."))
        << log.Dump();
}

} // namespace
