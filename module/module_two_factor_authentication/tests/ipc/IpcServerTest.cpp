// The task's datagram server, driven by real clients over the abstract
// namespace, with code requests relayed to an HTTPS service on loopback: the
// socket it binds, how it reads requests, and the exact bytes of its replies.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "FakeVerificationService.h"
#include "IpcClient.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::Reply;

namespace {

const std::string kNul(1, '\0');
const std::string kContact = "13800000000";
// "1:" and this make a request of exactly 255 bytes.
const std::string kLongContact(253, 'a');

class IpcServerTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(service.Ok()) << service.Error();
        ASSERT_TRUE(task.CreateIPC()) << log.Dump();
        ASSERT_TRUE(client.Ok()) << client.Error();
        log.Clear();
    }
    // The task deliberately never closes its socket itself.
    void TearDown() override { task.CloseSocket(); }

    /// Sends `datagram`, lets the server handle it, and returns the reply.
    std::string Exchange(const std::string& datagram, int* handled = nullptr)
    {
        const int sendError = client.Send(datagram);
        EXPECT_EQ(sendError, 0) << std::strerror(sendError);
        if (sendError != 0) {
            return "<not sent>";  // the server would wait ten seconds for nothing
        }
        const int result = task.SocketEventAction(task.socketFd, 1, nullptr);
        if (handled != nullptr) {
            *handled = result;
        }
        return client.Receive(2000).value_or("<no reply>");
    }

    TfaTest::LogCapture log;
    TfaTest::FakeVerificationService service;
    Engine::TwoFactorAuthenticationTask task;
    TfaTest::IpcClient client;
};

TEST_F(IpcServerTest, BindsTheExactAbstractNameOnACloseOnExecSocket)
{
    struct sockaddr_un bound;
    socklen_t length = sizeof(bound);
    ASSERT_EQ(getsockname(task.socketFd, reinterpret_cast<struct sockaddr*>(&bound), &length), 0);
    const struct sockaddr_un expected = TfaTest::ServerAddress();
    ASSERT_EQ(length, TfaTest::kServerAddressLength);
    EXPECT_EQ(std::memcmp(&bound, &expected, TfaTest::kServerAddressLength), 0);
    // Without the trailing NUL it is another name, and nobody is bound there.
    EXPECT_EQ(client.Send("1:x", TfaTest::kServerAddressLength - 1), ECONNREFUSED);

    // Commands the agent starts as root must not inherit it; a stuck peer costs ten seconds at most.
    EXPECT_EQ(fcntl(task.socketFd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    for (int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        struct timeval timeout = {0, 0};
        socklen_t timeoutLength = sizeof(timeout);
        ASSERT_EQ(getsockopt(task.socketFd, SOL_SOCKET, option, &timeout, &timeoutLength), 0);
        EXPECT_EQ(timeout.tv_sec * 1000000 + timeout.tv_usec, 10000000);
    }
}

TEST_F(IpcServerTest, AnswersEveryRequestWithDecimalTextAndNul)
{
    const struct {
        std::string datagram;
        std::string serviceCode;  // the code answer queued first; empty for none
        std::string reply;
        int handled;  // 0 dispatched, -1 refused
    } cases[] = {
        {"1:" + kContact, "", Reply("1"), 0},
        {"1:13900000000", "", Reply("2"), 0},
        {"1: " + kContact, "", Reply("2"), 0},  // the value is not trimmed
        {" 1:" + kContact, "", Reply("1"), 0},  // the type is read with atoi
        {"01:" + kContact, "", Reply("1"), 0},
        {"+1:" + kContact, "", Reply("1"), 0},
        {"1x:" + kContact, "", Reply("1"), 0},
        {"1:" + kContact + kNul + ":b", "", Reply("1"), 0},  // the text ends at an embedded NUL
        {"1:" + kLongContact, "", Reply("1"), 0},            // 255 bytes
        {"1:" + kLongContact + "Z", "", Reply("1"), 0},      // 256 bytes: the last one is lost
        {"1:" + kLongContact + "ZZZZ", "", Reply("1"), 0},   // longer: cut
        {"1:" + kLongContact.substr(1), "", Reply("2"), 0},  // 254 bytes
        {"2:000123", "042137", Reply("42137"), 0},
        {"2:4711", "-5", Reply("-5"), 0},
        {"2:4711", "-2147483648", Reply("-2147483648"), 0},  // the longest reply, twelve bytes
        {"2:4711", "", Reply("3"), 0},  // the service answers without a code
        {"1", "", Reply("3"), -1},
        {"1:a:b", "", Reply("3"), -1},
        {"7:x", "", Reply("3"), -1},
        {"0:" + kContact, "", Reply("3"), -1},
        {"x:y", "", Reply("3"), -1},
        {"1:", "", Reply("3"), -1},
        {"", "", Reply("3"), -1},
    };
    for (const auto& c : cases) {
        // A fresh list holding both contacts, so that checks need no service.
        task.commList = {TfaTest::Sha256Hex(kContact), TfaTest::Sha256Hex(kLongContact)};
        task.commListUpdateTime = time(nullptr);
        if (!c.serviceCode.empty()) {
            service.Queue(TfaTest::kCodePath, 200,
                          TfaTest::CommListJson({"x"}, "\"verification_code\":\"" + c.serviceCode + "\""));
        }
        int handled = 99;
        EXPECT_EQ(Exchange(c.datagram, &handled), c.reply) << c.datagram;
        EXPECT_EQ(handled, c.handled) << c.datagram;
    }
    EXPECT_EQ(service.Server().Requests().at(0).body, "{\"random_num\":123}");
}

TEST_F(IpcServerTest, LogsTheMessageAtDebugAndRefusalsAtError)
{
    Exchange("1:a:b");
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Recv client msg."));
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "Recv client msg is (1:a:b)."));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Recv client msg(1:a:b) invalid.")) << log.Dump();
}

