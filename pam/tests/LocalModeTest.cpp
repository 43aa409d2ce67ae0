// The module's local mode with secrets enrolled by the real brackmoor-totp
// command in the sandbox's private /etc, and codes made independently with
// liboath.

#include "PamHarness.h"
#include "SyslogCapture.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <liboath/oath.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace brackmoor::pam::test {
namespace {

namespace fs = std::filesystem;

constexpr char kDirectory[] = "/etc/brackmoor/totp";
constexpr char kUser[] = "daemon"; // an account every system has
constexpr char kArguments[] = "refresh_time=301 echo=0 local=1 exclude_user_list=root";

/// Runs brackmoor-totp; returns its exit status and output.
int RunTool(const std::string& arguments, std::string* output)
{
    const std::string command = std::string(BRACKMOOR_TOTP_TOOL) + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[512];
    output->clear();
    while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
        *output += buffer;
    }
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The code an authenticator app shows at `when` for a base32 secret.
std::string CodeAt(const std::string& base32, std::time_t when)
{
    char* secret = nullptr;
    std::size_t length = 0;
    char code[7] = {};
    EXPECT_EQ(oath_base32_decode(base32.data(), base32.size(), &secret, &length), OATH_OK);
    EXPECT_EQ(oath_totp_generate(secret, length, when, 30, 0, 6, code), OATH_OK);
    free(secret);
    return code;
}

class LocalMode : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(kDirectory);
        std::string output;
        ASSERT_EQ(RunTool(std::string("enrol ") + kUser, &output), 0) << output;
        const std::size_t uri = output.find("otpauth://totp/Brackmoor:daemon%40");
        const std::size_t start = output.find("secret=", uri);
        ASSERT_NE(uri, std::string::npos) << output;
        secret_ = output.substr(start + 7, output.find('&', start) - start - 7);
        enrolmentUri_ = output.substr(uri, output.find('\n', uri) - uri);
        SyslogCapture::Instance().Take();
    }

    int Login(const std::vector<std::string>& answers, ScriptedUser* user = nullptr,
              const std::string& arguments = kArguments)
    {
        ScriptedUser fallback(answers);
        ScriptedUser& who = user != nullptr ? *user : fallback;
        return Authenticate(arguments, kUser, who);
    }

    std::string File() const { return std::string(kDirectory) + "/" + kUser; }

    std::string secret_;
    std::string enrolmentUri_;
};

