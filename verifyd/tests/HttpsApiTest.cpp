#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <regex>
#include <vector>

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include "RawClient.h"
#include "TestSupport/CapturingChannel.h"
#include "TestSupport/WaitFor.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

/// Ten failed authentications a minute per address, the default.
using HttpsApi = ServiceTest;

TEST_F(HttpsApi, ListAndCodeCarryTheAgentSideHashesAndTheCodeGoesToEveryContact)
{
    const Reply list = List();
    Json::Value hashes(Json::arrayValue);
    hashes.append(AgentSideHash("0049 (151) 12345678")); // as users type them at the prompt
    hashes.append(AgentSideHash(" alice@EXAMPLE.org"));
    EXPECT_EQ(list.body, "{\"comm_list\":[\"" + hashes[0].asString() + "\",\"" + hashes[1].asString() + "\"]}");
    EXPECT_EQ(list.headers.at("Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(list.headers.at("Cache-Control"), "no-store");

    const Reply reply = RequestCode();
    EXPECT_EQ(reply.json.getMemberNames(), (std::vector<std::string>{"comm_list", "verification_code"}));
    EXPECT_EQ(reply.json["comm_list"], hashes);
    const std::string code = reply.json["verification_code"].asString();
    ASSERT_TRUE(std::regex_match(code, std::regex("[0-9]{6}"))) << reply.body;
    const std::string text = "Brackmoor verification code " + code + " for login reference 4711\n";
    EXPECT_EQ(OutboxMessages(), (std::vector<std::string>{"To: +4915112345678\nChannel: sms\n\n" + text,
                                                           "To: alice@example.org\nChannel: mail\n\n" + text}));
    for (const int status : {200, 200, 429}) { // three codes a minute
        EXPECT_EQ(RequestCode().status, status);
    }
}

TEST_F(HttpsApi, RefusalsCarryTheirStatusAndAJsonErrorAndDeliverNothing)
{
    const Params auth{{"X-Auth-Token", token}};
    const struct {
        const char *what, *method;
        std::string path;
        Params params, headers;
        std::string body;
        int status;
    } cases[] = {
        {"no agent_id", "GET", "/tfa_phone_num", {}, auth, "", 400},
        {"empty agent_id", "GET", "/tfa_phone_num", Agent(""), auth, "", 400},
        {"body not JSON", "POST", "/tfa_code", Agent(), CodeHeaders(), "random_num=4711", 400},
        {"body not an object", "POST", "/tfa_code", Agent(), CodeHeaders(), "[4711]", 400},
        {"random_num a fraction", "POST", "/tfa_code", Agent(), CodeHeaders(), R"({"random_num":47.5})", 400},
        {"random_num missing", "POST", "/tfa_code", Agent(), CodeHeaders(), "{}", 400},
        {"unknown agent", "GET", "/tfa_phone_num", Agent("web-99"), auth, "", 401},
        {"no token", "GET", "/tfa_phone_num", Agent(), {}, "", 401},
        {"wrong token", "POST", "/tfa_code", Agent(), {{"X-Auth-Token", token + "0"}}, CodeBody(1), 401},
        {"unknown path", "GET", "/tfa_phone_numbers", Agent(), auth, "", 404},
        {"code by GET", "GET", "/tfa_code", Agent(), auth, "", 405},
        {"no contacts", "POST", "/tfa_code", Agent("web-02"), {{"X-Auth-Token", AddAgent("web-02", {})}}, CodeBody(1),
         409},
    };
    for (const auto& c : cases) {
        const Reply reply = Call(c.method, c.path, c.params, c.headers, c.body);
        EXPECT_EQ(reply.status, c.status) << c.what << ": " << reply.body;
        EXPECT_TRUE(reply.json.getMemberNames() == std::vector<std::string>{"error"} && reply.json["error"].isString())
            << c.what << ": " << reply.body;
    }
    EXPECT_TRUE(OutboxMessages().empty());
    EXPECT_EQ(Call("GET", "/tfa_code", Agent(), auth).headers["Allow"], "POST");
}

TEST_F(HttpsApi, TheLogNamesEveryRequestAndAThrottledAddressOnceButNeverACodeOrAToken)
{
    TestSupport::CapturingChannel::Ptr capture(new TestSupport::CapturingChannel);
    Poco::Logger::get("verifyd"); // loggers made later take its channel
    Poco::Logger::setChannel("verifyd", capture);
    Poco::Logger::setLevel("verifyd", Poco::Message::PRIO_INFORMATION);
    const std::string code = RequestCode().json["verification_code"].asString();
    ASSERT_FALSE(code.empty());
    for (int guess = 0; guess < 10; ++guess) {
        EXPECT_EQ(List(std::string(64, '0' + guess)).status, 401);
    }
    for (int i = 0; i < 3; ++i) { // a correct token too
        Reply refused = List();
        const int retry = std::atoi(refused.headers["Retry-After"].c_str());
        EXPECT_TRUE(refused.status == 429 && retry >= 1 && retry <= 6) << refused.body << retry;
    }
    EXPECT_EQ(StatusOf(RawClient(Port(), ClientContext(CaFile()), "127.0.0.2").Exchange(RawList(token))), 200)
        << "other addresses are not held up";
    // The server writes each line after it has answered.
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] { return capture->Contains("request agent=web-01 method=GET path=/tfa_phone_num status=200 latency_ms="); },
        std::chrono::seconds(5)));
    EXPECT_TRUE(capture->Contains("request agent=web-01 method=POST path=/tfa_code status=200"));
    int throttled = 0;
    for (const Poco::Message& message : capture->Messages()) {
        EXPECT_EQ(message.getText().find(token), std::string::npos) << message.getText();
        EXPECT_EQ(message.getText().find(code), std::string::npos) << message.getText();
        throttled += message.getText() == "throttling 127.0.0.1: too many failed authentications; "
                                          "1 request(s) refused since the last report";
    }
    EXPECT_EQ(throttled, 1);
    Poco::Logger::setLevel("verifyd", Poco::Message::PRIO_FATAL);
}

