// HttpUtils against a real HTTPS server on loopback with a throw-away CA.

#include <chrono>
#include <cstdlib>
#include <thread>

#include <Poco/Logger.h>
#include <Poco/Delegate.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/VerificationErrorArgs.h>
#include <Poco/Net/ServerSocket.h>
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
using TestSupport::CapturingChannel;
using TestSupport::HttpsTestServer;
using TestSupport::ScriptedAnswer;
using TestSupport::TestCertificates;

const char* const kPhoneUrl = "https://SERVICE_ADDRESS/tfa_phone_num";
const char* const kCodeUrl = "https://SERVICE_ADDRESS/tfa_code";

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

/// Listens to the TLS library's process-wide verification-error event and
/// waves every error through, as a careless other component might.
class AcceptAnyCertificate {
public:
    AcceptAnyCertificate()
    {
        Poco::Net::SSLManager::instance().ClientVerificationError += Poco::delegate(this, &AcceptAnyCertificate::OnError);
    }
    ~AcceptAnyCertificate()
    {
        Poco::Net::SSLManager::instance().ClientVerificationError -= Poco::delegate(this, &AcceptAnyCertificate::OnError);
    }

private:
    void OnError(const void*, Poco::Net::VerificationErrorArgs& args) { args.setIgnoreError(true); }
};

class HttpUtilsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.Ok());
        ASSERT_TRUE(certs.Ok()) << certs.Error();
        std::string error;
        ASSERT_TRUE(server.Start(error)) << error;
        SetConfig("service.address", server.Address());
        SetConfig("service.ca_file", certs.CaFile());
        SetConfig("service.connect_timeout", "2");
        SetConfig("service.read_timeout", "1");
        SetConfig("service.proxy_host", "");
        capture = new CapturingChannel;
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk", false)->setChannel(capture);
    }

    void TearDown() override { EXPECT_TRUE(server.Failures().empty()) << server.Failures().front(); }

    bool LoggedError(const std::string& part) const
    {
        for (const Poco::Message& msg : capture->Messages()) {
            if (msg.getPriority() == Poco::Message::PRIO_ERROR && msg.getText().find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    TestSupport::TempDir dir;
    TestCertificates certs{dir.Path()};
    HttpsTestServer server{certs.ServerCertFile(), certs.ServerKeyFile()};
    CapturingChannel::Ptr capture;
};

TEST_F(HttpUtilsTest, GetSendsEncodedQueryAndHeadersAndReturnsTheAnswer)
{
    server.Queue("/tfa_phone_num", ScriptedAnswer{200, "{\"list\":[]}", {{"X-Reply", "yes"}}});
    const std::string awkward = "a b&c=d/e?f+g#h%";

    const Reply reply = Get(kPhoneUrl, {{"agent_id", awkward}}, {{"X-Auth-Token", "token-1"}});

    EXPECT_EQ(200, reply.status);
    EXPECT_EQ("{\"list\":[]}", reply.body);
    EXPECT_EQ("yes", reply.headers.at("X-Reply"));
    ASSERT_EQ(1u, server.RequestCount());
    const TestSupport::RecordedRequest request = server.Requests()[0];
    EXPECT_EQ("GET", request.method);
    EXPECT_EQ("/tfa_phone_num", request.path);
    EXPECT_EQ((Headers{{"agent_id", awkward}}), request.query);
    EXPECT_EQ("token-1", request.headers.at("X-Auth-Token"));
    EXPECT_EQ(server.Address(), request.headers.at("Host"));
}

TEST_F(HttpUtilsTest, PostSendsBodyAndReturnsAnUnexpectedStatusWithAWarning)
{
    server.Queue("/tfa_code", ScriptedAnswer{503, "busy", {}});
    const std::string body = "{\"random\":\"42\"}";
    Reply reply;

    reply.status = SDK::HttpUtils::GetInstance()->Post(
        kCodeUrl, {{"agent_id", "agent-7"}}, {{"Content-Type", "application/json; charset=utf-8"}}, body,
        reply.headers, reply.body, 200);

    EXPECT_EQ(503, reply.status);
    EXPECT_EQ("busy", reply.body);
    ASSERT_EQ(1u, server.RequestCount());
    const TestSupport::RecordedRequest request = server.Requests()[0];
    EXPECT_EQ("POST", request.method);
    EXPECT_EQ(body, request.body);
    EXPECT_EQ("agent-7", request.query.at("agent_id"));
    EXPECT_EQ("application/json; charset=utf-8", request.headers.at("Content-Type"));
    const std::vector<Poco::Message> records = capture->Messages();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(Poco::Message::PRIO_WARNING, records[0].getPriority());
    EXPECT_NE(std::string::npos, records[0].getText().find("status(503)"));
    EXPECT_STREQ("HttpUtils.cpp", records[0].getSourceFile());
    EXPECT_GT(records[0].getSourceLine(), 0);
}

TEST_F(HttpUtilsTest, ReachesTheServiceByIpAddress)
{
    SetConfig("service.address", "127.0.0.1:" + std::to_string(server.Port()));
    EXPECT_EQ(200, Get(kPhoneUrl).status);
}

TEST_F(HttpUtilsTest, StalledServerTimesOutWithMinusOne)
{
    server.SetStall(true);
    const Clock::time_point start = Clock::now();

    const Reply reply = Get(kPhoneUrl);

    EXPECT_EQ(-1, reply.status);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(reply.body.empty());
    EXPECT_TRUE(LoggedError("GET https://" + server.Address() + "/tfa_phone_num failed"));
}

TEST_F(HttpUtilsTest, SilentListenerTimesOutDuringTheHandshake)
{
    // Connections complete in the kernel's backlog; nobody ever speaks TLS.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    SetConfig("service.address", "localhost:" + std::to_string(silent.address().port()));
    const Clock::time_point start = Clock::now();

    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

TEST_F(HttpUtilsTest, RefusesCertificatesNotTrustedForTheConfiguredHost)
{
    TestCertificates otherCa(dir.Path(), "other-");
    TestCertificates wrongHost(dir.Path(), "wrong-host-", {"elsewhere.example"});
    ASSERT_TRUE(otherCa.Ok()) << otherCa.Error();
    ASSERT_TRUE(wrongHost.Ok()) << wrongHost.Error();
    HttpsTestServer misnamed(wrongHost.ServerCertFile(), wrongHost.ServerKeyFile());
    std::string error;
    ASSERT_TRUE(misnamed.Start(error)) << error;
    // Someone else in the process accepting every certificate changes nothing.
    AcceptAnyCertificate acceptAll;

    struct Case {
        const char* what;
        std::string address;
        std::string caFile;
    } cases[] = {
        {"server signed by another CA", server.Address(), otherCa.CaFile()},
        {"certificate for another host", misnamed.Address(), wrongHost.CaFile()},
        {"missing CA file", server.Address(), dir.File("absent.pem")},
    };
    for (const Case& c : cases) {
        SetConfig("service.address", c.address);
        SetConfig("service.ca_file", c.caFile);
        EXPECT_EQ(-1, Get(kPhoneUrl).status) << c.what;
    }
    EXPECT_EQ(0u, server.RequestCount());
    EXPECT_EQ(0u, misnamed.RequestCount());
}

TEST_F(HttpUtilsTest, RefusesBadRequestsBeforeSendingThem)
{
    SetConfig("service.address", "");
    EXPECT_EQ(-1, Get(kPhoneUrl).status) << "no address for the placeholder";
    SetConfig("service.address", server.Address());
    EXPECT_EQ(-1, Get("ftp://" + server.Address() + "/x").status) << "scheme";
    EXPECT_EQ(-1, Get(kPhoneUrl, {}, {{"X-Auth-Token", "a\r\nX-Injected: 1"}}).status) << "header injection";
    EXPECT_EQ(0u, server.RequestCount());
    EXPECT_TRUE(LoggedError("invalid request header"));
}

TEST_F(HttpUtilsTest, ProxyComesFromTheConfigurationOnly)
{
    // A proxy in the environment points nowhere and must not be used...
    Poco::Net::ServerSocket closed(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(closed.address().port());
    closed.close();
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "http_proxy", "HTTP_PROXY", "all_proxy"}) {
        ::setenv(name, nowhere.c_str(), 1);
    }
    const int direct = Get(kPhoneUrl).status;
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "http_proxy", "HTTP_PROXY", "all_proxy"}) {
        ::unsetenv(name);
    }
    EXPECT_EQ(200, direct);

    // ...while a configured one is.
    SetConfig("service.proxy_host", "127.0.0.1");
    SetConfig("service.proxy_port", nowhere.substr(nowhere.rfind(':') + 1));
    EXPECT_EQ(-1, Get(kPhoneUrl).status);
    EXPECT_EQ(1u, server.RequestCount());
}

TEST_F(HttpUtilsTest, ConcurrentCallersEachGetTheirAnswer)
{
    const int kThreads = 4;
    const int kEach = 5;
    std::vector<std::thread> threads;
    std::vector<int> successes(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &successes] {
            for (int i = 0; i < kEach; ++i) {
                const std::string id = std::to_string(t) + "-" + std::to_string(i);
                successes[t] += Get(kPhoneUrl, {{"agent_id", id}}).status == 200 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(kEach, successes[t]) << "thread " << t;
    }
    EXPECT_EQ(static_cast<size_t>(kThreads * kEach), server.RequestCount());
}

} // namespace
