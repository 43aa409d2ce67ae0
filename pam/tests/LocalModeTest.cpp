// The module's local mode with secrets enrolled by the real brackmoor-totp command in the
// sandbox's private /etc, and codes made independently by oathtool.

#include "PamHarness.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brackmoor::pam::test {
namespace {

namespace fs = std::filesystem;

constexpr char kDirectory[] = "/etc/brackmoor/totp";
constexpr char kFile[] = "/etc/brackmoor/totp/daemon";
constexpr char kUser[] = "daemon"; // an account every system has
constexpr char kArguments[] = "refresh_time=301 local=1 exclude_user_list=root";
constexpr char kSettings[] = "/etc/brackmoor/pam.conf";

/// Runs a command; 0 when it succeeds, with what it printed in `output`.
int Shell(const std::string& command, std::string* output)
{
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    char buffer[512];
    output->clear();
    while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
        *output += buffer;
    }
    return pipe != nullptr ? pclose(pipe) : -1;
}

/// The code an authenticator app shows at `when`, from an implementation of its own.
std::string CodeAt(const std::string& base32, std::time_t when)
{
    std::string code;
    EXPECT_EQ(Shell("oathtool --totp -b -N @" + std::to_string(when) + " " + base32, &code), 0) << code;
    return code.substr(0, 6);
}

/// One login; answers "@<seconds>" stand for the code at that offset from now.
struct Case {
    const char* name;
    Outcome outcome;
    std::vector<std::string> answers = {"@0"};
    void (*tamper)() = nullptr; ///< done to the enrolment before the login
    const char* user = kUser;
    bool echo = false;
    std::vector<std::string> earlier = {}; ///< logins before, one answer each
};

/// One login after a fresh enrolment of kUser, as its administrator makes it.
class LocalLogin : public testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        fs::remove_all(kDirectory);
        std::remove(kSettings);
        std::string output;
        ASSERT_EQ(Shell(std::string(BRACKMOOR_TOTP_TOOL) + " enrol " + kUser, &output), 0) << output;
        const std::size_t start = output.find("secret=", output.find("otpauth://totp/"));
        ASSERT_NE(start, std::string::npos) << output;
        secret_ = output.substr(start + 7, output.find('&', start) - start - 7);
    }

    std::string secret_;
};

TEST_P(LocalLogin, EndsAndIsLoggedAsExpected)
{
    const Case& c = GetParam();
    // Codes are made for "now" and checked at the module's own time: start
    // early in a 30-second step, so that no step boundary falls between.
    while (std::time(nullptr) % 30 >= 20) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const std::time_t now = std::time(nullptr);
    std::vector<std::string> secrets{secret_};
    const auto answer = [&](const std::string& a) {
        return a[0] == '@' ? secrets.emplace_back(CodeAt(secret_, now + std::stoi(a.substr(1)))) : a;
    };
    if (c.tamper != nullptr) {
        c.tamper();
    }
    for (const std::string& earlier : c.earlier) {
        ScriptedUser before{{answer(earlier)}};
        Authenticate(kArguments, c.user, before);
    }
    std::vector<std::string> answers;
    std::transform(c.answers.begin(), c.answers.end(), std::back_inserter(answers), answer);
    ScriptedUser user{answers};

    ExpectOutcome(c.outcome, Authenticate(kArguments + std::string(c.echo ? " echo=1" : " echo=0"), c.user, user),
                  user, c.user, secrets);
    if (c.outcome.questions > 0) { // the same question every time
        EXPECT_EQ(user.seen[0], (c.echo ? "? " : "* ") + std::string("Authenticator code: "));
    }
}

constexpr char kAccepted[] = "second factor accepted (authenticator code)";
constexpr char kUnavailable[] = "The authenticator check is unavailable; login refused.";
constexpr Outcome kUnsafe{PAM_AUTHINFO_UNAVAIL, 0, nullptr, kUnavailable,
                          "directory or file not root-only (owner root, directory 0700, file 0600)"};

constexpr char kWrong[] = "Wrong authenticator code.";

const Case kCases[] = {
    {"CurrentCode", {PAM_SUCCESS, 1, nullptr, nullptr, kAccepted}},
    // The earlier login used the code of the next step: that code and all before it are spent.
    {"UsedAndOlderCodes", {PAM_MAXTRIES, 3, "This authenticator code has been used already; wait for the next one.",
                           kTooManyTries, "login refused: 3 wrong authenticator codes"},
     {"@30", "@0", "@-30"}, nullptr, kUser, false, {"@30"}},
    {"CodesOutsideTheWindowShownAsTyped", {PAM_SUCCESS, 3, kWrong, nullptr, kAccepted}, {"@-120", "@120", "@0"},
     nullptr, kUser, true},
    // A clock running three steps ahead is learnt on the third login and accepted from then on.
    {"ClockAheadLearnt", {PAM_SUCCESS, 1, nullptr, nullptr, "clock offset now 3 steps"}, {"@90"}, nullptr, kUser,
     false, {"@90", "@90"}},
    {"BlankAnswer", {PAM_AUTH_ERR, 1, nullptr, nullptr, "login refused: empty answer to the authenticator code prompt"},
     {" \t"}},
    {"ConversationFails", {PAM_CONV_ERR, 1, nullptr, nullptr, "conversation failed at the authenticator code prompt"},
     {}},
    // Without a secret: the same questions, messages and limit as wrong codes, so no account is told apart.
    {"UserWithoutSecret", {PAM_MAXTRIES, 3, kWrong, kTooManyTries,
                           "no authenticator secret for this user (attempt 3 of 3)"}, {"123456", "12345678", "1"},
     nullptr, "bin"},
    // An unsafe or damaged secret or setting file refuses the login before anything is asked.
    {"FileReadableByOthers", kUnsafe, {"@0"}, [] { chmod(kFile, 0644); }},
    {"FileReadOnly", kUnsafe, {"@0"}, [] { chmod(kFile, 0400); }},
    {"FileNotOwnedByRoot", kUnsafe, {"@0"}, [] { (void)!chown(kFile, 65534, 65534); }},
    {"DirectoryOpenToOthers", kUnsafe, {"@0"}, [] { chmod(kDirectory, 0755); }},
    {"FileIsASymlink", kUnsafe, {"@0"},
     [] { fs::rename(kFile, "/etc/brackmoor/elsewhere"); fs::create_symlink("/etc/brackmoor/elsewhere", kFile); }},
    {"FileIsDamaged", {PAM_AUTHINFO_UNAVAIL, 0, nullptr, kUnavailable, "not a valid secret file"}, {"@0"},
     [] { (void)!truncate(kFile, 5); }},
    {"SettingsWritableByOthers", {PAM_AUTHINFO_UNAVAIL, 0, nullptr, kUnavailable, "that only root may write"}, {"@0"},
     [] { std::ofstream(kSettings) << "allow_unenrolled = 1\n"; chmod(kSettings, 0666); }},
};

INSTANTIATE_TEST_SUITE_P(Cases, LocalLogin, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& param) { return param.param.name; });

} // namespace
} // namespace brackmoor::pam::test