TEST_F(IpcServerTest, EachReplyGoesToItsSender)
{
    TfaTest::IpcClient other;
    ASSERT_TRUE(other.Ok()) << other.Error();
    task.commList = {TfaTest::Sha256Hex(kContact)};
    task.commListUpdateTime = time(nullptr);
    ASSERT_EQ(client.Send("1:" + kContact), 0);
    ASSERT_EQ(other.Send("1:nobody"), 0);
    EXPECT_EQ(task.SocketEventAction(0, 0, nullptr), 0);
    EXPECT_EQ(task.SocketEventAction(0, 0, nullptr), 0);
    EXPECT_EQ(client.Receive(2000).value_or(""), Reply("1"));
    EXPECT_EQ(other.Receive(2000).value_or(""), Reply("2"));
    EXPECT_FALSE(client.Receive(0).has_value());
}

// A request from `uid`, sent by a child process that drops to that user; its reply.
std::string AskAs(uid_t uid, const std::string& datagram, Engine::TwoFactorAuthenticationTask& task)
{
    int result[2];
    if (pipe(result) != 0) {
        return "<no pipe>";
    }
    const pid_t child = fork();
    if (child == 0) {
        close(result[0]);
        std::string reply = "<none>";
        if (setresgid(uid, uid, uid) == 0 && setresuid(uid, uid, uid) == 0) {
            TfaTest::IpcClient foreign;
            reply = foreign.Ask(datagram, 5000).value_or("<no reply>");
        }
        (void)!write(result[1], reply.data(), reply.size());
        _exit(0);
    }
    close(result[1]);
    task.SocketEventAction(task.socketFd, 1, nullptr);
    char buffer[64];
    const ssize_t n = read(result[0], buffer, sizeof(buffer));
    close(result[0]);
    waitpid(child, nullptr, 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "<nothing>";
}

TEST_F(IpcServerTest, OnlyRootIsAnsweredAndRepliesNeverWait)
{
    task.commList = {TfaTest::Sha256Hex(kContact)};
    task.commListUpdateTime = time(nullptr);
    EXPECT_EQ(AskAs(65534, "1:" + kContact, task), Reply("3")) << "a listed contact, asked by nobody";
    EXPECT_EQ(AskAs(65534, "2:123456", task), Reply("3"));
    EXPECT_EQ(service.Server().RequestCount(), 0u) << "no code was requested for nobody";
    const std::string dump = log.Dump();
    size_t refusals = 0;
    for (size_t at = 0; (at = dump.find("Refuse client msg from uid(65534), pid(", at)) != std::string::npos; ++at) {
        ++refusals;
    }
    EXPECT_GE(refusals, 1u);
    EXPECT_LE(refusals, 2u) << "at most one record a second";

    // A root client that never reads its replies: once its queue is full the
    // replies are dropped at once instead of holding up the requests behind.
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(client.Send("1:" + kContact), 0);
        task.SocketEventAction(task.socketFd, 1, nullptr);
    }
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Send response failed, errno(11).")) << log.Dump();
    EXPECT_EQ(client.Receive(100).value_or(""), Reply("1"));
}

TEST_F(IpcServerTest, CloseSocketNeverClosesDescriptorZero)
{
    const int open = task.socketFd;
    task.socketFd = 0;
    task.CloseSocket();
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    task.socketFd = open;
}

} // namespace
