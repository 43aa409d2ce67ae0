// HttpUtils against a real HTTPS server on loopback with a throw-away CA.

#include <chrono>
#include <thread>

#include <Poco/Delegate.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/VerificationErrorArgs.h>
#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "SDK/HttpUtils.h"
#include "SDK/LoggerUtils.h"
#include "TestSupport/CapturingChannel.h"
#include "TestSupport/HttpsTestServer.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace {

using Clock = std::chrono::steady_clock;
using Headers = std::map<std::string, std::string>;
using TestSupport::HttpsTestServer;
using TestSupport::ScriptedAnswer;
using TestSupport::TestCertificates;

const char* const kPhoneUrl = "https://SERVICE_ADDRESS/tfa_phone_num";
const char* const kPhonePath = "/tfa_phone_num";

void SetConfig(const std::string& key, const std::string& value)
{
    Framework::ConfigManager::GetInstance()->Set(key, value);
}

/// A reply of the client: status, headers and body.
struct Reply {
    int status = 0;
    Headers headers;
    std::string body;
};

Reply Get(const std::string& url, const Headers& params = {}, const Headers& headers = {})
{
    Reply reply;
    reply.status = SDK::HttpUtils::GetInstance()->Get(url, params, headers, reply.headers, reply.body, 200);
    return reply;
}

/// Waves every certificate error through, through the TLS library's
/// process-wide event, as a careless other component might.
class AcceptAnyCertificate {
public:
    AcceptAnyCertificate() { Event() += Poco::delegate(this, &AcceptAnyCertificate::OnError); }
    ~AcceptAnyCertificate() { Event() -= Poco::delegate(this, &AcceptAnyCertificate::OnError); }

private:
    static Poco::BasicEvent<Poco::Net::VerificationErrorArgs>& Event()
    {
        return Poco::Net::SSLManager::instance().ClientVerificationError;
    }
    void OnError(const void*, Poco::Net::VerificationErrorArgs& args) { args.setIgnoreError(true); }
};

/// A proxy for one CONNECT: answers `reply`, then, for a 200, relays bytes
/// between the client and `target` until either side closes.
class OneShotProxy {
public:
    OneShotProxy(std::string reply, unsigned short target)
        : listener(Poco::Net::SocketAddress("127.0.0.1", 0)),
          worker([this, reply, target] { Serve(reply, target); })
    {
    }
    ~OneShotProxy() { worker.join(); }
    unsigned short Port() const { return listener.address().port(); }
    std::string Request() const { return request; }

private:
    void Serve(const std::string& reply, unsigned short target)
    {
        Poco::Net::StreamSocket client = listener.acceptConnection();
        char c = 0;
        while (request.find("\r\n\r\n") == std::string::npos && client.receiveBytes(&c, 1) == 1) {
            request += c;
        }
        client.sendBytes(reply.data(), static_cast<int>(reply.size()));
        if (reply.find(" 200 ") == std::string::npos) {
            return;
        }
        Poco::Net::StreamSocket server(Poco::Net::SocketAddress("127.0.0.1", target));
        std::thread back([&] { Relay(server, client); });
        Relay(client, server);
        back.join();
    }
    static void Relay(Poco::Net::StreamSocket& from, Poco::Net::StreamSocket& to)
    {
        char buffer[4096];
        int n = 0;
        try {
            while ((n = from.receiveBytes(buffer, sizeof buffer)) > 0) {
                to.sendBytes(buffer, n);
            }
            to.shutdownSend();
        } catch (const Poco::Exception&) {
        }
    }

    Poco::Net::ServerSocket listener;
    std::string request;
    std::thread worker;
};

class HttpUtilsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(certs.Ok()) << certs.Error();
        std::string error;
        ASSERT_TRUE(server.Start(error)) << error;
        SetConfig("service.address", server.Address());
        SetConfig("service.ca_file", certs.CaFile());
        SetConfig("service.connect_timeout", "1");
        SetConfig("service.read_timeout", "1");
        SetConfig("service.proxy_host", "");
        SDK::HttpUtils::GetInstance()->Reset();
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk", false)->setChannel(capture);
    }

    TestSupport::TempDir dir;
    TestCertificates certs{dir.Path()};
    HttpsTestServer server{certs.ServerCertFile(), certs.ServerKeyFile()};
    TestSupport::CapturingChannel::Ptr capture{new TestSupport::CapturingChannel};
};

TEST_F(HttpUtilsTest, SendsQueryHeadersAndBodyAndReturnsStatusHeadersAndBody)
{
    server.Queue(kPhonePath, {200, "{\"list\":[]}", {{"X-Reply", "yes"}}});
    server.Queue("/tfa_code", {503, "busy", {}});
    const std::string awkward = "a b&c=d/e?f+g#h%";

    const Reply get = Get(kPhoneUrl, {{"agent_id", awkward}}, {{"X-Auth-Token", "token-1"}});
    Reply post;
    post.status = SDK::HttpUtils::GetInstance()->Post("https://SERVICE_ADDRESS/tfa_code", {{"agent_id", "agent-7"}},
                                                      {{"Content-Type", "application/json"}}, "{\"random\":\"42\"}",
                                                      post.headers, post.body, 200);

    EXPECT_EQ(200, get.status);
    EXPECT_EQ("{\"list\":[]}", get.body);
    EXPECT_EQ("yes", get.headers.at("X-Reply"));
    EXPECT_EQ(503, post.status);
    EXPECT_EQ("busy", post.body);
    const std::vector<TestSupport::RecordedRequest> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("GET /tfa_phone_num", requests[0].method + " " + requests[0].path);
    EXPECT_EQ((Headers{{"agent_id", awkward}}), requests[0].query);
    EXPECT_EQ("token-1", requests[0].headers.at("X-Auth-Token"));
    EXPECT_EQ(server.Address(), requests[0].headers.at("Host"));
    EXPECT_EQ("POST /tfa_code", requests[1].method + " " + requests[1].path);
    EXPECT_EQ("{\"random\":\"42\"}", requests[1].body);
    // The second connection resumed the first one's TLS session.
    EXPECT_FALSE(requests[0].resumedTls);
    EXPECT_TRUE(requests[1].resumedTls);
}

