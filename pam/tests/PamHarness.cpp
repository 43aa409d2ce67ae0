#include "PamHarness.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brackmoor::pam::test {
namespace {

// In the sandbox's private /tmp.
constexpr char kConfigDirectory[] = "/tmp/brackmoor-pam.d";
constexpr char kService[] = "brackmoor-test";
// The prompt that carries a refusal to the user.
constexpr char kClosingPrompt[] = "Press Enter to close this login attempt: ";
// Set on every transaction, as sshd sets the client's address.
constexpr char kRemoteHost[] = "203.0.113.7";
int g_syslog = -1;

// The module's log is caught at /dev/log, on an overlay over /dev whose upper
// layer is a tmpfs of this mount namespace (an overlay cannot be the upper
// layer of another, and the sandbox's /tmp is one).
bool CaptureSyslog()
{
    if ((mkdir("/tmp/brackmoor-dev", 0700) != 0 && errno != EEXIST) ||
        mount("tmpfs", "/tmp/brackmoor-dev", "tmpfs", 0, "mode=0700") != 0 ||
        mkdir("/tmp/brackmoor-dev/upper", 0755) != 0 || mkdir("/tmp/brackmoor-dev/work", 0755) != 0 ||
        mount("overlay", "/dev", "overlay", 0,
              "lowerdir=/dev,upperdir=/tmp/brackmoor-dev/upper,workdir=/tmp/brackmoor-dev/work") != 0) {
        return false;
    }
    // A full queue would block the module's syslog(). The limit belongs to the
    // network namespace and is read when a socket is made.
    if (!(std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << 4096 << std::flush)) {
        return false;
    }
    unlink("/dev/log");
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    g_syslog = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return bind(g_syslog, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// Catches the log before any test runs: the module's first syslog()
/// connects to /dev/log for good.
class SyslogCapture : public testing::Environment {
    void SetUp() override { ASSERT_TRUE(CaptureSyslog()) << "cannot catch the system log at /dev/log"; }
};
const testing::Environment* const g_capture = testing::AddGlobalTestEnvironment(new SyslogCapture);

} // namespace

int ScriptedUser::Converse(int count, const pam_message** messages, pam_response** responses, void* self)
{
    ScriptedUser& user = *static_cast<ScriptedUser*>(self);
    std::vector<const char*> answers(static_cast<std::size_t>(count), nullptr);
    for (int i = 0; i < count; ++i) {
        const int style = messages[i]->msg_style;
        const char kind = style == PAM_PROMPT_ECHO_ON ? '?'
                          : style == PAM_PROMPT_ECHO_OFF ? '*'
                          : style == PAM_TEXT_INFO    ? 'i'
                                                       : '!';
        user.seen.push_back(std::string(1, kind) + " " + (messages[i]->msg != nullptr ? messages[i]->msg : ""));
        if (kind == '?' || kind == '*') {
            if (user.nextAnswer == user.answers.size()) {
                return PAM_CONV_ERR;
            }
            answers[i] = user.answers[user.nextAnswer++].c_str();
        }
    }
    *responses = static_cast<pam_response*>(calloc(answers.size(), sizeof(pam_response)));
    for (int i = 0; i < count; ++i) {
        (*responses)[i].resp = answers[i] != nullptr ? strdup(answers[i]) : nullptr;
    }
    return PAM_SUCCESS;
}

int Authenticate(const std::string& arguments, const std::string& user, ScriptedUser& script)
{
    mkdir(kConfigDirectory, 0755);
    // libpam falls back to "other" for a missing service and complains in the log when it is missing too.
    std::ofstream(std::string(kConfigDirectory) + "/other") << "auth required pam_deny.so\n";
    std::ofstream(std::string(kConfigDirectory) + "/" + kService)
        << "auth required " << BRACKMOOR_PAM_MODULE_PATH << " " << arguments << "\n";
    TakeSyslog();
    const pam_conv conversation{&ScriptedUser::Converse, &script};
    pam_handle_t* pamh = nullptr;
    int result = pam_start_confdir(kService, user.c_str(), &conversation, kConfigDirectory, &pamh);
    if (result == PAM_SUCCESS) {
        pam_set_item(pamh, PAM_RHOST, kRemoteHost);
        result = pam_authenticate(pamh, 0);
        pam_end(pamh, result);
    }
    return result;
}

void ExpectOutcome(const Outcome& expected, int result, const ScriptedUser& user, const std::string& name,
                   const std::vector<std::string>& secrets)
{
    const std::vector<std::string>& seen = user.seen;
    const std::string closing = std::string("? ") + kClosingPrompt;
    EXPECT_EQ(result, expected.result);
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                            [&](const std::string& m) { return (m[0] == '?' || m[0] == '*') && m != closing; }),
              expected.questions);
    if (expected.warning != nullptr) {
        EXPECT_NE(std::find(seen.begin(), seen.end(), std::string("! ") + expected.warning), seen.end())
            << "not shown: " << expected.warning;
    }
    if (expected.refusal == nullptr) {
        EXPECT_EQ(std::find(seen.begin(), seen.end(), closing), seen.end());
    } else { // sshd shows a message only together with a prompt
        const std::vector<std::string> last(seen.end() - std::min<std::ptrdiff_t>(2, seen.size()), seen.end());
        EXPECT_EQ(last, (std::vector<std::string>{std::string("! ") + expected.refusal, closing}));
    }

    const std::vector<std::string> lines = TakeSyslog();
    const std::string who = "user=" + name + " rhost=" + kRemoteHost + " ";
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find("pam_brackmoor") != std::string::npos && line.find(who) != std::string::npos &&
               line.find(expected.logged) != std::string::npos;
    })) << "no log line of " << who << "says: " << expected.logged;
    for (const std::string& line : lines) {
        for (const std::string& secret : secrets) {
            EXPECT_EQ(line.find(secret), std::string::npos) << "logged: " << line;
        }
    }
}

std::vector<std::string> TakeSyslog()
{
    std::vector<std::string> lines;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = recv(g_syslog, buffer, sizeof buffer, 0)) > 0) {
        lines.emplace_back(buffer, static_cast<std::size_t>(got));
    }
    return lines;
}

} // namespace brackmoor::pam::test
