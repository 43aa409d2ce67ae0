// The task's datagram server, driven by real clients over the abstract
// namespace: the socket it binds, how it reads requests, and the exact bytes
// of its replies.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "Framework/EventWaiter.h"
#include "IpcClient.h"
#include "FakeVerificationService.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::IpcClient;

namespace {

// Bytes on the wire: the decimal text and its NUL.
std::string Reply(const std::string& digits)
{
    return digits + std::string(1, '\0');
}

const std::string kContact = "13800000000";
// "1:" and this make a request of exactly 255 bytes.
const std::string kLongContact(253, 'a');

/// A task whose socket is closed when the test ends: the task itself
/// deliberately never closes it.
struct ServerTask {
    ServerTask() : task(new Engine::TwoFactorAuthenticationTask) {}
    ~ServerTask() { task->CloseSocket(); }
    Engine::TwoFactorAuthenticationTask* operator->() { return task.get(); }
    Engine::TwoFactorAuthenticationTask& operator*() { return *task; }
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
};

class IpcServerTest : public testing::Test {
protected:
    void SetUp() override
    {
        // Code requests find no service here: nothing listens on port 1.
        Framework::ConfigManager::GetInstance()->Set("service.address", "127.0.0.1:1");
        ASSERT_TRUE(server->CreateIPC()) << log.Dump();
        ASSERT_GT(server->socketFd, 0);
        // A fresh list holding both contacts, so that checks need no service.
        server->refreshTime = 300;
        server->commList = {TfaTest::Sha256Hex(kContact), TfaTest::Sha256Hex(kLongContact)};
        server->commListUpdateTime = time(nullptr);
        ASSERT_TRUE(client.Ok()) << client.Error();
        log.Clear();
    }

    /// Sends `datagram`, lets the server handle it, and returns the reply.
    std::string Exchange(const std::string& datagram, int* handled = nullptr)
    {
        const int sendError = client.Send(datagram);
        EXPECT_EQ(sendError, 0) << std::strerror(sendError);
        if (sendError != 0) {
            return "<not sent>";  // the server would wait ten seconds for nothing
        }
        const int result = server->SocketEventAction(server->socketFd, 1, nullptr);
        if (handled != nullptr) {
            *handled = result;
        }
        return client.Receive(2000).value_or("<no reply>");
    }

    TfaTest::LogCapture log;
    ServerTask server;
    IpcClient client;
};

TEST_F(IpcServerTest, BindsTheTwentySixByteAbstractName)
{
    struct sockaddr_un bound;
    socklen_t length = sizeof(bound);
    ASSERT_EQ(getsockname(server->socketFd, reinterpret_cast<struct sockaddr*>(&bound), &length), 0);
    const struct sockaddr_un expected = TfaTest::ServerAddress();
    ASSERT_EQ(length, TfaTest::kServerAddressLength);
    EXPECT_EQ(std::memcmp(&bound, &expected, TfaTest::kServerAddressLength), 0);

    // Without the trailing NUL it is another name, and nobody is bound there.
    EXPECT_EQ(client.SendTo("1:x", expected, TfaTest::kServerAddressLength - 1), ECONNREFUSED);
}

TEST_F(IpcServerTest, SocketIsDatagramCloseOnExecWithTenSecondTimeouts)
{
    const int fd = server->socketFd;
    int type = 0;
    int reuse = 0;
    socklen_t length = sizeof(int);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &length), 0);
    EXPECT_EQ(reuse, 1);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    for (int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        struct timeval timeout = {0, 0};
        socklen_t timeoutLength = sizeof(timeout);
        ASSERT_EQ(getsockopt(fd, SOL_SOCKET, option, &timeout, &timeoutLength), 0);
        EXPECT_EQ(timeout.tv_sec, 10);
        EXPECT_EQ(timeout.tv_usec, 0);
    }
}

TEST_F(IpcServerTest, SecondServerFailsAtBindAndClosesItsSocket)
{
    ServerTask second;
    EXPECT_FALSE(second->CreateIPC());
    EXPECT_EQ(second->socketFd, -1);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Bind addr failed, errno(" + std::to_string(EADDRINUSE) + ")."))
        << log.Dump();
    // The first server still answers.
    EXPECT_EQ(Exchange("1:" + kContact), Reply("1"));
}

