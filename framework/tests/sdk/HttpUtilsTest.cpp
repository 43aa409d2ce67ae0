// HttpUtils against a real HTTPS server on loopback with a throw-away CA.

#include <chrono>

#include <Poco/Delegate.h>
#include <Poco/Logger.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/ServerSocket.h>
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
using TestSupport::TestCertificates;

const char* const kPhoneUrl = "https://SERVICE_ADDRESS/tfa_phone_num";

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

class HttpUtilsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(certs.Ok()) << certs.Error();
        std::string error;
        ASSERT_TRUE(server.Start(error)) << error;
        SetConfig("service.address", server.Address());
        SetConfig("service.ca_file", certs.CaFile());
        SetConfig("service.connect_timeout", "2");
        SetConfig("service.read_timeout", "1");
        SetConfig("service.proxy_host", "");
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk", false)->setChannel(capture);
    }

    TestSupport::TempDir dir;
    TestCertificates certs{dir.Path()};
    HttpsTestServer server{certs.ServerCertFile(), certs.ServerKeyFile()};
    TestSupport::CapturingChannel::Ptr capture{new TestSupport::CapturingChannel};
};

TEST_F(HttpUtilsTest, SendsQueryHeadersAndBodyAndReturnsStatusHeadersAndBody)
{
    server.Queue("/tfa_phone_num", {200, "{\"list\":[]}", {{"X-Reply", "yes"}}});
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
    EXPECT_EQ((Headers{{"agent_id", "agent-7"}}), requests[1].query);
    EXPECT_EQ("application/json", requests[1].headers.at("Content-Type"));
    EXPECT_EQ("{\"random\":\"42\"}", requests[1].body);
    // The unexpected status is a warning, with the source of the record.
    const std::vector<Poco::Message> records = capture->Messages();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(Poco::Message::PRIO_WARNING, records[0].getPriority());
    EXPECT_NE(std::string::npos, records[0].getText().find("status(503)"));
    EXPECT_STREQ("HttpUtils.cpp", records[0].getSourceFile());
    EXPECT_GT(records[0].getSourceLine(), 0);

    // The certificate names the loopback address too.
    SetConfig("service.address", "127.0.0.1:" + std::to_string(server.Port()));
    EXPECT_EQ(200, Get(kPhoneUrl).status);
}

TEST_F(HttpUtilsTest, ServerThatAcceptsAndNeverAnswersTimesOutWithMinusOne)
{
    server.SetStall(true);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(capture->Contains("GET https://" + server.Address() + "/tfa_phone_num failed"));

    // Connections complete in the kernel's backlog; nobody ever speaks TLS.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    SetConfig("service.address", "localhost:" + std::to_string(silent.address().port()));
    start = Clock::now();
    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
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

TEST_F(HttpUtilsTest, RefusesBadRequestsBeforeSendingThem)
{
    EXPECT_EQ(-1, Get("ftp://" + server.Address() + "/x").status) << "scheme";
    EXPECT_EQ(-1, Get(kPhoneUrl, {}, {{"X-Auth-Token", "a\r\nX-Injected: 1"}}).status) << "header injection";
    EXPECT_TRUE(capture->Contains("invalid request header"));
    SetConfig("service.address", "");
    EXPECT_EQ(-1, Get(kPhoneUrl).status) << "no address for the placeholder";
    EXPECT_EQ(0u, server.RequestCount());
}

TEST_F(HttpUtilsTest, ConfiguredProxyIsUsed)
{
    Poco::Net::ServerSocket closed(Poco::Net::SocketAddress("127.0.0.1", 0));
    SetConfig("service.proxy_host", "127.0.0.1");
    SetConfig("service.proxy_port", std::to_string(closed.address().port()));
    closed.close();
    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_EQ(0u, server.RequestCount());
}

} // namespace