TEST_F(HttpUtilsTest, EveryCallEndsWithinConnectPlusReadTimeoutWhateverTheServerDoes)
{
    // Connections complete in the kernel's backlog; nobody ever speaks TLS.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string big(100 * 1024, 'x');
    const struct {
        const char* what;
        ScriptedAnswer answer;
        bool stall;
        bool silentPeer;
    } cases[] = {
        {"accepts and never answers", {}, true, false},
        {"drips the body a byte every 100 ms", {200, std::string(200, 'x'), {}, false, 100}, false, false},
        {"never finishes the handshake", {}, false, true},
        {"declares a body above 64 KiB", {200, big, {}, false, 0}, false, false},
        {"sends a chunked body above 64 KiB", {200, big, {}, true, 0}, false, false},
    };
    for (const auto& c : cases) {
        if (!c.silentPeer) {
            server.Queue(kPhonePath, c.answer);
        }
        server.SetStall(c.stall);
        SetConfig("service.address", c.silentPeer ? "localhost:" + std::to_string(silent.address().port())
                                                  : server.Address());
        const Clock::time_point start = Clock::now();
        const Reply reply = Get(kPhoneUrl);
        EXPECT_EQ(-1, reply.status) << c.what;
        EXPECT_TRUE(reply.body.empty()) << c.what;
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(3000)) << c.what << ": budget 2 s";
        server.SetStall(false);
    }
    EXPECT_TRUE(capture->Contains("no complete answer within 2 s"));
    EXPECT_TRUE(capture->Contains("response body too large"));
}

TEST_F(HttpUtilsTest, RefusesCertificatesNotTrustedForTheConfiguredHost)
{
    TestCertificates otherCa(dir.Path(), "other-");
    TestCertificates wrongHost(dir.Path(), "wrong-host-", {"elsewhere.example"});
    ASSERT_TRUE(otherCa.Ok() && wrongHost.Ok()) << otherCa.Error() << wrongHost.Error();
    HttpsTestServer misnamed(wrongHost.ServerCertFile(), wrongHost.ServerKeyFile());
    std::string error;
    ASSERT_TRUE(misnamed.Start(error)) << error;
    // Someone else in the process accepting every certificate changes nothing.
    AcceptAnyCertificate acceptAll;

    const struct {
        const char* what;
        std::string address;
        std::string caFile;
    } cases[] = {
        {"server signed by another CA", server.Address(), otherCa.CaFile()},
        {"certificate for another host", misnamed.Address(), wrongHost.CaFile()},
        {"missing CA file", server.Address(), dir.File("absent.pem")},
    };
    for (const auto& c : cases) {
        SetConfig("service.address", c.address);
        SetConfig("service.ca_file", c.caFile);
        EXPECT_EQ(-1, Get(kPhoneUrl).status) << c.what;
    }
    EXPECT_EQ(0u, server.RequestCount());
    EXPECT_EQ(0u, misnamed.RequestCount());
}

TEST_F(HttpUtilsTest, ResumedSessionStillFailsOnceTheServerPresentsAnUntrustedCertificate)
{
    ASSERT_EQ(200, Get(kPhoneUrl).status);
    TestCertificates impostor(dir.Path(), "impostor-");
    ASSERT_TRUE(impostor.Ok()) << impostor.Error();
    auto replaced = std::make_unique<HttpsTestServer>(impostor.ServerCertFile(), impostor.ServerKeyFile());
    const unsigned short port = server.Port();
    server.Stop();
    std::string error;
    ASSERT_TRUE(replaced->Start(error, port)) << error;

    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_EQ(0u, replaced->RequestCount());
}

TEST_F(HttpUtilsTest, RefusesBadRequestsBeforeSendingThem)
{
    EXPECT_EQ(-1, Get("ftp://" + server.Address() + "/x").status) << "scheme";
    EXPECT_EQ(-1, Get(kPhoneUrl, {}, {{"X-Auth-Token", "a\r\nX-Injected: 1"}}).status) << "header injection";
    EXPECT_TRUE(capture->Contains("invalid request header"));
    SetConfig("service.address", "");
    EXPECT_EQ(-1, Get(kPhoneUrl).status) << "no address for the placeholder";
    EXPECT_EQ(0u, server.RequestCount());
}

TEST_F(HttpUtilsTest, ConfiguredProxyCarriesTheTlsConnectionThroughATunnel)
{
    for (const std::string reply : {"HTTP/1.1 200 Connection established\r\n\r\n", "HTTP/1.1 403 Forbidden\r\n\r\n"}) {
        OneShotProxy proxy(reply, server.Port());
        SetConfig("service.proxy_host", "127.0.0.1");
        SetConfig("service.proxy_port", std::to_string(proxy.Port()));
        const int status = Get(kPhoneUrl).status;
        EXPECT_EQ(reply.find(" 200 ") != std::string::npos ? 200 : -1, status) << reply;
        EXPECT_EQ(0u, proxy.Request().find("CONNECT " + server.Address() + " HTTP/1.1\r\n")) << proxy.Request();
    }
    EXPECT_EQ(1u, server.RequestCount());
}

} // namespace