TEST_F(IpcServerTest, CloseSocketClosesOnceAndNeverDescriptorZero)
{
    const int fd = server->socketFd;
    server->CloseSocket();
    EXPECT_EQ(server->socketFd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    server->CloseSocket();
    EXPECT_EQ(server->socketFd, -1);

    server->socketFd = 0;
    server->CloseSocket();
    EXPECT_EQ(server->socketFd, 0);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    server->socketFd = -1;
}

TEST_F(IpcServerTest, FailedCloseKeepsTheDescriptorAndLogs)
{
    const int open = server->socketFd;
    const int notOpen = 1000;
    ASSERT_EQ(fcntl(notOpen, F_GETFD), -1);
    server->socketFd = notOpen;
    server->CloseSocket();
    EXPECT_EQ(server->socketFd, notOpen);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Close socket(1000) failed, errno(" + std::to_string(EBADF) + ")."))
        << log.Dump();
    server->socketFd = open;
}

// One request, its reply bytes and the handler's result.
struct RequestCase {
    const char* name;
    std::string datagram;
    std::string reply;
    int handled;  // 0 dispatched, -1 refused
};

class IpcRequestTest : public IpcServerTest, public testing::WithParamInterface<RequestCase> {};

TEST_P(IpcRequestTest, AnswersWithDecimalTextAndNul)
{
    const RequestCase& c = GetParam();
    int handled = 99;
    EXPECT_EQ(Exchange(c.datagram, &handled), c.reply);
    EXPECT_EQ(handled, c.handled);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Recv client msg.")) << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(
    Requests, IpcRequestTest,
    testing::Values(
        RequestCase{"listed_contact", "1:" + kContact, Reply("1"), 0},
        RequestCase{"unlisted_contact", "1:13900000000", Reply("2"), 0},
        RequestCase{"value_is_not_trimmed", "1: " + kContact, Reply("2"), 0},
        RequestCase{"type_after_blank", " 1:" + kContact, Reply("1"), 0},
        RequestCase{"type_with_leading_zero", "01:" + kContact, Reply("1"), 0},
        RequestCase{"type_with_plus_sign", "+1:" + kContact, Reply("1"), 0},
        RequestCase{"type_with_trailing_letters", "1x:" + kContact, Reply("1"), 0},
        RequestCase{"trailing_nul_ignored", "1:" + kContact + std::string(1, '\0'), Reply("1"), 0},
        RequestCase{"text_ends_at_embedded_nul", "1:" + kContact + std::string(1, '\0') + ":b", Reply("1"), 0},
        RequestCase{"datagram_of_255_bytes", "1:" + kLongContact, Reply("1"), 0},
        RequestCase{"datagram_of_256_bytes_loses_last", "1:" + kLongContact + "Z", Reply("1"), 0},
        RequestCase{"longer_datagram_is_cut", "1:" + kLongContact + "ZZZZ", Reply("1"), 0},
        RequestCase{"datagram_of_254_bytes", "1:" + kLongContact.substr(1), Reply("2"), 0},
        RequestCase{"code_without_service", "2:4711", Reply("3"), 0},
        RequestCase{"no_colon", "1", Reply("3"), -1},
        RequestCase{"three_pieces", "1:a:b", Reply("3"), -1},
        RequestCase{"unknown_type", "7:x", Reply("3"), -1},
        RequestCase{"type_zero", "0:" + kContact, Reply("3"), -1},
        RequestCase{"type_not_a_number", "x:y", Reply("3"), -1},
        RequestCase{"empty_value", "1:", Reply("3"), -1},
        RequestCase{"colon_only", ":", Reply("3"), -1},
        RequestCase{"empty_datagram", "", Reply("3"), -1}),
    [](const testing::TestParamInfo<RequestCase>& row) { return row.param.name; });

TEST_F(IpcServerTest, LogsTheMessageAtDebugAndRefusalsAtError)
{
    Exchange("1:" + kContact);
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "Recv client msg is (1:" + kContact + ")."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Input phone/mail correct"));

    Exchange("1:a:b");
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Recv client msg(1:a:b) invalid."));
    Exchange("7:x");
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Recv client msg(7:x) invalid."));
    Exchange("");
    // An empty datagram reads as nothing: a failed receive, whatever errno says.
    EXPECT_TRUE(log.HasPrefix(Message::PRIO_ERROR, "Recv client msg failed, errno(")) << log.Dump();
}

TEST_F(IpcServerTest, FailedReceiveAnswersThreeAndReturnsMinusOne)
{
    // Nothing queued: with a short receive time-out the read fails at once.
    struct timeval shortTimeout = {0, 20000};
    ASSERT_EQ(setsockopt(server->socketFd, SOL_SOCKET, SO_RCVTIMEO, &shortTimeout, sizeof(shortTimeout)), 0);
    EXPECT_EQ(server->SocketEventAction(server->socketFd, 1, nullptr), -1);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Recv client msg failed, errno(" + std::to_string(EAGAIN) + ")."))
        << log.Dump();
}

TEST_F(IpcServerTest, EachReplyGoesToItsSender)
{
    IpcClient other;
    ASSERT_TRUE(other.Ok()) << other.Error();
    ASSERT_EQ(client.Send("1:" + kContact), 0);
    ASSERT_EQ(other.Send("1:nobody"), 0);
    EXPECT_EQ(server->SocketEventAction(0, 0, nullptr), 0);
    EXPECT_EQ(server->SocketEventAction(0, 0, nullptr), 0);
    EXPECT_EQ(client.Receive(2000).value_or(""), Reply("1"));
    EXPECT_EQ(other.Receive(2000).value_or(""), Reply("2"));
    EXPECT_FALSE(client.Receive(0).has_value());
}

TEST_F(IpcServerTest, RepliesCarryAnyIntegerInDecimal)
{
    struct {
        int result;
        std::string bytes;
    } const cases[] = {
        {0, Reply("0")},
        {42137, Reply("42137")},
        {-12, Reply("-12")},
        {INT_MAX, Reply("2147483647")},
        {INT_MIN, Reply("-2147483648")},  // twelve bytes, the longest reply
    };
    // The client's own address, as recvfrom would report it.
    struct sockaddr_un to;
    std::memset(&to, 0, sizeof(to));
    to.sun_family = AF_UNIX;
    std::memcpy(to.sun_path + 1, client.Name().data(), client.Name().size());
    const auto toLength = static_cast<unsigned int>(offsetof(struct sockaddr_un, sun_path) + 1 + client.Name().size());
    for (const auto& c : cases) {
        server->SendResponse(to, toLength, c.result);
        EXPECT_EQ(client.Receive(2000).value_or(""), c.bytes) << c.result;
    }
}

TEST_F(IpcServerTest, FailedSendIsLogged)
{
    struct sockaddr_un nowhere;
    std::memset(&nowhere, 0, sizeof(nowhere));
    nowhere.sun_family = AF_UNIX;
    const char name[] = "\0brackmoor-test-nobody";
    std::memcpy(nowhere.sun_path, name, sizeof(name) - 1);
    server->SendResponse(nowhere, offsetof(struct sockaddr_un, sun_path) + sizeof(name) - 1, 1);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Send response failed, errno(" + std::to_string(ECONNREFUSED) + ")."))
        << log.Dump();
}

TEST_F(IpcServerTest, ServedThroughAnEventWaiter)
{
    // As the task's run loop does it: the callback on readiness of the socket.
    Framework::EventWaiter waiter;
    Framework::Event event(new Framework::EventCallback<Engine::TwoFactorAuthenticationTask>(
                               &*server, &Engine::TwoFactorAuthenticationTask::SocketEventAction),
                           nullptr, server->socketFd);
    ASSERT_EQ(waiter.AddEvent(event), 0);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 128), -1);  // nothing yet

    ASSERT_EQ(client.Send("1:" + kContact), 0);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 128), 1);
    EXPECT_EQ(client.Receive(2000).value_or(""), Reply("1"));
    waiter.RemoveEvent(event);
}

} // namespace
