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

/// Waves every certificate error through, as a careless other component
/// of the process might through the TLS library's process-wide event.
void IgnoreCertificateError(const void*, Poco::Net::VerificationErrorArgs& args) { args.setIgnoreError(true); }

void Relay(Poco::Net::StreamSocket& from, Poco::Net::StreamSocket& to)
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

/// A proxy for one CONNECT: keeps the request's head in `request`, opens the
/// tunnel, then relays bytes between the client and `target` until either side closes.
void ServeOneConnect(Poco::Net::ServerSocket& listener, unsigned short target, std::string& request)
{
    const std::string reply = "HTTP/1.1 200 Connection established\r\n\r\n";
    Poco::Net::StreamSocket client = listener.acceptConnection();
    for (char c = 0; request.find("\r\n\r\n") == std::string::npos && client.receiveBytes(&c, 1) == 1;) {
        request += c;
    }
    client.sendBytes(reply.data(), static_cast<int>(reply.size()));
    Poco::Net::StreamSocket server(Poco::Net::SocketAddress("127.0.0.1", target));
    std::thread back([&] { Relay(server, client); });
    Relay(client, server);
    back.join();
}

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

TEST_F(HttpUtilsTest, EveryCallEndsWithinConnectPlusReadTimeoutWhateverTheServerDoes)
{
    // Connections complete in the kernel's backlog; nobody ever speaks TLS.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string big(100 * 1024, 'x');
    const struct {
        const char* what;
        ScriptedAnswer answer;
        bool silentPeer;
    } cases[] = {
        {"answers only after 4 s", {200, "", false, 4000}, false},
        {"drips the body a byte every 100 ms", {200, std::string(200, 'x'), false, 100}, false},
        {"never finishes the handshake", {}, true},
        {"declares a body above 64 KiB", {200, big}, false},
        {"sends a chunked body above 64 KiB", {200, big, true}, false},
    };
    for (const auto& c : cases) {
        if (!c.silentPeer) {
            server.Queue(kPhonePath, c.answer);
        }
        SetConfig("service.address", c.silentPeer ? "localhost:" + std::to_string(silent.address().port())
                                                  : server.Address());
        const Clock::time_point start = Clock::now();
        const Reply reply = Get(kPhoneUrl);
        EXPECT_EQ(-1, reply.status) << c.what;
        EXPECT_TRUE(reply.body.empty()) << c.what;
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(3000)) << c.what << ": budget 2 s";
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
    auto& verificationError = Poco::Net::SSLManager::instance().ClientVerificationError;
    verificationError += Poco::delegate(&IgnoreCertificateError);

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
    verificationError -= Poco::delegate(&IgnoreCertificateError);
    EXPECT_EQ(0u, server.Requests().size());
    EXPECT_EQ(0u, misnamed.Requests().size());
}

TEST_F(HttpUtilsTest, ResumedSessionStillFailsOnceTheServerPresentsAnUntrustedCertificate)
{
    ASSERT_EQ(200, Get(kPhoneUrl).status);
    ASSERT_EQ(200, Get(kPhoneUrl).status);
    ASSERT_TRUE(server.Requests().at(1).resumedTls) << "the second connection resumes the first one's session";
    TestCertificates impostor(dir.Path(), "impostor-");
    ASSERT_TRUE(impostor.Ok()) << impostor.Error();
    auto replaced = std::make_unique<HttpsTestServer>(impostor.ServerCertFile(), impostor.ServerKeyFile());
    const unsigned short port = server.Port();
    server.Stop();
    std::string error;
    ASSERT_TRUE(replaced->Start(error, port)) << error;

    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_EQ(0u, replaced->Requests().size());
}

TEST_F(HttpUtilsTest, RefusesAHeaderThatWouldInjectAnotherBeforeSendingIt)
{
    EXPECT_EQ(-1, Get(kPhoneUrl, {}, {{"X-Auth-Token", "a\r\nX-Injected: 1"}}).status);
    EXPECT_TRUE(capture->Contains("invalid request header"));
    EXPECT_TRUE(server.Requests().empty());
}

// Methods, paths, bodies and the token header are proven by the two-factor
// module's service suite; the query's encoding and the status and body of a
// failure are here.
TEST_F(HttpUtilsTest, ThroughAConfiguredProxyTheEncodedQueryGoesAndStatusAndBodyComeBack)
{
    Poco::Net::ServerSocket listener(Poco::Net::SocketAddress("127.0.0.1", 0));
    std::string request;
    std::thread proxy([&] { ServeOneConnect(listener, server.Port(), request); });
    SetConfig("service.proxy_host", "127.0.0.1");
    SetConfig("service.proxy_port", std::to_string(listener.address().port()));
    server.Queue(kPhonePath, {503, "busy"});
    const std::string awkward = "a b&c=d/e?f+g#h%";

    const Reply reply = Get(kPhoneUrl, {{"agent_id", awkward}});
    proxy.join();

    EXPECT_EQ(0u, request.find("CONNECT " + server.Address() + " HTTP/1.1\r\n")) << request;
    EXPECT_EQ(503, reply.status);
    EXPECT_EQ("busy", reply.body);
    const std::vector<TestSupport::RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ((Headers{{"agent_id", awkward}}), requests[0].query);
    EXPECT_EQ(server.Address(), requests[0].headers.at("Host"));
}

} // namespace
