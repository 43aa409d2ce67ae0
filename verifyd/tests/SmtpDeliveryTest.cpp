#include <thread>

#include <Poco/File.h>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketStream.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>

#include "Courier.h"
#include "OutboxChannel.h"
#include "SmtpChannel.h"
#include "TestSupport/TempDir.h"

namespace brackmoor::verifyd {
namespace {

/// A relay on loopback that takes one SMTP session and records it. It answers
/// 250 to everything, except the reply for RCPT, which the test chooses.
class LoopbackRelay {
public:
    explicit LoopbackRelay(std::string rcptReply = "250 ok")
        : socket(Poco::Net::SocketAddress("127.0.0.1", 0)), rcpt(std::move(rcptReply))
    {
        worker = std::thread([this] { Serve(); });
    }
    ~LoopbackRelay()
    {
        if (worker.joinable()) {
            worker.join();
        }
    }

    unsigned short Port() const { return socket.address().port(); }
    /// Everything the client sent, once the session is over.
    std::string Transcript()
    {
        if (worker.joinable()) {
            worker.join();
        }
        return transcript;
    }

private:
    void Serve()
    {
        Poco::Net::StreamSocket peer = socket.acceptConnection();
        peer.setReceiveTimeout(Poco::Timespan(10, 0));
        Poco::Net::SocketStream io(peer);
        io << "220 relay ESMTP\r\n" << std::flush;
        std::string line;
        bool data = false;
        while (std::getline(io, line)) {
            transcript += line + "\n";
            if (data) {
                if (line == ".\r") {
                    data = false;
                    io << "250 queued\r\n" << std::flush;
                }
            } else if (line.rfind("DATA", 0) == 0) {
                data = true;
                io << "354 go on\r\n" << std::flush;
            } else if (line.rfind("RCPT", 0) == 0) {
                io << rcpt << "\r\n" << std::flush;
            } else if (line.rfind("QUIT", 0) == 0) {
                io << "221 bye\r\n" << std::flush;
                break;
            } else {
                io << "250 relay\r\n" << std::flush;
            }
        }
    }

    Poco::Net::ServerSocket socket;
    std::string rcpt;
    std::string transcript;
    std::thread worker;
};

unsigned short ClosedPort()
{
    Poco::Net::ServerSocket probe(Poco::Net::SocketAddress("127.0.0.1", 0));
    return probe.address().port();
}

const Message kMail{Message::Kind::Mail, "alice@example.org",
                    "Brackmoor verification code 042137 for login reference 4711"};

TEST(SmtpChannel, HandsTheMessageToTheRelay)
{
    LoopbackRelay relay;
    SmtpChannel channel("127.0.0.1", relay.Port(), "otp@brackmoor.test", std::chrono::seconds(5));
    std::string error;
    ASSERT_TRUE(channel.Deliver(kMail, error)) << error;
    const std::string transcript = relay.Transcript();
    EXPECT_NE(transcript.find("MAIL FROM:<otp@brackmoor.test>"), std::string::npos) << transcript;
    EXPECT_NE(transcript.find("RCPT TO:<alice@example.org>"), std::string::npos) << transcript;
    EXPECT_NE(transcript.find("Subject: Brackmoor verification code"), std::string::npos);
    EXPECT_NE(transcript.find(kMail.text), std::string::npos) << transcript;
}

TEST(SmtpChannel, ARefusedRecipientIsADeliveryFailure)
{
    LoopbackRelay relay("550 no such user");
    SmtpChannel channel("127.0.0.1", relay.Port(), "otp@brackmoor.test", std::chrono::seconds(5));
    std::string error;
    EXPECT_FALSE(channel.Deliver(kMail, error));
    EXPECT_NE(error.find("550"), std::string::npos) << error;
}

TEST(SmtpChannel, AnUnreachableRelayIsADeliveryFailure)
{
    SmtpChannel channel("127.0.0.1", ClosedPort(), "otp@brackmoor.test", std::chrono::seconds(2));
    std::string error;
    EXPECT_FALSE(channel.Deliver(kMail, error));
    EXPECT_NE(error.find("smtp 127.0.0.1:"), std::string::npos) << error;
}

std::unique_ptr<DeliveryChannel> Outbox(const TestSupport::TempDir& dir)
{
    std::string error;
    return OutboxChannel::Create(dir.File("outbox"), error);
}

std::size_t OutboxCount(const TestSupport::TempDir& dir)
{
    std::vector<std::string> names;
    Poco::File(dir.File("outbox")).list(names);
    return names.size();
}

TEST(Courier, MailGoesToTheRelayAndPhonesToTheOutbox)
{
    TestSupport::TempDir dir;
    LoopbackRelay relay;
    Courier courier(Outbox(dir),
                    std::make_unique<SmtpChannel>("127.0.0.1", relay.Port(), "otp@brackmoor.test",
                                                  std::chrono::seconds(5)),
                    nullptr);
    ASSERT_TRUE(courier.DeliverToAll("web-01", {"+4915112345678", "alice@example.org"}, "hello"));
    EXPECT_NE(relay.Transcript().find("RCPT TO:<alice@example.org>"), std::string::npos);
    EXPECT_EQ(OutboxCount(dir), 1u);
}

TEST(Courier, StopsAtTheFirstFailedDelivery)
{
    TestSupport::TempDir dir;
    Courier courier(Outbox(dir),
                    std::make_unique<SmtpChannel>("127.0.0.1", ClosedPort(), "otp@brackmoor.test",
                                                  std::chrono::seconds(2)),
                    nullptr);
    EXPECT_FALSE(courier.DeliverToAll("web-01", {"alice@example.org", "+4915112345678"}, "hello"));
    EXPECT_EQ(OutboxCount(dir), 0u) << "no message may follow a failed one";
}

} // namespace
} // namespace brackmoor::verifyd