TEST_F(LocalMode, EnrolmentWritesARootOnlyFileAndTheCurrentCodeLogsInOnce)
{
    struct stat info {};
    ASSERT_EQ(stat(File().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    ASSERT_EQ(stat(kDirectory, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    EXPECT_EQ(secret_.size(), 32u); // 20 random bytes

    const std::string code = CodeAt(secret_, std::time(nullptr));
    ScriptedUser first({code});
    EXPECT_EQ(Login({}, &first), PAM_SUCCESS);
    ASSERT_EQ(first.Prompts().size(), 1u);
    EXPECT_EQ(first.Prompts()[0].text, "Authenticator code: ");
    EXPECT_EQ(first.Prompts()[0].style, PAM_PROMPT_ECHO_OFF);

    ScriptedUser replay({code, code, code});
    EXPECT_EQ(Login({}, &replay), PAM_MAXTRIES);
    EXPECT_TRUE(replay.Saw("has been used already"));

    for (const std::string& line : SyslogCapture::Instance().Take()) {
        EXPECT_EQ(line.find(code), std::string::npos) << line;
        EXPECT_EQ(line.find(secret_), std::string::npos) << line;
    }
}

TEST_F(LocalMode, ACodeOlderThanTheLastAcceptedOneIsRefused)
{
    const std::time_t now = std::time(nullptr);
    EXPECT_EQ(Login({CodeAt(secret_, now + 30)}), PAM_SUCCESS);
    ScriptedUser older({CodeAt(secret_, now), CodeAt(secret_, now - 30), CodeAt(secret_, now)});
    EXPECT_EQ(Login({}, &older), PAM_MAXTRIES);
    EXPECT_TRUE(older.Saw("has been used already"));
}

TEST_F(LocalMode, CodesOutsideTheWindowAreWrongUntilTheRightOne)
{
    const std::time_t now = std::time(nullptr);
    ScriptedUser user({CodeAt(secret_, now - 120), CodeAt(secret_, now + 120), CodeAt(secret_, now)});
    EXPECT_EQ(Login({}, &user, "local=1 echo=1"), PAM_SUCCESS);
    EXPECT_TRUE(user.Saw("Wrong authenticator code."));
    EXPECT_EQ(user.Prompts().at(0).style, PAM_PROMPT_ECHO_ON);

    ScriptedUser wrong({"12345", "abcdef", CodeAt(secret_, now - 120)});
    EXPECT_EQ(Login({}, &wrong), PAM_MAXTRIES);
}

TEST_F(LocalMode, EmptyAnswersAndFailedConversationsNeverPass)
{
    EXPECT_EQ(Login({""}), PAM_AUTH_ERR);
    EXPECT_EQ(Login({"   "}), PAM_AUTH_ERR);
    EXPECT_EQ(Login({}), PAM_CONV_ERR);
    ScriptedUser dropped({CodeAt(secret_, std::time(nullptr))}, 0);
    EXPECT_EQ(Login({}, &dropped), PAM_CONV_ERR);
}

TEST_F(LocalMode, UserWithoutSecretIsRefusedUnlessExcluded)
{
    ScriptedUser other({"123456"});
    EXPECT_EQ(Authenticate(kArguments, "bin", other), PAM_AUTH_ERR);
    EXPECT_TRUE(other.Questions().empty());
    EXPECT_TRUE(other.Saw("No authenticator is set up"));

    ScriptedUser root({});
    EXPECT_EQ(Authenticate(kArguments, "root", root), PAM_SUCCESS);
}

struct Tampering {
    const char* name;
    void (*apply)(const std::string& file);
};

const Tampering kTamperings[] = {
    {"FileReadableByOthers", [](const std::string& file) { chmod(file.c_str(), 0644); }},
    {"FileReadOnly", [](const std::string& file) { chmod(file.c_str(), 0400); }},
    {"FileNotOwnedByRoot", [](const std::string& file) { (void)!chown(file.c_str(), 65534, 65534); }},
    {"DirectoryOpenToOthers", [](const std::string&) { chmod(kDirectory, 0755); }},
    {"FileIsASymlink",
     [](const std::string& file) {
         fs::rename(file, "/etc/brackmoor/elsewhere");
         fs::create_symlink("/etc/brackmoor/elsewhere", file);
     }},
    {"FileIsDamaged", [](const std::string& file) { (void)!truncate(file.c_str(), 5); }},
};

class LocalModeStore : public LocalMode, public testing::WithParamInterface<Tampering> {};

TEST_P(LocalModeStore, UnsafeOrDamagedSecretIsRefusedBeforeAnyPrompt)
{
    GetParam().apply(File());
    ScriptedUser user({CodeAt(secret_, std::time(nullptr))});
    EXPECT_EQ(Login({}, &user), PAM_AUTHINFO_UNAVAIL);
    EXPECT_TRUE(user.Questions().empty());
    EXPECT_TRUE(user.Saw("authenticator check is unavailable"));
}

INSTANTIATE_TEST_SUITE_P(Cases, LocalModeStore, testing::ValuesIn(kTamperings),
                         [](const testing::TestParamInfo<Tampering>& param) { return param.param.name; });

TEST_F(LocalMode, ToolShowsTheSameUriAndRemovesTheSecret)
{
    std::string output;
    ASSERT_EQ(RunTool(std::string("show ") + kUser, &output), 0);
    EXPECT_EQ(output, enrolmentUri_ + "\n");

    ASSERT_EQ(RunTool(std::string("remove ") + kUser, &output), 0) << output;
    EXPECT_EQ(Login({CodeAt(secret_, std::time(nullptr))}), PAM_AUTH_ERR);
    EXPECT_EQ(RunTool(std::string("show ") + kUser, &output), 1);

    EXPECT_EQ(RunTool("enrol no-such-user-here --dir /tmp/unused-totp", &output), 1);
    EXPECT_FALSE(fs::exists("/tmp/unused-totp"));
    EXPECT_EQ(RunTool("enrol", &output), 2);
}

} // namespace
} // namespace brackmoor::pam::test
