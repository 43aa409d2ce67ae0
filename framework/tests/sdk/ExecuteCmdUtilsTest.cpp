#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SDK/ExecuteCmdUtils.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"

namespace {

using Clock = std::chrono::steady_clock;
using SDK::ExecuteCmdUtils;

/// True while `pid` runs (a zombie counts as gone).
bool Running(pid_t pid)
{
    const std::string stat = TestSupport::ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    const std::string::size_type close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

/// Runs `command`, whose first output line is a pid, with `timeout` seconds;
/// returns that pid. The call must end long before the command's sleeps do.
pid_t RunReturningPid(const std::string& command, int timeout, int status)
{
    std::string output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(status, ExecuteCmdUtils::ExecuteCmd(command, output, 4096, timeout)) << command;
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20)) << command;
    return static_cast<pid_t>(std::stol(output.substr(0, output.find('\n'))));
}

// Running a command and reading its output are proven by the sshd restart of
// the two-factor module and the agent's status command; these are the edges.
TEST(ExecuteCmdUtilsTest, ReturnsTheExitStatusAndBoundedOutputAndNothingElseLeaks)
{
    // Opened without O_CLOEXEC, as careless code elsewhere in the agent might:
    // only the standard descriptors may reach the command.
    const int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 0);
    const struct {
        std::string command;
        unsigned long bound;
        int status;
        const char* output;
    } cases[] = {
        {"echo out; echo err >&2; exit 3", 4096, 3, "out\nerr\n"},
        {"cat; echo stdin-closed", 4096, 0, "stdin-closed\n"},
        {"[ -e /proc/$$/fd/" + std::to_string(leaky) + " ] && echo leaked || echo clean", 4096, 0, "clean\n"},
        // 1 MiB would fill the pipe many times over if the surplus were not read.
        {"head -c 1048576 /dev/zero | tr '\\0' x; echo done >&2", 10, 0, "xxxxxxxxxx"},
        {"kill -9 $$", 4096, -1, ""},
        {"/nonexistent/program", 4096, 127, nullptr},
    };
    for (const auto& c : cases) {
        std::string output = "stale";
        EXPECT_EQ(c.status, ExecuteCmdUtils::ExecuteCmd(c.command, output, c.bound)) << c.command;
        if (c.output != nullptr) {
            EXPECT_EQ(c.output, output) << c.command;
        }
    }
    ::close(leaky);
}

TEST(ExecuteCmdUtilsTest, ABackgroundChildDoesNotHoldTheCallAndATimeOutKillsTheWholeGroup)
{
    const pid_t daemon = RunReturningPid("sleep 60 & echo $!", 30, 0);
    EXPECT_TRUE(Running(daemon)) << "a started daemon survives the call";
    ::kill(daemon, SIGKILL);
    const pid_t background = RunReturningPid("sleep 60 & echo $!; sleep 60", 1, -1);
    EXPECT_TRUE(TestSupport::WaitFor([background] { return !Running(background); }, std::chrono::seconds(10)));
    if (Running(background)) {
        ::kill(background, SIGKILL);
    }
}

} // namespace
