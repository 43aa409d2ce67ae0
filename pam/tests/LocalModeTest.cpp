// The module's local mode with secrets enrolled by the real brackmoor-totp
// command in the sandbox's private /etc, and codes made independently with
// liboath.

#include "PamHarness.h"

#include <algorithm>
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
constexpr char kFile[] = "/etc/brackmoor/totp/daemon";
constexpr char kUser[] = "daemon"; // an account every system has
constexpr char kArguments[] = "refresh_time=301 local=1 exclude_user_list=root";

/// Runs brackmoor-totp; returns its exit status and output.
int RunTool(const std::string& arguments, std::string* output)
{
    FILE* pipe = popen((std::string(BRACKMOOR_TOTP_TOOL) + " " + arguments + " 2>&1").c_str(), "r");
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

/// A fresh enrolment of kUser, as its administrator makes it.
class Enrolled : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(kDirectory);
        std::string output;
        ASSERT_EQ(RunTool(std::string("enrol ") + kUser, &output), 0) << output;
        const std::size_t uri = output.find("otpauth://totp/Brackmoor:daemon%40");
        ASSERT_NE(uri, std::string::npos) << output;
        const std::size_t start = output.find("secret=", uri) + 7;
        secret_ = output.substr(start, output.find('&', start) - start);
        uri_ = output.substr(uri, output.find('\n', uri) - uri);
    }

    std::string secret_;
    std::string uri_;
};

TEST_F(Enrolled, ToolKeepsTheSecretRootOnlyShowsItAgainAndRemovesIt)
{
    struct stat file {}, directory {};
    ASSERT_EQ(stat(kFile, &file), 0);
    ASSERT_EQ(stat(kDirectory, &directory), 0);
    EXPECT_EQ(file.st_mode & 07777, 0600u);
    EXPECT_EQ(directory.st_mode & 07777, 0700u);
    EXPECT_EQ(secret_.size(), 32u); // 20 random bytes

    std::string output;
    EXPECT_EQ(RunTool(std::string("show ") + kUser, &output), 0);
    EXPECT_EQ(output, uri_ + "\n");
    EXPECT_EQ(RunTool(std::string("remove ") + kUser, &output), 0) << output;
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_EQ(RunTool(std::string("show ") + kUser, &output), 1);
    EXPECT_EQ(RunTool("enrol no-such-user-here --dir /tmp/unused-totp", &output), 1);
    EXPECT_FALSE(fs::exists("/tmp/unused-totp"));
}

/// One login; answers "@<seconds>" stand for the code at that offset from now.
struct Case {
    const char* name;
    Outcome outcome;
    std::vector<std::string> answers = {"@0"};
    void (*tamper)() = nullptr;         ///< done to the enrolment before the login
    const char* user = kUser;
    bool echo = false;
    const char* earlierLogin = nullptr; ///< an answer that logs in first
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class LocalLogin : public Enrolled, public testing::WithParamInterface<Case> {};

TEST_P(LocalLogin, EndsAndIsLoggedAsExpected)
{
    const Case& c = GetParam();
    const std::time_t now = std::time(nullptr);
    std::vector<std::string> secrets{secret_};
    const auto answer = [&](const std::string& a) {
        return a[0] == '@' ? secrets.emplace_back(CodeAt(secret_, now + std::stoi(a.substr(1)))) : a;
    };
    if (c.earlierLogin != nullptr) {
        ScriptedUser earlier({answer(c.earlierLogin)});
        ASSERT_EQ(Authenticate(kArguments, kUser, earlier), PAM_SUCCESS);
    }
    std::vector<std::string> answers;
    std::transform(c.answers.begin(), c.answers.end(), std::back_inserter(answers), answer);
    if (c.tamper != nullptr) {
        c.tamper();
    }
    ScriptedUser user(answers);

    ExpectOutcome(c.outcome, Authenticate(kArguments + std::string(c.echo ? " echo=1" : " echo=0"), c.user, user),
                  user, c.user, secrets);
    if (c.outcome.questions > 0) { // the same question every time
        EXPECT_EQ(user.Seen()[0], (c.echo ? "? " : "* ") + std::string("Authenticator code: "));
    }
}

constexpr char kAccepted[] = "second factor accepted (authenticator code)";
constexpr char kUnavailable[] = "The authenticator check is unavailable; login refused.";
constexpr Outcome kUnsafe{PAM_AUTHINFO_UNAVAIL, 0, nullptr, kUnavailable,
                          "directory or file not root-only (owner root, directory 0700, file 0600)"};

const Case kCases[] = {
    {"CurrentCode", {PAM_SUCCESS, 1, nullptr, nullptr, kAccepted}},
    // The earlier login used the code of the next step: that code and all before it are spent.
    {"UsedAndOlderCodes", {PAM_MAXTRIES, 3, "This authenticator code has been used already; wait for the next one.",
                           kTooManyTries, "login refused: 3 wrong authenticator codes"},
     {"@30", "@0", "@-30"}, nullptr, kUser, false, "@30"},
    {"CodesOutsideTheWindowShownAsTyped", {PAM_SUCCESS, 3, "Wrong authenticator code.", nullptr, kAccepted},
     {"@-120", "@120", "@0"}, nullptr, kUser, true},
    {"BlankAnswer", {PAM_AUTH_ERR, 1, nullptr, nullptr, "login refused: empty answer to the authenticator code prompt"},
     {" \t"}},
    {"ConversationFails", {PAM_CONV_ERR, 1, nullptr, nullptr, "conversation failed at the authenticator code prompt"},
     {}},
    {"UserWithoutSecret", {PAM_AUTH_ERR, 0, nullptr, "No authenticator is set up for this account; login refused.",
                           "login refused: no authenticator secret for this user in /etc/brackmoor/totp"},
     {"123456"}, nullptr, "bin"},
    // An unsafe or damaged secret file refuses the login before anything is asked.
    {"FileReadableByOthers", kUnsafe, {"@0"}, [] { chmod(kFile, 0644); }},
    {"FileReadOnly", kUnsafe, {"@0"}, [] { chmod(kFile, 0400); }},
    {"FileNotOwnedByRoot", kUnsafe, {"@0"}, [] { (void)!chown(kFile, 65534, 65534); }},
    {"DirectoryOpenToOthers", kUnsafe, {"@0"}, [] { chmod(kDirectory, 0755); }},
    {"FileIsASymlink", kUnsafe, {"@0"},
     [] { fs::rename(kFile, "/etc/brackmoor/elsewhere"); fs::create_symlink("/etc/brackmoor/elsewhere", kFile); }},
    {"FileIsDamaged", {PAM_AUTHINFO_UNAVAIL, 0, nullptr, kUnavailable, "not a valid secret file"}, {"@0"},
     [] { (void)!truncate(kFile, 5); }},
};

INSTANTIATE_TEST_SUITE_P(Cases, LocalLogin, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& param) { return param.param.name; });

} // namespace
} // namespace brackmoor::pam::test
