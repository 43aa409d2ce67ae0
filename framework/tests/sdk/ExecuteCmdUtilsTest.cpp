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

pid_t FirstLineAsPid(const std::string& output)
{
    return static_cast<pid_t>(std::stol(output.substr(0, output.find('\n'))));
}

TEST(ExecuteCmdUtilsTest, ReturnsTheExitStatusAndBothOutputs)
{
    // Opened without O_CLOEXEC, as careless code elsewhere in the agent might:
    // only the standard descriptors may reach the command.
    const int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 0);
    const struct {
        std::string command;
        int status;
        const char* output;
    } cases[] = {
        {"echo out; echo err >&2", 0, "out\nerr\n"},
        {"printf partial; exit 3", 3, "partial"},
        {"cat; echo stdin-closed", 0, "stdin-closed\n"},
        {"[ -e /proc/$$/fd/" + std::to_string(leaky) + " ] && echo leaked || echo clean", 0, "clean\n"},
        {"kill -9 $$", -1, ""},
        {"/nonexistent/program", 127, nullptr},
    };
    for (const auto& c : cases) {
        std::string output = "stale";
        EXPECT_EQ(c.status, ExecuteCmdUtils::ExecuteCmd(c.command, output, 4096)) << c.command;
        if (c.output != nullptr) {
            EXPECT_EQ(c.output, output) << c.command;
        }
    }
    ::close(leaky);
}

TEST(ExecuteCmdUtilsTest, KeepsOutputWithinTheBoundWithoutBlockingTheCommand)
{
    std::string output;
    // 1 MiB would fill the pipe many times over if the surplus were not read.
    EXPECT_EQ(0, ExecuteCmdUtils::ExecuteCmd("head -c 1048576 /dev/zero | tr '\\0' x; echo done >&2", output, 10));
    EXPECT_EQ("xxxxxxxxxx", output);
}

TEST(ExecuteCmdUtilsTest, ABackgroundChildHoldingTheOutputDoesNotHoldTheCall)
{
    std::string output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, ExecuteCmdUtils::ExecuteCmd("sleep 60 & echo $!", output, 4096, 30));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    const pid_t daemon = FirstLineAsPid(output);
    EXPECT_TRUE(Running(daemon)) << "a started daemon survives the call";
    ::kill(daemon, SIGKILL);
}

TEST(ExecuteCmdUtilsTest, TimeOutKillsTheWholeProcessGroup)
{
    std::string output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(-1, ExecuteCmdUtils::ExecuteCmd("sleep 60 & echo $!; sleep 60", output, 4096, 1));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    const pid_t background = FirstLineAsPid(output);
    EXPECT_TRUE(TestSupport::WaitFor([background] { return !Running(background); }, std::chrono::seconds(10)));
    if (Running(background)) {
        ::kill(background, SIGKILL);
    }
}

} // namespace
