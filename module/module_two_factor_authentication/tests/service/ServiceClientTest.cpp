// The task as a client of the verification service, against a real HTTPS
// server on loopback: what both calls send, how answers become the integers
// relayed to the PAM module, and how the contact list is cached.
#include "TfaTestSupport.h"

using namespace TfaTest;
using List = std::vector<std::string>;

namespace {

// Contact check results; 3 is also the reply to a code request without a code.
const int kListed = 1, kNotListed = 2, kFailed = 3;
const std::string kContact = "13800000000";
const List kList = {Sha256Hex(kContact)};

class ServiceClientTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(service.error, ""); }
    /// The list as the task holds it after a refresh `age` seconds ago.
    void Cache(const List& hashes, time_t age)
    {
        task.commList = hashes;
        task.commListUpdateTime = time(nullptr) - age;
    }

    LogCapture log;
    VerificationService service;
    Engine::TwoFactorAuthenticationTask task;
};

TEST_F(ServiceClientTest, ListIsFetchedAgainOnlyWhenOlderThanRefreshTime)
{
    // refresh time, age (negative: a stamp in the future, which ages too), whether it is fetched
    const std::tuple<int, time_t, bool> cases[] = {{300, 300, false}, {300, 301, true}, {300, -300, false},
                                                   {300, -301, true}, {0, 0, false},     {-1, 0, true}};
    for (const auto& [refreshTime, age, refreshes] : cases) {
        task.refreshTime = refreshTime;
        // The age is exact only while the second does not change under the check.
        for (time_t start = 0; start != time(nullptr);) {
            service.Answer("/tfa_phone_num", 200, ListJson({Sha256Hex("someone else")}));  // shows in the result
            start = time(nullptr);
            Cache(kList, age);
            const int result = task.VerifyCommMode(kContact);
            EXPECT_TRUE(time(nullptr) != start || result == (refreshes ? kNotListed : kListed)) << age;
        }
    }
}

TEST_F(ServiceClientTest, ListAnswerIsKeptOnlyWhenUsableAndAFailedRefreshNeverUsesTheStaleList)
{
    List forty;  // the contact is the 33rd
    for (int i = 0; i < 40; ++i) {
        forty.push_back(Sha256Hex(i == 32 ? kContact : "contact-" + std::to_string(i)));
    }
    // status, answer, result, list held afterwards, whether it got a new stamp
    const std::tuple<int, std::string, int, List, bool> cases[] = {
        {500, ListJson(kList), kFailed, kList, false}, {200, "<html>", kFailed, kList, false},
        {200, R"({"list":[]})", kFailed, kList, false}, {200, R"({"comm_list":"abc"})", kFailed, kList, false},
        {200, R"({"comm_list":[]})", kFailed, kList, false}, {200, R"({"comm_list":[1,2]})", kFailed, {}, false},
        // String entries are trimmed; the contact is hashed as typed.
        {200, R"({"comm_list":[" \t)" + kList[0] + R"( \r\n", 7, null, "   ", {"a":1}]})", kListed,
         {kList[0], ""}, true},
        {200, ListJson(forty), kNotListed, List(forty.begin(), forty.begin() + 32), true}};  // at most 32
    for (const auto& [status, body, result, list, refreshed] : cases) {
        Cache(kList, 1000);
        const time_t stamp = task.commListUpdateTime;
        service.Answer("/tfa_phone_num", status, body);
        EXPECT_EQ(task.VerifyCommMode(kContact), result) << body;
        EXPECT_EQ(task.commList, list) << body;
        EXPECT_EQ(task.commListUpdateTime != stamp, refreshed) << body;
    }
    const auto requests = service.server.Requests();
    ASSERT_EQ(requests.size(), std::size(cases)) << "asked again on every check until it answers";
    EXPECT_EQ(requests[0].method + " " + requests[0].path + " " + requests[0].body, "GET /tfa_phone_num ");
    EXPECT_EQ(requests[0].query, (std::map<std::string, std::string>{{"agent_id", "agent-7f3a"}}));
}

TEST_F(ServiceClientTest, CodeAnswerGivesTheCodeOrThreeAndTheRequestCarriesTheTokenOfTheMoment)
{
    const List fresh = {Sha256Hex("a@example.com")};
    const auto with = [&fresh](const std::string& member) { return ListJson(fresh, member); };
    // status, answer, code, whether its list replaced the cached one
    const std::tuple<int, std::string, int, bool> cases[] = {
        {200, with(R"("verification_code":"042137")"), 42137, true},
        {200, with(R"("verification_code":" 7\t")"), 7, true},
        {200, with(R"("verification_code":"  ")"), kFailed, true}, {200, with(""), kFailed, true},
        {200, with(R"("verification_code":42137)"), kFailed, true},
        {200, R"({"verification_code":"5678"})", kFailed, false},
        {200, R"({"comm_list":[],"verification_code":"5678"})", kFailed, false}, {200, "code 5678", kFailed, false},
        {500, with(R"("verification_code":"5678")"), kFailed, false}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& [status, body, code, listReplaced] = cases[i];
        task.commList = {"old"};
        service.Answer("/tfa_code", status, body);
        service.dir.Write("token", "token-" + std::to_string(i) + "\n", 0600);
        EXPECT_EQ(task.GetVerificationCode("4711"), code) << body;
        EXPECT_EQ(task.commList, listReplaced ? fresh : List{"old"}) << body;
        const auto request = service.server.Requests().at(i);
        EXPECT_EQ(request.headers.at("X-Auth-Token"), "token-" + std::to_string(i));
    }
    const auto request = service.server.Requests().at(0);
    EXPECT_EQ(request.method + " " + request.path + " " + request.body, R"(POST /tfa_code {"random_num":4711})");
    EXPECT_EQ(request.query, (std::map<std::string, std::string>{{"agent_id", "agent-7f3a"}}));
    EXPECT_EQ(request.headers.at("Content-Type") + request.headers.at("Accept-Type"),
              "application/json; charset=utf-8application/json; charset=utf-8");
}

} // namespace
