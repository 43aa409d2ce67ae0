#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include <Poco/File.h>
#include <gtest/gtest.h>

#include "CommandRunner.h"
#include "OutboxChannel.h"
#include "SmsHookChannel.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"

namespace brackmoor::verifyd {
namespace {

using std::chrono::seconds;
using TestSupport::ReadWholeFile;

const Message kSms{Message::Kind::Phone, "+4915112345678",
                   "Brackmoor verification code 042137 for login reference 4711"};

TEST(OutboxChannel, WritesOneCompleteFilePerMessageInTimeOrder)
{
    TestSupport::TempDir dir;
    std::string error;
    auto outbox = OutboxChannel::Create(dir.File("spool/outbox"), error);
    ASSERT_TRUE(outbox) << error;
    struct stat folder {};
    ASSERT_EQ(::stat(dir.File("spool/outbox").c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 0777, 0700u);

    const Message mail{Message::Kind::Mail, "alice@example.org", "second"};
    ASSERT_TRUE(outbox->Deliver(kSms, error)) << error;
    ASSERT_TRUE(outbox->Deliver(mail, error)) << error;

    std::vector<std::string> names;
    Poco::File(dir.File("spool/outbox")).list(names);
    ASSERT_EQ(names.size(), 2u) << "no temporary file may be left behind";
    std::sort(names.begin(), names.end());
    const std::string first = dir.File("spool/outbox/" + names[0]);
    EXPECT_EQ(ReadWholeFile(first), "To: +4915112345678\nChannel: sms\n\n" + kSms.text + "\n");
    EXPECT_EQ(ReadWholeFile(dir.File("spool/outbox/" + names[1])),
              "To: alice@example.org\nChannel: mail\n\nsecond\n");
    struct stat file {};
    ASSERT_EQ(::stat(first.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u) << "outbox files hold codes";
}

/// Whether `pid` has ended: gone, or a zombie nobody has reaped yet.
bool Ended(pid_t pid)
{
    const std::string stat = ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    const std::string::size_type end = stat.rfind(") ");
    return end == std::string::npos || stat[end + 2] == 'Z' || stat[end + 2] == 'X';
}

class SmsHook : public ::testing::Test {
protected:
    /// A hook script whose body is `body`, after "#!/bin/sh".
    std::string Script(const std::string& body)
    {
        return dir.Write("hook.sh", "#!/bin/sh\n" + body + "\n", 0755);
    }

    TestSupport::TempDir dir;
};

TEST_F(SmsHook, GetsNumberAndTextAsTwoArgumentsWithoutAShell)
{
    const std::string out = dir.File("args");
    const std::string pwned = dir.File("pwned");
    SmsHookChannel hook(Script("printf '%s|' \"$#\" \"$1\" \"$2\" > " + out), seconds(10));
    const std::string hostile = "code 042137; $(touch " + pwned + ") `touch " + pwned + "` 'q' \"d\"";
    std::string error;
    ASSERT_TRUE(hook.Deliver({Message::Kind::Phone, "+4915112345678", hostile}, error)) << error;
    EXPECT_EQ(ReadWholeFile(out), "2|+4915112345678|" + hostile + "|");
    EXPECT_FALSE(Poco::File(pwned).exists());
}

TEST_F(SmsHook, NonZeroExitIsAFailureAndItsOutputIsLoggedWithoutDigits)
{
    SmsHookChannel hook(Script("echo \"gateway refused $2\" >&2; exit 3"), seconds(10));
    std::string error;
    EXPECT_FALSE(hook.Deliver(kSms, error));
    EXPECT_NE(error.find("exited with 3"), std::string::npos) << error;
    EXPECT_NE(error.find("gateway refused"), std::string::npos) << error;
    EXPECT_EQ(error.find("042137"), std::string::npos) << error;
}

TEST_F(SmsHook, AHangingHookIsKilledWithItsChildrenAtTheTimeOut)
{
    const std::string pidFile = dir.File("background");
    SmsHookChannel hook(Script("sleep 30 & echo $! > " + pidFile + "; sleep 30"), seconds(1));
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_FALSE(hook.Deliver(kSms, error));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
    EXPECT_NE(error.find("timed out"), std::string::npos) << error;
    // The hook led its own process group, so its background child is gone too.
    const pid_t background = std::stoi(ReadWholeFile(pidFile));
    EXPECT_TRUE(TestSupport::WaitFor([&] { return Ended(background); }, seconds(5)));
}

TEST_F(SmsHook, MissingOrNonExecutableHookFails)
{
    const std::string plain = dir.Write("plain.sh", "#!/bin/sh\nexit 0\n", 0644);
    for (const std::string& command : {dir.File("absent"), plain}) {
        SmsHookChannel hook(command, seconds(5));
        std::string error;
        EXPECT_FALSE(hook.Deliver(kSms, error)) << command;
        EXPECT_NE(error.find("could not be started"), std::string::npos) << error;
    }
}

TEST(CommandRunner, PassesOnNoDescriptorOfTheService)
{
    TestSupport::TempDir dir;
    const int leaked = ::dup2(STDIN_FILENO, 77); // deliberately without O_CLOEXEC
    ASSERT_EQ(leaked, 77);
    const std::string script = dir.Write("fds.sh", "#!/bin/sh\necho $(ls /proc/$$/fd)\n", 0755);
    const CommandResult result = RunCommand({script}, std::chrono::seconds(10));
    ::close(leaked);
    ASSERT_TRUE(result.Succeeded()) << result.output;
    EXPECT_EQ(result.output.find("77"), std::string::npos) << result.output;
}

} // namespace
} // namespace brackmoor::verifyd
