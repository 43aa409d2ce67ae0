#include <unistd.h>

#include <filesystem>
#include <future>

#include <Poco/File.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketStream.h>
#include <gtest/gtest.h>

#include "Courier.h"
#include "OutboxChannel.h"
#include "SmsHookChannel.h"
#include "SmtpChannel.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"

namespace brackmoor::verifyd {
namespace {

using std::chrono::seconds;
using TestSupport::ReadWholeFile;

const std::string kText = "Brackmoor verification code 042137 for login reference 4711";
const Message kSms{Message::Kind::Phone, "+4915112345678", kText};

TEST(SmsHook, GetsNumberAndTextAsTwoArgumentsWithoutAShellOrTheServicesDescriptors)
{
    TestSupport::TempDir dir;
    const std::string pwned = dir.File("pwned");
    ASSERT_EQ(::dup2(STDIN_FILENO, 77), 77); // deliberately without O_CLOEXEC
    const std::string script = "#!/bin/sh\nprintf '%s|' \"$#\" \"$1\" \"$2\" > " + dir.File("args") +
                               "\nls /proc/$$/fd > " + dir.File("fds") + "\n";
    SmsHookChannel hook(dir.Write("hook.sh", script, 0755), seconds(10));
    const std::string hostile = "code 042137; $(touch " + pwned + ") `touch " + pwned + "` 'q' \"d\"";
    std::string error;
    EXPECT_TRUE(hook.Deliver({Message::Kind::Phone, "+4915112345678", hostile}, error)) << error;
    ::close(77);
    EXPECT_EQ(ReadWholeFile(dir.File("args")), "2|+4915112345678|" + hostile + "|");
    EXPECT_FALSE(Poco::File(pwned).exists());
    const std::string fds = ReadWholeFile(dir.File("fds"));
    EXPECT_TRUE(fds.find("2\n") != std::string::npos && fds.find("77") == std::string::npos) << fds;
}

TEST(SmsHook, FailuresAreReportedWithTheHooksOutputButNoDigits)
{
    TestSupport::TempDir dir;
    const std::string background = dir.File("background");
    const struct {
        std::string command;
        int timeout;
        std::string expected;
    } cases[] = {
        {dir.Write("fail.sh", "#!/bin/sh\necho \"gateway refused $2\" >&2; exit 3\n", 0755), 10,
         "fail.sh exited with 3: gateway refused Brackmoor verification code ######"},
        {dir.File("absent"), 10, "absent could not be started"},
        {dir.Write("hang.sh", "#!/bin/sh\nsleep 30 & echo $! > " + background + "; sleep 30\n", 0755),
         1, "hang.sh timed out and was killed"},
    };
    for (const auto& c : cases) {
        const auto start = std::chrono::steady_clock::now();
        std::string error;
        EXPECT_FALSE(SmsHookChannel(c.command, seconds(c.timeout)).Deliver(kSms, error));
        EXPECT_NE(error.find(c.expected), std::string::npos) << error;
        EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
    }
    // The hook led its own process group, so its background child is gone too
    // (or a zombie nobody has reaped yet).
    const std::string stat = "/proc/" + std::to_string(std::stoi(ReadWholeFile(background))) + "/stat";
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        const std::string text = ReadWholeFile(stat);
        const std::string::size_type end = text.rfind(") ");
        return end == std::string::npos || text[end + 2] == 'Z' || text[end + 2] == 'X';
    }, seconds(5)));
}

/// Takes one SMTP session on `socket` and returns what the client sent; every
/// command is accepted.
std::future<std::string> RelayOnce(Poco::Net::ServerSocket& socket)
{
    return std::async(std::launch::async, [&socket] {
        if (!socket.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ)) {
            return std::string("no client came");
        }
        Poco::Net::StreamSocket peer = socket.acceptConnection();
        peer.setReceiveTimeout(Poco::Timespan(10, 0));
        Poco::Net::SocketStream io(peer);
        io << "220 relay ESMTP\r\n" << std::flush;
        std::string transcript;
        bool data = false;
        for (std::string line; std::getline(io, line);) {
            transcript += line + "\n";
            if (data && line != ".\r") {
                continue;
            }
            data = !data && line.rfind("DATA", 0) == 0;
            io << (data ? "354 go on" : "250 ok") << "\r\n" << std::flush;
        }
        return transcript;
    });
}

TEST(Courier, SendsMailToTheRelayAndPhonesToAPrivateOutbox)
{
    TestSupport::TempDir dir;
    const std::string outbox = dir.File("spool/outbox");
    std::string error;
    Poco::Net::ServerSocket relay(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::future<std::string> session = RelayOnce(relay);
    auto smtp = std::make_unique<SmtpChannel>("127.0.0.1", relay.address().port(), "otp@brackmoor.test", seconds(5));
    Courier courier(OutboxChannel::Create(outbox, error), std::move(smtp), nullptr);
    ASSERT_TRUE(courier.DeliverToAll("web-01", {"+4915112345678", "alice@example.org"}, kText));
    const std::string transcript = session.get();
    EXPECT_NE(transcript.find("MAIL FROM:<otp@brackmoor.test>\r\n"), std::string::npos) << transcript;
    EXPECT_NE(transcript.find("RCPT TO:<alice@example.org>\r\n"), std::string::npos) << transcript;
    EXPECT_NE(transcript.find("Subject: Brackmoor verification code\r\n"), std::string::npos);
    EXPECT_NE(transcript.find("\r\n" + kText + "\r\n"), std::string::npos) << transcript;
    std::vector<std::string> names;
    Poco::File(outbox).list(names);
    ASSERT_EQ(names.size(), 1u) << "no temporary file may be left behind";
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(outbox).permissions(), perms::owner_all);
    EXPECT_EQ(std::filesystem::status(outbox + "/" + names[0]).permissions(), perms::owner_read | perms::owner_write)
        << "outbox files hold codes";

}

} // namespace
} // namespace brackmoor::verifyd
