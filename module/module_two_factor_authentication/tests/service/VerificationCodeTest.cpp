// The code request: what is posted to the service, how its answer becomes
// the integer relayed to the PAM module, and that a code answer also
// replaces the cached contact list.

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "FakeVerificationService.h"
#include "LogCapture.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::CommListJson;
using TfaTest::FakeVerificationService;
using TfaTest::Sha256Hex;

namespace {

const int kFailure = 3;
const std::string kJsonType = "application/json; charset=utf-8";

class VerificationCodeTest : public testing::Test {
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
    }

    /// The request's body parsed; null when it is not JSON.
    static Json::Value PostedBody(const TestSupport::RecordedRequest& request)
    {
        Json::Value value;
        Json::CharReaderBuilder builder;
        std::string errors;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        if (!reader->parse(request.body.data(), request.body.data() + request.body.size(), &value, &errors)) {
            return Json::Value();
        }
        return value;
    }

    static FakeVerificationService* service;
    TfaTest::LogCapture log;
    Engine::TwoFactorAuthenticationTask task;
};

FakeVerificationService* VerificationCodeTest::service = nullptr;

TEST_F(VerificationCodeTest, PostsTheRandomNumberWithAgentIdTokenAndJsonHeaders)
{
    const std::string answer = CommListJson({Sha256Hex("13800000000")}, "\"verification_code\":\"042137\"");
    service->QueueCodeAnswer(200, answer);

    EXPECT_EQ(task.GetVerificationCode("4711"), 42137);  // the leading zero is lost on the way

    const auto requests = service->Server().Requests();
    ASSERT_EQ(requests.size(), 1u);
    const TestSupport::RecordedRequest& request = requests[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, TfaTest::kCodePath);
    EXPECT_EQ(request.query, (std::map<std::string, std::string>{{"agent_id", FakeVerificationService::kAgentId}}));
    EXPECT_EQ(request.headers.count("X-Auth-Token") == 1 ? request.headers.at("X-Auth-Token") : "", "token-1");
    EXPECT_EQ(request.headers.count("Content-Type") == 1 ? request.headers.at("Content-Type") : "", kJsonType);
    EXPECT_EQ(request.headers.count("Accept-Type") == 1 ? request.headers.at("Accept-Type") : "", kJsonType);
    EXPECT_EQ(request.body, "{\"random_num\":4711}");

    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "Get vcode success, response is (" + answer + ")."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Get vcode success.")) << log.Dump();
    // Every answer carries the list: it replaces the cached one.
    EXPECT_EQ(task.commList, std::vector<std::string>{Sha256Hex("13800000000")});
    EXPECT_NE(task.commListUpdateTime, 0);
}

// The PAM module's number is read with atoi: whatever it makes of the text is posted.
struct RandomNumberCase {
    const char* name;
    std::string value;
    int posted;
};

class RandomNumberTest : public VerificationCodeTest, public testing::WithParamInterface<RandomNumberCase> {};

TEST_P(RandomNumberTest, PostsWhatAtoiMakesOfTheValue)
{
    service->QueueCodeAnswer(200, CommListJson({"x"}, "\"verification_code\":\"1\""));
    EXPECT_EQ(task.GetVerificationCode(GetParam().value), 1);

    const auto requests = service->Server().Requests();
    ASSERT_EQ(requests.size(), 1u);
    const Json::Value body = PostedBody(requests[0]);
    ASSERT_TRUE(body.isObject()) << requests[0].body;
    EXPECT_EQ(body.getMemberNames(), std::vector<std::string>{"random_num"});
    ASSERT_TRUE(body["random_num"].isInt()) << requests[0].body;
    EXPECT_EQ(body["random_num"].asInt(), GetParam().posted);
}

INSTANTIATE_TEST_SUITE_P(Values, RandomNumberTest,
                         testing::Values(RandomNumberCase{"leading_zeros", "000123", 123},
                                         RandomNumberCase{"trailing_letters", "12x", 12},
                                         RandomNumberCase{"letters", "abc", 0},
                                         RandomNumberCase{"leading_blank", " 42", 42},
                                         RandomNumberCase{"negative", "-7", -7},
                                         RandomNumberCase{"plus_sign", "+5", 5}),
                         [](const testing::TestParamInfo<RandomNumberCase>& row) { return row.param.name; });

