// The task's datagram server with real clients over the abstract namespace
// (private to the sandbox's network namespace): the exact name and reply
// bytes, whom it answers, and its socket across a failed start and a restart
// by the framework.
#include <fcntl.h>
#include <sys/syscall.h>

#include <thread>

#include "Framework/PolicyCallback.h"
#include "TfaTestSupport.h"
#include "TwoFactorAuthenticationModule.h"

using namespace TfaTest;
using namespace std::string_literals;

namespace {

const std::string kContact = "13800000000", kLong(253, 'a');  // "1:" and kLong make 255 bytes

class IpcServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(task.CreateIPC());
        task.commList = {Sha256Hex(kContact), Sha256Hex(kLong)};  // fresh: no service is asked
        task.commListUpdateTime = time(nullptr);
    }
    void TearDown() override { task.CloseSocket(); }  // the task never closes it itself
    /// The reply to `datagram` from `from`, which the task has handled.
    std::string Exchange(const std::string& datagram, const IpcClient& from)
    {
        EXPECT_EQ(from.Send(datagram), 0);  // else the server would wait ten seconds for nothing
        task.SocketEventAction(task.socketFd, 1, nullptr);
        return from.Receive();
    }

    LogCapture log;
    Engine::TwoFactorAuthenticationTask task;
    IpcClient client;
};

TEST_F(IpcServerTest, AnswersOnTheExactNameWithDecimalTextAndNulAndOnlyRoot)
{
    EXPECT_EQ(client.Send("1:x", IpcClient::kServerLength - 1), ECONNREFUSED) << "the name without its last NUL";
    const std::pair<std::string, std::string> cases[] = {  // request, reply
        {"1:" + kContact, "1\0"s}, {"1:13900000000", "2\0"s}, {"1:" + kContact + "\0:b"s, "1\0"s},  // cut at the NUL
        {"1:" + kLong, "1\0"s}, {"1:" + kLong.substr(1), "2\0"s}, {"1:" + kLong + "Z", "1\0"s},  // 256 bytes: cut
        {"1", "3\0"s}, {"1:a:b", "3\0"s}, {"7:x", "3\0"s}, {"1:", "3\0"s}, {"", "3\0"s}};
    for (const auto& [request, reply] : cases) {
        EXPECT_EQ(Exchange(request, client), reply) << request;
    }
    struct sockaddr_un to = {};
    socklen_t length = sizeof(to);
    ASSERT_EQ(getsockname(client.fd, reinterpret_cast<struct sockaddr*>(&to), &length), 0);
    task.SendResponse(to, length, -2147483648);
    EXPECT_EQ(client.Receive(), "-2147483648\0"s) << "the longest reply, twelve bytes";

    // A listed contact asked by nobody. The raw system calls change the
    // credentials of the asking thread alone.
    std::string reply;
    std::thread([&] {
        if (syscall(SYS_setresgid, 65534, 65534, 65534) == 0 && syscall(SYS_setresuid, 65534, 65534, 65534) == 0) {
            reply = Exchange("1:" + kContact, IpcClient());
        }
    }).join();
    EXPECT_EQ(reply, "3\0"s);
    EXPECT_THAT(log.Records(), Contains(::testing::StartsWith("W Refuse client msg from uid(65534), pid(")));
}

TEST_F(IpcServerTest, RepliesNeverWaitForAClientThatDoesNotReadAndDescriptorZeroIsNeverClosed)
{
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(client.Send("1:" + kContact), 0);
        task.SocketEventAction(task.socketFd, 1, nullptr);
    }
    EXPECT_EQ(Exchange("1:" + kContact, IpcClient()), "1\0"s);
    const int open = task.socketFd;
    task.socketFd = 0;
    task.CloseSocket();
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    task.socketFd = open;
}

// Started, restarted and stopped by the framework as the agent drives it, on
// the sandbox's copy of /etc. Switched off, the keyword reads "no" with its
// commented counterpart below it.
TEST(IpcLifecycleTest, TakenNameRollsEverythingBackAndARestartKeepsServingOnItsSocket)
{
    const std::string sshd = "UsePAM yes\nKbdInteractiveAuthentication no\n", service = "@include common-auth\n";
    WriteText("/etc/ssh/sshd_config", sshd);
    WriteText("/etc/pam.d/sshd", service);
    WriteText("/etc/pam.d/common-auth", "auth [success=1 default=ignore] pam_unix.so nullok\n");
    fs::create_directories("/lib/x86_64-linux-gnu/security");
    const auto expectRestored = [&] {
        EXPECT_EQ(ReadWholeFile("/etc/ssh/sshd_config") + ReadWholeFile("/etc/pam.d/sshd"),
                  sshd + "#KbdInteractiveAuthentication yes\n" + service);
        EXPECT_FALSE(fs::exists("/etc/pam.d/brackmoor-auth"));
        EXPECT_FALSE(fs::exists("/lib/x86_64-linux-gnu/security/pam_brackmoor.so"));
    };
    StandInInstallation installation;
    LogCapture log;
    using Parser = Engine::TwoFactorAuthenticationModule;  // only its policy parsing is used
    Parser parser;
    Framework::Module module("two_factor_authentication_module");
    module.RegisterPolicyCallback("10001",
                                  new Framework::PolicyCallback<Parser>(&parser, &Parser::RefreshFeaturePolicy));
    auto* task = new Engine::TwoFactorAuthenticationTask;  // the framework's
    module.RegisterTask(task, false);
    module.Init();
    Framework::Policy* current = nullptr;
    const auto push = [&](const std::string& time) {
        const std::string policy = R"({"content":{"local":0,"exclude_user_list":[],"refresh_time":)" + time + "}}";
        return module.RefreshPolicy("10001", "two_factor_authentication_feature", policy, current);
    };
    const int taken = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // another process holds the name
    ASSERT_EQ(bind(taken, reinterpret_cast<const sockaddr*>(&IpcClient::kServer), IpcClient::kServerLength), 0);
    EXPECT_EQ(push("300"), 0);  // the policy is accepted; the task does not start
    EXPECT_FALSE(task->authEnabled || task->ipcRegistered || task->socketFd != -1);
    EXPECT_THAT(log.Records(), Contains("E Create ipc failed, two-factor authentication cannot be used."));
    expectRestored();
    EXPECT_EQ(installation.Restarts(), 2);
    close(taken);

    // A new policy restarts the task (cancel, UnInit, Init, Run); a second
    // socket could not even bind, since the first one keeps the name.
    ASSERT_EQ(push("300"), 0);
    const int socketFd = task->socketFd;
    ASSERT_EQ(push("600"), 0);
    EXPECT_EQ(task->socketFd, socketFd);
    EXPECT_EQ(IpcClient().Ask("9:x"), "3\0"s) << "served through the event waiter after the restart";
    module.UnInit();
    expectRestored();
    close(socketFd);
}

} // namespace
