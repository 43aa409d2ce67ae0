// The contact check against the verification service: the list request,
// caching by age, what a failed refresh does to the cached list, and how the
// list is read.

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeVerificationService.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::FakeVerificationService;
using TfaTest::Sha256Hex;

namespace {

const int kListed = 1;
const int kNotListed = 2;
const int kUnchecked = 3;

const std::string kContact = "13800000000";

class ContactListTest : public testing::Test {
protected:
    static void SetUpTestSuite() { service = new FakeVerificationService; }
    static void TearDownTestSuite()
    {
        delete service;
        service = nullptr;
    }

    void SetUp() override
    {
        ASSERT_TRUE(service->Ok()) << service->Error();
        service->Restart();
        ASSERT_TRUE(service->Ok()) << service->Error();
        task.refreshTime = 300;
    }

    /// The list as the task would hold it after a refresh `age` seconds ago.
    void Cache(const std::vector<std::string>& hashes, time_t age)
    {
        task.commList = hashes;
        task.commListUpdateTime = time(nullptr) - age;
    }

    static FakeVerificationService* service;
    TfaTest::LogCapture log;
    Engine::TwoFactorAuthenticationTask task;
};

FakeVerificationService* ContactListTest::service = nullptr;

TEST_F(ContactListTest, RequestCarriesAgentIdAndTheTokenOfTheMoment)
{
    service->QueueCommList({Sha256Hex(kContact)});
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);

    service->SetToken("token-2");
    task.commListUpdateTime = 0;
    service->QueueCommList({Sha256Hex(kContact)});
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);

    const auto requests = service->Server().Requests();
    ASSERT_EQ(requests.size(), 2u);
    const std::vector<std::string> tokens = {"token-1", "token-2"};
    for (size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].method, "GET");
        EXPECT_EQ(requests[i].path, TfaTest::kCommListPath);
        EXPECT_EQ(requests[i].query, (std::map<std::string, std::string>{{"agent_id", FakeVerificationService::kAgentId}}));
        ASSERT_EQ(requests[i].headers.count("X-Auth-Token"), 1u);
        EXPECT_EQ(requests[i].headers.at("X-Auth-Token"), tokens[i]);
        EXPECT_TRUE(requests[i].body.empty());
    }
    const std::string body = TfaTest::CommListJson({Sha256Hex(kContact)});
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "Get comm list success, response is (" + body + ")."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Input phone/mail correct")) << log.Dump();
}

// A list older than refreshTime (strictly) is fetched again; the age is taken
// either way, so a stamp in the future counts too.
struct AgeCase {
    const char* name;
    int refreshTime;
    time_t age;  // seconds since the stamp; negative: stamp in the future
    bool refreshes;
};

class ContactListAgeTest : public ContactListTest, public testing::WithParamInterface<AgeCase> {};

TEST_P(ContactListAgeTest, RefreshesOnlyWhenOlderThanRefreshTime)
{
    const AgeCase& c = GetParam();
    task.refreshTime = c.refreshTime;
    // Answered with a list that lacks the contact, so a refresh shows in the result.
    service->Server().SetDefault({200, TfaTest::CommListJson({Sha256Hex("someone else")}), {}});

    // The age is exact only while the second does not change under the check.
    int result = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const size_t before = service->Server().RequestCount();
        const time_t start = time(nullptr);
        Cache({Sha256Hex(kContact)}, c.age);
        result = task.VerifyCommMode(kContact);
        if (time(nullptr) == start) {
            EXPECT_EQ(service->Server().RequestCount() - before, c.refreshes ? 1u : 0u);
            break;
        }
    }
    EXPECT_EQ(result, c.refreshes ? kNotListed : kListed);
}

INSTANTIATE_TEST_SUITE_P(Ages, ContactListAgeTest,
                         testing::Values(AgeCase{"exactly_refresh_time", 300, 300, false},
                                         AgeCase{"one_second_more", 300, 301, true},
                                         AgeCase{"future_exactly_refresh_time", 300, -300, false},
                                         AgeCase{"future_one_second_more", 300, -301, true},
                                         AgeCase{"zero_same_second", 0, 0, false},
                                         AgeCase{"zero_one_second", 0, 1, true},
                                         AgeCase{"negative_same_second", -1, 0, true}),
                         [](const testing::TestParamInfo<AgeCase>& row) { return row.param.name; });

// A refresh that fails answers 3 and leaves the old list unused, whatever it held.
struct FailedRefreshCase {
    const char* name;
    int status;
    std::string body;
    Message::Priority priority;
    std::string logText;
    bool listEmptied;  // the answer was read and held no string entry
};

class ContactListFailedRefreshTest : public ContactListTest,
                                     public testing::WithParamInterface<FailedRefreshCase> {};

