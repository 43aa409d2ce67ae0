// A code request end to end: PAM client -> datagram server -> HTTPS service
// on loopback -> reply digits and NUL.

#include <string>

#include <gtest/gtest.h>

#include "FakeVerificationService.h"
#include "IpcClient.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationTask.h"

namespace {

TEST(IpcCodeRelayTest, RelaysTheServiceCodeAsDecimalText)
{
    TfaTest::LogCapture log;
    TfaTest::FakeVerificationService service;
    ASSERT_TRUE(service.Ok()) << service.Error();
    Engine::TwoFactorAuthenticationTask task;
    ASSERT_TRUE(task.CreateIPC()) << log.Dump();
    TfaTest::IpcClient client;
    ASSERT_TRUE(client.Ok()) << client.Error();

    const struct {
        std::string code;     // as the service sends it
        std::string replied;  // as the PAM module receives it
    } cases[] = {{"042137", "42137"}, {"-5", "-5"}, {"0", "0"}};
    for (const auto& c : cases) {
        service.QueueCodeAnswer(200, TfaTest::CommListJson({"x"}, "\"verification_code\":\"" + c.code + "\""));
        ASSERT_EQ(client.Send("2:000123"), 0);
        EXPECT_EQ(task.SocketEventAction(task.socketFd, 1, nullptr), 0);
        EXPECT_EQ(client.Receive(5000).value_or("<none>"), c.replied + std::string(1, '\0'));
    }
    const auto requests = service.Server().Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests.back().body, "{\"random_num\":123}");

    service.QueueCodeAnswer(500, "");
    ASSERT_EQ(client.Send("2:4711"), 0);
    EXPECT_EQ(task.SocketEventAction(task.socketFd, 1, nullptr), 0);
    EXPECT_EQ(client.Receive(5000).value_or("<none>"), std::string("3", 2));
    task.CloseSocket();
}

} // namespace
