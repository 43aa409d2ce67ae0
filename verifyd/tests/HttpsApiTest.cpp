#include <atomic>
#include <cstdlib>
#include <regex>
#include <thread>

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include "SDK/JsonUtils.h"
#include "TestSupport/CapturingChannel.h"
#include "TestSupport/WaitFor.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

/// Contacts as the operator registered them, and as users type them at the login prompt.
const std::vector<std::string> kRegistered = {"+49 151 1234-5678", "Alice@Example.org"};
const std::vector<std::string> kTyped = {"0049 (151) 12345678", " alice@EXAMPLE.org"};

/// The body the agent sends: {"random_num": N} rendered by the SDK.
std::string CodeBody(int reference)
{
    Json::Value body(Json::objectValue);
    body["random_num"] = reference;
    return SDK::JsonUtils::JsonToString(body);
}

/// The service with its default limits and one agent, "web-01", with kRegistered.
class HttpsApi : public ::testing::Test {
protected:
    explicit HttpsApi(const std::string& extraConfig = "") : service(extraConfig) {}

    void SetUp() override
    {
        ASSERT_EQ(service.Error(), "");
        token = service.AddAgent("web-01", kRegistered);
        ASSERT_FALSE(token.empty());
    }

    Reply List() { return service.Call("GET", "/tfa_phone_num", Agent(), {{"X-Auth-Token", token}}); }
    /// The code request exactly as the agent sends it.
    Reply RequestCode(int reference = 4711)
    {
        return service.Call("POST", "/tfa_code", Agent(), CodeHeaders(), CodeBody(reference));
    }
    static Params Agent(const std::string& id = "web-01") { return {{"agent_id", id}}; }
    Params CodeHeaders() const
    {
        return {{"X-Auth-Token", token},
                {"Content-Type", "application/json; charset=utf-8"},
                {"Accept-Type", "application/json; charset=utf-8"}};
    }

    VerifydHarness service;
    std::string token;
};

TEST_F(HttpsApi, ListAndCodeCarryTheAgentSideHashesAndTheCodeGoesToEveryContact)
{
    const Reply list = List();
    ASSERT_EQ(list.status, 200) << list.body;
    EXPECT_EQ(list.json.getMemberNames(), std::vector<std::string>{"comm_list"});
    Json::Value hashes(Json::arrayValue);
    hashes.append(AgentSideHash(kTyped[0]));
    hashes.append(AgentSideHash(kTyped[1]));
    EXPECT_EQ(list.json["comm_list"], hashes);
    EXPECT_EQ(list.headers.at("Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(list.headers.at("Cache-Control"), "no-store");

    const Reply reply = RequestCode();
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(reply.json.getMemberNames(), (std::vector<std::string>{"comm_list", "verification_code"}));
    EXPECT_EQ(reply.json["comm_list"], hashes);
    ASSERT_TRUE(reply.json["verification_code"].isString());
    const std::string code = reply.json["verification_code"].asString();
    ASSERT_TRUE(std::regex_match(code, std::regex("[0-9]{6}"))) << code;
    const std::string text = "Brackmoor verification code " + code + " for login reference 4711\n";
    EXPECT_EQ(service.OutboxMessages(),
              (std::vector<std::string>{"To: +4915112345678\nChannel: sms\n\n" + text,
                                        "To: alice@example.org\nChannel: mail\n\n" + text}));
}

TEST_F(HttpsApi, RefusalsCarryTheirStatusAndAJsonErrorAndDeliverNothing)
{
    const Params lonely{{"X-Auth-Token", service.AddAgent("web-02", {})}};
    const Params auth{{"X-Auth-Token", token}};
    const struct {
        const char* what;
        const char* method;
        std::string path;
        Params params;
        Params headers;
        std::string body;
        int status;
    } cases[] = {
        {"no agent_id", "GET", "/tfa_phone_num", {}, auth, "", 400},
        {"empty agent_id", "GET", "/tfa_phone_num", Agent(""), auth, "", 400},
        {"body not JSON", "POST", "/tfa_code", Agent(), CodeHeaders(), "random_num=4711", 400},
        {"body not an object", "POST", "/tfa_code", Agent(), CodeHeaders(), "[4711]", 400},
        {"random_num a string", "POST", "/tfa_code", Agent(), CodeHeaders(), R"({"random_num":"4711"})", 400},
        {"random_num a fraction", "POST", "/tfa_code", Agent(), CodeHeaders(), R"({"random_num":47.5})", 400},
        {"random_num missing", "POST", "/tfa_code", Agent(), CodeHeaders(), "{}", 400},
        {"unknown agent", "GET", "/tfa_phone_num", Agent("web-99"), auth, "", 401},
        {"no token", "GET", "/tfa_phone_num", Agent(), {}, "", 401},
        {"wrong token", "POST", "/tfa_code", Agent(), {{"X-Auth-Token", token + "0"}}, CodeBody(1), 401},
        {"unknown path", "GET", "/tfa_phone_numbers", Agent(), auth, "", 404},
        {"list by POST", "POST", "/tfa_phone_num", Agent(), auth, CodeBody(1), 405},
        {"code by GET", "GET", "/tfa_code", Agent(), auth, "", 405},
        {"list without contacts", "GET", "/tfa_phone_num", Agent("web-02"), lonely, "", 409},
        {"code without contacts", "POST", "/tfa_code", Agent("web-02"), lonely, CodeBody(1), 409},
        {"huge body", "POST", "/tfa_code", Agent(), CodeHeaders(), std::string(5000, ' '), 413},
    };
    for (const auto& c : cases) {
        const Reply reply = service.Call(c.method, c.path, c.params, c.headers, c.body);
        EXPECT_EQ(reply.status, c.status) << c.what << ": " << reply.body;
        EXPECT_EQ(reply.json.getMemberNames(), std::vector<std::string>{"error"}) << c.what;
        EXPECT_TRUE(reply.json["error"].isString()) << c.what << ": " << reply.body;
    }
    EXPECT_TRUE(service.OutboxMessages().empty());
    EXPECT_EQ(service.Call("GET", "/tfa_code", Agent(), auth).headers["Allow"], "POST");
}

TEST_F(HttpsApi, TheRequestLogNamesEveryRequestButNeverACodeOrAToken)
{
    ASSERT_EQ(List().status, 200); // the loggers exist now
    TestSupport::CapturingChannel::Ptr capture(new TestSupport::CapturingChannel);
    Poco::Logger::setChannel("verifyd", capture);
    Poco::Logger::setLevel("verifyd", Poco::Message::PRIO_DEBUG);

    ASSERT_EQ(service.Call("GET", "/tfa_phone_num", Agent(), {{"X-Auth-Token", "x"}}).status, 401);
    const std::string code = RequestCode().json["verification_code"].asString();
    ASSERT_FALSE(code.empty());
    // The server writes the line after it has answered.
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] {
            return capture->Contains("request agent=web-01 method=GET path=/tfa_phone_num "
                                     "status=401 latency_ms=") &&
                   capture->Contains("request agent=web-01 method=POST path=/tfa_code status=200");
        },
        std::chrono::seconds(5)));
    for (const Poco::Message& message : capture->Messages()) {
        EXPECT_EQ(message.getText().find(token), std::string::npos) << message.getText();
        EXPECT_EQ(message.getText().find(code), std::string::npos) << message.getText();
    }
    Poco::Logger::setLevel("verifyd", Poco::Message::PRIO_FATAL);
}