// What each answer of the service gives the PAM module, what is logged, and
// what becomes of the cached list.
struct AnswerCase {
    const char* name;
    int status;
    std::string body;
    int code;
    Message::Priority priority;
    std::string logText;  // besides the success records; empty for none
    std::vector<std::string> listAfter;
};

const std::string kHashA = Sha256Hex("a@example.com");
const std::string kHashB = Sha256Hex("13900000000");
const std::vector<std::string> kOldList = {"old"};

std::string WithCode(const std::string& codeMember)
{
    return CommListJson({kHashA, kHashB}, codeMember);
}

class CodeAnswerTest : public VerificationCodeTest, public testing::WithParamInterface<AnswerCase> {};

TEST_P(CodeAnswerTest, RelaysTheCodeOrThree)
{
    const AnswerCase& c = GetParam();
    task.commList = kOldList;
    service->QueueCodeAnswer(c.status, c.body);

    EXPECT_EQ(task.GetVerificationCode("4711"), c.code);
    if (!c.logText.empty()) {
        EXPECT_TRUE(log.Has(c.priority, c.logText)) << log.Dump();
    }
    EXPECT_EQ(log.Count("Get vcode success."), c.code == kFailure ? 0u : 1u);
    EXPECT_EQ(task.commList, c.listAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, CodeAnswerTest,
    testing::Values(
        AnswerCase{"code_with_leading_zero", 200, WithCode("\"verification_code\":\"042137\""), 42137,
                   Message::PRIO_INFORMATION, "", {kHashA, kHashB}},
        AnswerCase{"code_with_blanks", 200, WithCode("\"verification_code\":\" 777\\t\""), 777,
                   Message::PRIO_INFORMATION, "", {kHashA, kHashB}},
        AnswerCase{"code_with_trailing_letters", 200, WithCode("\"verification_code\":\"12ab\""), 12,
                   Message::PRIO_INFORMATION, "", {kHashA, kHashB}},
        AnswerCase{"code_of_letters_is_zero", 200, WithCode("\"verification_code\":\"ab\""), 0,
                   Message::PRIO_INFORMATION, "", {kHashA, kHashB}},
        AnswerCase{"negative_code", 200, WithCode("\"verification_code\":\"-12\""), -12, Message::PRIO_INFORMATION,
                   "", {kHashA, kHashB}},
        AnswerCase{"blank_code", 200, WithCode("\"verification_code\":\"  \""), kFailure, Message::PRIO_ERROR,
                   "Response msg(" + WithCode("\"verification_code\":\"  \"") + ") vcode invalid.", {kHashA, kHashB}},
        AnswerCase{"missing_code", 200, WithCode(""), kFailure, Message::PRIO_ERROR,
                   "Response msg(" + WithCode("") + ") vcode invalid.", {kHashA, kHashB}},
        AnswerCase{"code_as_number", 200, WithCode("\"verification_code\":42137"), kFailure, Message::PRIO_ERROR,
                   "Response msg(" + WithCode("\"verification_code\":42137") + ") vcode invalid.", {kHashA, kHashB}},
        AnswerCase{"no_comm_list", 200, "{\"verification_code\":\"5678\"}", kFailure, Message::PRIO_ERROR,
                   "Get comm_list failed, response is ({\"verification_code\":\"5678\"}).", kOldList},
        AnswerCase{"empty_comm_list", 200, "{\"comm_list\":[],\"verification_code\":\"5678\"}", kFailure,
                   Message::PRIO_WARNING, "Comm list response is empty.", kOldList},
        AnswerCase{"not_json", 200, "code 5678", kFailure, Message::PRIO_ERROR, "Parse response(code 5678) failed.",
                   kOldList},
        AnswerCase{"status_500", 500, WithCode("\"verification_code\":\"5678\""), kFailure, Message::PRIO_ERROR,
                   "Get vcode failed, http error code(500).", kOldList}),
    [](const testing::TestParamInfo<AnswerCase>& row) { return row.param.name; });

TEST_F(VerificationCodeTest, StalledServiceEndsAtTheReadTimeout)
{
    service->Server().SetStall(true);
    const auto start = std::chrono::steady_clock::now();
    const int code = task.GetVerificationCode("4711");
    const auto elapsed = std::chrono::steady_clock::now() - start;
    service->Server().SetStall(false);

    EXPECT_EQ(code, kFailure);
    EXPECT_LT(elapsed, std::chrono::seconds(FakeVerificationService::kReadTimeoutSeconds * 4));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Get vcode failed, http error code(-1).")) << log.Dump();
}

} // namespace
