#include <algorithm>
#include <thread>

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include "SDK/JsonUtils.h"
#include "TestSupport/CapturingChannel.h"
#include "TestSupport/TempDir.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

using Params = std::map<std::string, std::string>;

const std::vector<std::string> kRegistered = {"+49 151 1234-5678", "Alice@Example.org"};
/// The same contacts as users type them at the login prompt.
const std::vector<std::string> kTyped = {"0049 (151) 12345678", " alice@EXAMPLE.org"};

/// The body the agent sends: {"random_num": N} rendered by the SDK.
std::string CodeBody(int reference)
{
    Json::Value body(Json::objectValue);
    body["random_num"] = reference;
    return SDK::JsonUtils::JsonToString(body);
}

std::vector<std::string> Members(const Json::Value& object)
{
    std::vector<std::string> names = object.getMemberNames();
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> CommList(const Reply& reply)
{
    std::vector<std::string> list;
    for (const Json::Value& entry : reply.json["comm_list"]) {
        list.push_back(entry.asString());
    }
    return list;
}

class HttpsApi : public ::testing::Test {
protected:
    explicit HttpsApi(const std::string& extraConfig = "[limits]\ncodes_per_minute = 3\n")
        : service(extraConfig)
    {
    }

    void SetUp() override
    {
        ASSERT_EQ(service.Error(), "");
        token = service.AddAgent("web-01", kRegistered);
        ASSERT_FALSE(token.empty());
    }

    Params Auth() const { return {{"X-Auth-Token", token}}; }
    Params CodeHeaders() const
    {
        return {{"X-Auth-Token", token},
                {"Content-Type", "application/json; charset=utf-8"},
                {"Accept-Type", "application/json; charset=utf-8"}};
    }
    static Params Agent(const std::string& id = "web-01") { return {{"agent_id", id}}; }

    Reply RequestCode(int reference = 4711)
    {
        return service.Post("/tfa_code", Agent(), CodeHeaders(), CodeBody(reference));
    }

    VerifydHarness service;
    std::string token;
};

TEST_F(HttpsApi, ListHoldsExactlyTheHashesTheAgentComputesForTypedContacts)
{
    const Reply reply = service.Get("/tfa_phone_num", Agent(), Auth());
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(Members(reply.json), std::vector<std::string>{"comm_list"});
    EXPECT_EQ(CommList(reply),
              (std::vector<std::string>{AgentSideHash(kTyped[0]), AgentSideHash(kTyped[1])}));
    EXPECT_EQ(reply.headers.at("Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(reply.headers.at("Cache-Control"), "no-store");
}

TEST_F(HttpsApi, CodeRequestAsTheAgentSendsItDeliversTheCodeToEveryContact)
{
    const Reply reply = RequestCode();
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(Members(reply.json), (std::vector<std::string>{"comm_list", "verification_code"}));
    EXPECT_EQ(CommList(reply), CommList(service.Get("/tfa_phone_num", Agent(), Auth())));
    ASSERT_TRUE(reply.json["verification_code"].isString());
    const std::string code = reply.json["verification_code"].asString();
    ASSERT_EQ(code.size(), 6u);
    ASSERT_EQ(code.find_first_not_of("0123456789"), std::string::npos) << code;

    const std::vector<std::string> files = service.OutboxFiles();
    ASSERT_EQ(files.size(), 2u);
    const std::string text = "Brackmoor verification code " + code + " for login reference 4711\n";
    EXPECT_EQ(TestSupport::ReadWholeFile(service.Dir().File("outbox/" + files[0])),
              "To: +4915112345678\nChannel: sms\n\n" + text);
    EXPECT_EQ(service.NewestOutboxMessage(), "To: alice@example.org\nChannel: mail\n\n" + text);
}

TEST_F(HttpsApi, RefusalsCarryTheirStatusAndAJsonErrorAndDeliverNothing)
{
    const std::string wrong(64, 'a');
    const struct {
        const char* what;
        bool post;
        std::string path;
        Params params;
        Params headers;
        std::string body;
        int status;
    } cases[] = {
        {"no agent_id", false, "/tfa_phone_num", {}, Auth(), "", 400},
        {"empty agent_id", false, "/tfa_phone_num", Agent(""), Auth(), "", 400},
        {"body not JSON", true, "/tfa_code", Agent(), CodeHeaders(), "random_num=4711", 400},
        {"body not an object", true, "/tfa_code", Agent(), CodeHeaders(), "[4711]", 400},
        {"random_num a string", true, "/tfa_code", Agent(), CodeHeaders(), R"({"random_num":"4711"})", 400},
        {"random_num a fraction", true, "/tfa_code", Agent(), CodeHeaders(), R"({"random_num":47.5})", 400},
        {"random_num missing", true, "/tfa_code", Agent(), CodeHeaders(), "{}", 400},
        {"unknown agent", false, "/tfa_phone_num", Agent("web-99"), Auth(), "", 401},
        {"wrong token", false, "/tfa_phone_num", Agent(), {{"X-Auth-Token", wrong}}, "", 401},
        {"no token", false, "/tfa_phone_num", Agent(), {}, "", 401},
        {"wrong token for a code", true, "/tfa_code", Agent(), {{"X-Auth-Token", token + "0"}}, CodeBody(1), 401},
        {"unknown path", false, "/tfa_phone_numbers", Agent(), Auth(), "", 404},
        {"root", false, "/", Agent(), Auth(), "", 404},
        {"list by POST", true, "/tfa_phone_num", Agent(), Auth(), CodeBody(1), 405},
        {"code by GET", false, "/tfa_code", Agent(), Auth(), "", 405},
        {"huge body", true, "/tfa_code", Agent(), CodeHeaders(), std::string(5000, ' '), 413},
    };
    for (const auto& c : cases) {
        const Reply reply = c.post ? service.Post(c.path, c.params, c.headers, c.body)
                                   : service.Get(c.path, c.params, c.headers);
        EXPECT_EQ(reply.status, c.status) << c.what << ": " << reply.body;
        EXPECT_TRUE(reply.json["error"].isString()) << c.what << ": " << reply.body;
        EXPECT_FALSE(reply.json.isMember("comm_list")) << c.what;
    }
    EXPECT_TRUE(service.OutboxFiles().empty());
    EXPECT_EQ(service.Get("/tfa_code", Agent(), Auth()).headers["Allow"], "POST");
}

TEST_F(HttpsApi, AnAgentWithoutContactsGetsNoEmptyList)
{
    const std::string lonely = service.AddAgent("web-02", {});
    const Params auth{{"X-Auth-Token", lonely}};
    EXPECT_EQ(service.Get("/tfa_phone_num", Agent("web-02"), auth).status, 409);
    EXPECT_EQ(service.Post("/tfa_code", Agent("web-02"), auth, CodeBody(1)).status, 409);
}

TEST_F(HttpsApi, CodeRequestsBeyondTheMinuteLimitGet429)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(RequestCode(i).status, 200) << i;
    }
    const Reply refused = RequestCode(3);
    EXPECT_EQ(refused.status, 429);
    const int retry = std::stoi(refused.headers.at("Retry-After"));
    EXPECT_GE(retry, 1);
    EXPECT_LE(retry, 60);
    EXPECT_EQ(service.OutboxFiles().size(), 6u) << "a refused request delivers nothing";
    // The limit is per agent and only for codes.
    EXPECT_EQ(service.Get("/tfa_phone_num", Agent(), Auth()).status, 200);
    const std::string other = service.AddAgent("web-02", {"+4915199999999"});
    EXPECT_EQ(service.Post("/tfa_code", Agent("web-02"), {{"X-Auth-Token", other}}, CodeBody(1))
                  .status,
              200);
}

TEST_F(HttpsApi, TheRequestLogNamesEveryRequestButNeverACodeOrAToken)
{
    ASSERT_EQ(service.Get("/tfa_phone_num", Agent(), Auth()).status, 200); // loggers exist now
    TestSupport::CapturingChannel::Ptr capture(new TestSupport::CapturingChannel);
    Poco::Logger::setChannel("verifyd", capture);
    Poco::Logger::setLevel("verifyd", Poco::Message::PRIO_DEBUG);

    ASSERT_EQ(service.Get("/tfa_phone_num", Agent("web-01"), {{"X-Auth-Token", "x"}}).status, 401);
    const Reply code = RequestCode();
    ASSERT_EQ(code.status, 200);
    EXPECT_TRUE(capture->Contains(
        "request agent=web-01 method=GET path=/tfa_phone_num status=401 latency_ms="));
    EXPECT_TRUE(capture->Contains("request agent=web-01 method=POST path=/tfa_code status=200"));
    for (const Poco::Message& message : capture->Messages()) {
        EXPECT_EQ(message.getText().find(token), std::string::npos) << message.getText();
        EXPECT_EQ(message.getText().find(code.json["verification_code"].asString()),
                  std::string::npos)
            << message.getText();
    }
    Poco::Logger::setLevel("verifyd", Poco::Message::PRIO_FATAL);
}

TEST_F(HttpsApi, ConcurrentClientsAllGetTheFullList)
{
    const std::vector<std::string> expected = CommList(service.Get("/tfa_phone_num", Agent(), Auth()));
    std::vector<std::thread> clients;
    std::atomic<int> good{0};
    for (int c = 0; c < 8; ++c) {
        clients.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                const Reply reply = service.Get("/tfa_phone_num", Agent(), Auth());
                good += reply.status == 200 && CommList(reply) == expected ? 1 : 0;
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(good.load(), 80);
}

/// The service with an SMS hook: phones go to the hook, mail still to the outbox.
class HttpsApiWithSmsHook : public HttpsApi {
protected:
    HttpsApiWithSmsHook() : HttpsApi("[sms]\ncommand = hook.sh\ntimeout = 5\n") {}

    void InstallHook(const std::string& body)
    {
        service.Dir().Write("hook.sh", "#!/bin/sh\n" + body + "\n", 0755);
    }
};

TEST_F(HttpsApiWithSmsHook, TheHookGetsTheNumberAndTheText)
{
    InstallHook("printf '%s\\n%s\\n' \"$1\" \"$2\" > " + service.Dir().File("sent"));
    const Reply reply = RequestCode(77);
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(TestSupport::ReadWholeFile(service.Dir().File("sent")),
              "+4915112345678\nBrackmoor verification code " +
                  reply.json["verification_code"].asString() + " for login reference 77\n");
    ASSERT_EQ(service.OutboxFiles().size(), 1u);
    EXPECT_EQ(service.NewestOutboxMessage().rfind("To: alice@example.org\n", 0), 0u);
}

TEST_F(HttpsApiWithSmsHook, AFailingHookMeans502AndNoCode)
{
    InstallHook("exit 1");
    const Reply reply = RequestCode();
    EXPECT_EQ(reply.status, 502);
    EXPECT_TRUE(reply.json["error"].isString());
    EXPECT_FALSE(reply.json.isMember("verification_code"));
}

} // namespace
} // namespace verifyd_test