TEST_F(HttpsApi, AnUnknownAgentTakesAsLongAsAWrongToken)
{
    // Medians of many turns, each from a new address (or the throttle would
    // answer instead). A fifth apart is far more than two identical paths
    // differ by, and less than a second query for the contacts adds; the
    // machine is shared, so a disturbed measurement is taken again.
    const std::string agents[] = {"web-99", "web-01"};
    double medians[2] = {};
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::vector<double> micros[2];
        for (int i = 0; i < 4000; ++i) {
            const brackmoor::verifyd::ApiRequest request{
                "GET", "/tfa_phone_num?agent_id=" + agents[i % 2], token + "0", "", false,
                "10." + std::to_string(attempt) + "." + std::to_string(i / 256) + "." +
                    std::to_string(i % 256)};
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(service->Api().Handle(request).status, 401);
            micros[i % 2].push_back(std::chrono::duration<double, std::micro>(
                                        std::chrono::steady_clock::now() - start).count());
        }
        for (const int k : {0, 1}) {
            std::nth_element(micros[k].begin(), micros[k].begin() + 1000, micros[k].end());
            medians[k] = micros[k][1000];
        }
        if (std::abs(medians[0] - medians[1]) < 0.2 * std::max(medians[0], medians[1])) {
            return;
        }
    }
    ADD_FAILURE() << "unknown agent " << medians[0] << " us, wrong token " << medians[1] << " us";
}

/// Two request threads, two seconds per request, four connections per address, and an SMS hook
/// (phones go to it, mail to the outbox) that a test writes.
class Constrained : public ServiceTest {
protected:
    Constrained() : ServiceTest("[server]\nthreads = 2\nrequest_timeout = 2\nconnections_per_client = 4\n"
                                "[sms]\ncommand = hook.sh\ntimeout = 5\n") {}
};

TEST_F(Constrained, AFailingSmsHookMeansNoCodeAnd502AndNoFurtherMessage)
{
    dir.Write("hook.sh", "#!/bin/sh\nexit 1\n", 0755);
    const Reply failed = RequestCode();
    EXPECT_EQ(failed.status, 502) << failed.body;
    EXPECT_TRUE(OutboxMessages().empty()) << "the mail after the phone is not sent";
}

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// Whether the peer closes `socket` within `wait`; what it sends is dropped.
bool ClosedWithin(Poco::Net::StreamSocket& socket, milliseconds wait)
{
    char buffer[1024];
    try {
        int got = 1;
        while (got > 0 && socket.poll(Poco::Timespan(wait.count() * 1000), Poco::Net::Socket::SELECT_READ)) {
            got = socket.receiveBytes(buffer, sizeof buffer);
        }
        return got <= 0;
    } catch (const Poco::Exception&) {
        return true; // a reset: closed all the same
    }
}

TEST_F(Constrained, HeldConnectionsNeitherStopTheServiceNorOutliveTheirDeadline)
{
    std::vector<Poco::Net::StreamSocket> idle; // TCP, not even TLS
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int i = 0; i < 4; ++i) {
        idle.push_back(ConnectFrom("127.0.0.2", Port()));
        slow.push_back(std::make_unique<RawClient>(Port(), ClientContext(CaFile()), "127.0.0.3"));
        slow.back()->Exchange("GET /tfa_phone_num?agent_id=web-01 HTTP/1.1\r\n", false);
    }
    const Clock::time_point start = Clock::now();
    Poco::Net::StreamSocket fifth = ConnectFrom("127.0.0.2", Port());
    EXPECT_TRUE(ClosedWithin(fifth, milliseconds(1000))) << "a fifth is closed at once";
    EXPECT_EQ(List().status, 200) << "other clients are served meanwhile";
    // A line now and then does not keep a request alive past its deadline.
    bool closed = false;
    while (!closed && Clock::now() - start < milliseconds(4000)) {
        slow[0]->Exchange("X-Padding: 1\r\n", false);
        closed = ClosedWithin(slow[0]->Socket(), milliseconds(200));
    }
    EXPECT_TRUE(closed);
    EXPECT_GT(Clock::now() - start, milliseconds(1500)) << "not before its deadline";
    for (Poco::Net::StreamSocket& socket : idle) {
        EXPECT_TRUE(ClosedWithin(socket, milliseconds(1000)));
    }
}

TEST_F(HttpsApi, WhatNoAgentSendsIsAnsweredAtOnceAndABodyTooLargeIsNeverAskedFor)
{
    const struct {
        std::string sent;
        std::string answer; ///< the first line of the first answer
    } cases[] = {
        {RawList(token, "%zz"), "400 Bad Request"},
        {"POST /tfa_code?agent_id=web-01 HTTP/1.1\r\nX-Auth-Token: " + token +
             "\r\nContent-Length: 10000000\r\nExpect: 100-continue\r\n\r\n",
         "413 Request Entity Too Large"},
        {"\x16\x03\x01 not http\r\n\r\n", "400 Bad Request"},
    };
    for (const auto& c : cases) {
        const std::string answer = RawClient(Port(), ClientContext(CaFile())).Exchange(c.sent);
        EXPECT_EQ(answer.substr(0, answer.find("\r\n")), "HTTP/1.1 " + c.answer) << c.sent;
        EXPECT_NE(answer.find("\r\n\r\n{\"error\":"), std::string::npos) << answer;
    }
    EXPECT_TRUE(OutboxMessages().empty());
}

} // namespace
} // namespace verifyd_test