TEST_F(HttpsApi, ConcurrentClientsGetFullListsAndNoMoreThanThreeCodesAMinute)
{
    const Json::Value expected = List().json["comm_list"];
    std::atomic<int> lists{0};
    std::atomic<int> codes{0};
    std::atomic<int> limited{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 8; ++c) {
        clients.emplace_back([&, c] {
            Reply code = RequestCode(c);
            const int retry = std::atoi(code.headers["Retry-After"].c_str());
            codes += code.status == 200 ? 1 : 0;
            limited += code.status == 429 && retry >= 1 && retry <= 60 ? 1 : 0;
            for (int i = 0; i < 10; ++i) {
                const Reply reply = List();
                lists += reply.status == 200 && reply.json["comm_list"] == expected ? 1 : 0;
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(lists.load(), 80) << "only codes are limited";
    EXPECT_EQ(codes.load(), 3);
    EXPECT_EQ(limited.load(), 5) << "the others get 429 with a Retry-After within the minute";
    EXPECT_EQ(service.OutboxMessages().size(), 6u) << "a refused request delivers nothing";
}

/// The service with an SMS hook: phones go to the hook, mail still to the outbox.
class HttpsApiWithSmsHook : public HttpsApi {
protected:
    HttpsApiWithSmsHook() : HttpsApi("[sms]\ncommand = hook.sh\ntimeout = 5\n") {}
};

TEST_F(HttpsApiWithSmsHook, TheHookGetsNumberAndTextAndItsFailureMeans502)
{
    service.Dir().Write("hook.sh", "#!/bin/sh\nexit 1\n", 0755);
    const Reply failed = RequestCode();
    EXPECT_EQ(failed.status, 502);
    EXPECT_EQ(failed.json.getMemberNames(), std::vector<std::string>{"error"}) << failed.body;
    EXPECT_TRUE(service.OutboxMessages().empty()) << "nothing may follow a failed delivery";

    const std::string sent = service.Dir().File("sent");
    service.Dir().Write("hook.sh", "#!/bin/sh\nprintf '%s\\n%s\\n' \"$1\" \"$2\" > " + sent, 0755);
    const Reply reply = RequestCode(77);
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(TestSupport::ReadWholeFile(sent),
              "+4915112345678\nBrackmoor verification code " +
                  reply.json["verification_code"].asString() + " for login reference 77\n");
    ASSERT_EQ(service.OutboxMessages().size(), 1u);
    EXPECT_EQ(service.OutboxMessages()[0].rfind("To: alice@example.org\n", 0), 0u);
}

} // namespace
} // namespace verifyd_test