TEST_P(ContactListFailedRefreshTest, AnswersThreeAndNeverUsesTheStaleList)
{
    const FailedRefreshCase& c = GetParam();
    Cache({Sha256Hex(kContact)}, 1000);
    const time_t stamp = task.commListUpdateTime;
    service->QueueCommListAnswer(c.status, c.body);

    EXPECT_EQ(task.VerifyCommMode(kContact), kUnchecked);

    EXPECT_TRUE(log.Has(c.priority, c.logText)) << log.Dump();
    EXPECT_EQ(task.commList, c.listEmptied ? std::vector<std::string>{} : std::vector<std::string>{Sha256Hex(kContact)});
    EXPECT_EQ(task.commListUpdateTime, stamp);
    EXPECT_FALSE(log.Has(Message::PRIO_INFORMATION, "Input phone/mail correct"));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ContactListFailedRefreshTest,
    testing::Values(
        FailedRefreshCase{"status_500", 500, "{\"comm_list\":[]}", Message::PRIO_ERROR,
                          "Get comm list failed, http error code is (500).", false},
        FailedRefreshCase{"status_403", 403, "", Message::PRIO_ERROR, "Get comm list failed, http error code is (403).",
                          false},
        FailedRefreshCase{"not_json", 200, "<html>busy</html>", Message::PRIO_ERROR,
                          "Parse response(<html>busy</html>) failed.", false},
        FailedRefreshCase{"no_comm_list", 200, "{\"list\":[]}", Message::PRIO_ERROR,
                          "Get comm_list failed, response is ({\"list\":[]}).", false},
        FailedRefreshCase{"comm_list_not_array", 200, "{\"comm_list\":\"abc\"}", Message::PRIO_ERROR,
                          "Get comm_list failed, response is ({\"comm_list\":\"abc\"}).", false},
        FailedRefreshCase{"empty_array", 200, "{\"comm_list\":[]}", Message::PRIO_WARNING,
                          "Comm list response is empty.", false},
        FailedRefreshCase{"no_string_entry", 200, "{\"comm_list\":[1,2]}", Message::PRIO_WARNING,
                          "Comm list response is empty.", true}),
    [](const testing::TestParamInfo<FailedRefreshCase>& row) { return row.param.name; });

TEST_F(ContactListTest, ChecksAgainWhenTheServiceRecovers)
{
    Cache({Sha256Hex(kContact)}, 1000);
    service->QueueCommListAnswer(500, "");
    service->QueueCommListAnswer(500, "");
    service->QueueCommList({Sha256Hex(kContact)});

    EXPECT_EQ(task.VerifyCommMode(kContact), kUnchecked);
    EXPECT_EQ(task.VerifyCommMode(kContact), kUnchecked);
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);  // from the cache now
    EXPECT_EQ(service->Server().RequestCount(), 3u);
}

TEST_F(ContactListTest, KeepsTheFirstThirtyTwoEntries)
{
    std::vector<std::string> entries;
    for (int i = 0; i < 40; ++i) {
        entries.push_back(Sha256Hex("contact-" + std::to_string(i)));
    }
    service->QueueCommList(entries);

    EXPECT_EQ(task.VerifyCommMode("contact-31"), kListed);
    EXPECT_EQ(task.VerifyCommMode("contact-32"), kNotListed);
    EXPECT_EQ(task.commList, std::vector<std::string>(entries.begin(), entries.begin() + 32));
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "Comm list response size(40) is exceed limit.")) << log.Dump();
    EXPECT_EQ(service->Server().RequestCount(), 1u);
}

TEST_F(ContactListTest, ThirtyTwoEntriesAreNoExcess)
{
    service->QueueCommList(std::vector<std::string>(32, Sha256Hex(kContact)));
    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    EXPECT_EQ(task.commList.size(), 32u);  // duplicates are kept
    EXPECT_EQ(log.Count("Comm list response size(32) is exceed limit."), 0u);
}

TEST_F(ContactListTest, EntriesAreTrimmedAndComparedExactly)
{
    const std::string lower = Sha256Hex(kContact);
    std::string upper = Sha256Hex("alice@example.com");
    for (char& ch : upper) {
        ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    }
    service->QueueCommListAnswer(
        200, "{\"comm_list\":[\" \\t" + lower + " \\r\\n\", 7, null, \"   \", \"" + upper + "\", {\"a\":1}]}");

    EXPECT_EQ(task.VerifyCommMode(kContact), kListed);
    EXPECT_EQ(task.commList, (std::vector<std::string>{lower, "", upper}));
    // The typed contact itself is hashed exactly as received.
    EXPECT_EQ(task.VerifyCommMode(" " + kContact), kNotListed);
    EXPECT_EQ(task.VerifyCommMode("alice@example.com"), kNotListed);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Input phone/mail incorrect"));
    EXPECT_EQ(service->Server().RequestCount(), 1u);
}

TEST_F(ContactListTest, StalledServiceEndsAtTheReadTimeout)
{
    Cache({Sha256Hex(kContact)}, 1000);
    service->Server().SetStall(true);

    const auto start = std::chrono::steady_clock::now();
    const int result = task.VerifyCommMode(kContact);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    service->Server().SetStall(false);

    EXPECT_EQ(result, kUnchecked);
    // Generous: the configured read time-out is two seconds.
    EXPECT_LT(elapsed, std::chrono::seconds(FakeVerificationService::kReadTimeoutSeconds * 4));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Get comm list failed, http error code is (-1).")) << log.Dump();
}

} // namespace
