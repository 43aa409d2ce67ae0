// The task as a client of the verification service, against a real HTTPS
// server on loopback: what both calls send, how answers become the integers
// relayed to the PAM module, and how the contact list is cached.

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeVerificationService.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::CommListJson;
using TfaTest::kCodePath;
using TfaTest::kCommListPath;
using TfaTest::Sha256Hex;

namespace {

// Contact check results, and the reply to a code request without a code.
const int kListed = 1;
const int kNotListed = 2;
const int kUnchecked = 3;
const int kNoCode = 3;

const std::string kContact = "13800000000";
const std::vector<std::string> kContactList = {Sha256Hex(kContact)};

std::string Header(const TestSupport::RecordedRequest& request, const std::string& name)
{
    const auto found = request.headers.find(name);
    return found == request.headers.end() ? "<absent>" : found->second;
}

class ServiceClientTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(service.Ok()) << service.Error(); }

    /// The list as the task would hold it after a refresh `age` seconds ago.
    void Cache(const std::vector<std::string>& hashes, time_t age)
    {
        task.commList = hashes;
        task.commListUpdateTime = time(nullptr) - age;
    }

    TfaTest::LogCapture log;
    TfaTest::FakeVerificationService service;
    Engine::TwoFactorAuthenticationTask task;
};

TEST_F(ServiceClientTest, CallsCarryAgentIdTheTokenOfTheMomentAndTheirBodies)
{
    const std::string list = CommListJson(kContactList);
    const std::string answer = CommListJson(kContactList, "\"verification_code\":\"042137\"");
    service.Queue(kCommListPath, 200, list);
    service.Queue(kCodePath, 200, answer);

    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    service.SetToken("token-2");
    EXPECT_EQ(task.GetVerificationCode("4711"), 42137);  // the leading zero is lost on the way

    const auto requests = service.Server().Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].method + " " + requests[0].path + " " + requests[0].body, "GET /tfa_phone_num ");
    EXPECT_EQ(requests[1].method + " " + requests[1].path + " " + requests[1].body,
              "POST /tfa_code {\"random_num\":4711}");
    const std::map<std::string, std::string> agentQuery = {{"agent_id", TfaTest::FakeVerificationService::kAgentId}};
    EXPECT_EQ(requests[0].query, agentQuery);
    EXPECT_EQ(requests[1].query, agentQuery);
    EXPECT_EQ(Header(requests[0], "X-Auth-Token"), "token-1");
    EXPECT_EQ(Header(requests[1], "X-Auth-Token"), "token-2");
    EXPECT_EQ(Header(requests[1], "Content-Type"), "application/json; charset=utf-8");
    EXPECT_EQ(Header(requests[1], "Accept-Type"), "application/json; charset=utf-8");

    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "Get comm list success, response is (" + list + ")."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Input phone/mail correct"));
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "Get vcode success, response is (" + answer + ")."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Get vcode success.")) << log.Dump();
    // Every answer carries the list: the code answer replaced the cached one.
    EXPECT_EQ(task.commList, kContactList);
}

TEST_F(ServiceClientTest, ListIsFetchedAgainOnlyWhenOlderThanRefreshTime)
{
    const struct {
        int refreshTime;
        time_t age;  // negative: a stamp in the future, which ages too
        bool refreshes;
    } cases[] = {{300, 300, false}, {300, 301, true}, {300, -300, false},
                 {300, -301, true}, {0, 0, false},     {-1, 0, true}};
    for (const auto& c : cases) {
        task.refreshTime = c.refreshTime;
        // The age is exact only while the second does not change under the check.
        for (int attempt = 0; attempt < 5; ++attempt) {
            // Answered without the contact, so that a refresh shows in the result.
            service.Queue(kCommListPath, 200, CommListJson({Sha256Hex("someone else")}));
            const size_t before = service.Server().RequestCount();
            const time_t start = time(nullptr);
            Cache(kContactList, c.age);
            const int result = task.VerifyCommMode(kContact);
            if (time(nullptr) == start) {
                EXPECT_EQ(service.Server().RequestCount() - before, c.refreshes ? 1u : 0u) << c.age;
                EXPECT_EQ(result, c.refreshes ? kNotListed : kListed) << c.age;
                break;
            }
        }
    }
}

TEST_F(ServiceClientTest, FailedRefreshAnswersThreeAndNeverUsesTheStaleList)
{
    const struct {
        int status;
        std::string body;
        Message::Priority priority;
        std::string logged;
        bool emptied;  // the answer was read and held no string entry
    } cases[] = {
        {500, CommListJson(kContactList), Message::PRIO_ERROR, "Get comm list failed, http error code is (500).",
         false},
        {200, "<html>busy</html>", Message::PRIO_ERROR, "Parse response(<html>busy</html>) failed.", false},
        {200, "{\"list\":[]}", Message::PRIO_ERROR, "Get comm_list failed, response is ({\"list\":[]}).", false},
        {200, "{\"comm_list\":\"abc\"}", Message::PRIO_ERROR,
         "Get comm_list failed, response is ({\"comm_list\":\"abc\"}).", false},
        {200, "{\"comm_list\":[]}", Message::PRIO_WARNING, "Comm list response is empty.", false},
        {200, "{\"comm_list\":[1,2]}", Message::PRIO_WARNING, "Comm list response is empty.", true},
    };
    for (const auto& c : cases) {
        log.Clear();
        Cache(kContactList, 1000);
        const time_t stamp = task.commListUpdateTime;
        service.Queue(kCommListPath, c.status, c.body);

        EXPECT_EQ(task.VerifyCommMode(kContact), kUnchecked) << c.body;
        EXPECT_TRUE(log.Has(c.priority, c.logged)) << log.Dump();
        EXPECT_EQ(task.commList, c.emptied ? std::vector<std::string>{} : kContactList) << c.body;
        EXPECT_EQ(task.commListUpdateTime, stamp) << c.body;
    }
    // Asked again on every check until the service recovers; cached from then on.
    service.Queue(kCommListPath, 200, CommListJson(kContactList));
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    EXPECT_EQ(service.Server().RequestCount(), std::size(cases) + 1);
}

TEST_F(ServiceClientTest, KeepsAtMostThirtyTwoEntries)
{
    std::vector<std::string> entries;
    for (int i = 0; i < 40; ++i) {
        entries.push_back(Sha256Hex("contact-" + std::to_string(i)));
    }
    const std::vector<std::string> first32(entries.begin(), entries.begin() + 32);
    service.Queue(kCommListPath, 200, CommListJson(first32));
    service.Queue(kCommListPath, 200, CommListJson(entries));

    EXPECT_EQ(task.VerifyCommMode("contact-31"), kListed);
    EXPECT_EQ(log.Count("Comm list response size(32) is exceed limit."), 0u);
    task.commListUpdateTime = 0;
    EXPECT_EQ(task.VerifyCommMode("contact-32"), kNotListed);
    EXPECT_EQ(task.commList, first32);
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "Comm list response size(40) is exceed limit.")) << log.Dump();
}

TEST_F(ServiceClientTest, StringEntriesAreTrimmedAndTheContactHashedAsReceived)
{
    const std::string hash = Sha256Hex(kContact);
    service.Queue(kCommListPath, 200, "{\"comm_list\":[\" \\t" + hash + " \\r\\n\", 7, null, \"   \", {\"a\":1}]}");

    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    EXPECT_EQ(task.commList, (std::vector<std::string>{hash, ""}));
    EXPECT_EQ(task.VerifyCommMode(" " + kContact), kNotListed);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Input phone/mail incorrect"));
    EXPECT_EQ(service.Server().RequestCount(), 1u);
}

TEST_F(ServiceClientTest, CodeAnswerGivesTheCodeOrThree)
{
    const std::vector<std::string> fresh = {Sha256Hex("a@example.com"), Sha256Hex("13900000000")};
    const auto withCode = [&fresh](const std::string& member) { return CommListJson(fresh, member); };
    const auto invalid = [](const std::string& body) { return "Response msg(" + body + ") vcode invalid."; };
    const std::string blank = withCode("\"verification_code\":\"  \"");
    const std::string missing = withCode("");
    const std::string number = withCode("\"verification_code\":42137");
    const struct {
        int status;
        std::string body;
        int code;
        Message::Priority priority;
        std::string logged;  // empty for a success
        bool listReplaced;
    } cases[] = {
        {200, withCode("\"verification_code\":\"042137\""), 42137, Message::PRIO_INFORMATION, "", true},
        {200, withCode("\"verification_code\":\" 777\\t\""), 777, Message::PRIO_INFORMATION, "", true},
        {200, blank, kNoCode, Message::PRIO_ERROR, invalid(blank), true},
        {200, missing, kNoCode, Message::PRIO_ERROR, invalid(missing), true},
        {200, number, kNoCode, Message::PRIO_ERROR, invalid(number), true},
        {200, "{\"verification_code\":\"5678\"}", kNoCode, Message::PRIO_ERROR,
         "Get comm_list failed, response is ({\"verification_code\":\"5678\"}).", false},
        {200, "{\"comm_list\":[],\"verification_code\":\"5678\"}", kNoCode, Message::PRIO_WARNING,
         "Comm list response is empty.", false},
        {200, "code 5678", kNoCode, Message::PRIO_ERROR, "Parse response(code 5678) failed.", false},
        {500, withCode("\"verification_code\":\"5678\""), kNoCode, Message::PRIO_ERROR,
         "Get vcode failed, http error code(500).", false},
    };
    for (const auto& c : cases) {
        log.Clear();
        task.commList = {"old"};
        service.Queue(kCodePath, c.status, c.body);

        EXPECT_EQ(task.GetVerificationCode("4711"), c.code) << c.body;
        EXPECT_TRUE(c.logged.empty() || log.Has(c.priority, c.logged)) << log.Dump();
        EXPECT_EQ(log.Count("Get vcode success."), c.logged.empty() ? 1u : 0u) << c.body;
        EXPECT_EQ(task.commList, c.listReplaced ? fresh : std::vector<std::string>{"old"}) << c.body;
    }
}

TEST_F(ServiceClientTest, ServiceThatNeverAnswersGivesThreeAtTheReadTimeout)
{
    Cache(kContactList, 1000);
    service.Server().SetStall(true);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(task.VerifyCommMode(kContact), kUnchecked);
    EXPECT_EQ(task.GetVerificationCode("4711"), kNoCode);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    service.Server().SetStall(false);

    // Generous: the configured read time-out is two seconds per call.
    EXPECT_LT(elapsed, std::chrono::seconds(TfaTest::FakeVerificationService::kReadTimeoutSeconds * 6));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Get comm list failed, http error code is (-1)."));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Get vcode failed, http error code(-1).")) << log.Dump();
}

} // namespace
