// The module against a stand-in for the agent: real datagram sockets on the
// agent's abstract name, real Linux-PAM transactions.

#include "FakeAgent.h"
#include "PamHarness.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

namespace brackmoor::pam::test {
namespace {

constexpr char kMail[] = "alice@example.com";
constexpr char kArguments[] = "refresh_time=301 echo=0 local=0 exclude_user_list=root;operator timeout_ms=300";
constexpr char kNotRegistered[] = "This phone number or mail address is not registered for this server.";
constexpr char kUnavailable[] = "The verification service is unavailable; login refused. Please try again later.";
constexpr char kAccepted[] = "second factor accepted (verification code for login reference ";
/// The code the stand-in issues, which must never be logged.
constexpr char kCode[] = "42137";

/// The stand-in's contact list: kMail only.
const std::map<std::string, std::string> kListed{{kMail, "1"}};

struct Success {
    const char* arguments;
    const char* codeKind; ///< of the code prompt, see ScriptedUser::Seen
    const char* alsoLogged;
};
void PrintTo(const Success& s, std::ostream* os) { *os << s.arguments; }

class ServiceLogin : public testing::TestWithParam<Success> {};

TEST_P(ServiceLogin, ListedContactAndIssuedCodeLogIn)
{
    FakeAgent agent(AgentScript{{{"+4915112345678", "1"}}});
    // The issued code was 042137; the agent's reply has lost the leading zero.
    ScriptedUser alice({" 0049 (151) 1234-5678 ", " 042137 "});

    const std::vector<std::string> log = ExpectOutcome({PAM_SUCCESS, 2, nullptr, nullptr, kAccepted},
                                                       Authenticate(GetParam().arguments, "alice", alice), alice,
                                                       "alice", {kCode});

    const std::vector<std::string> requests = agent.Requests();
    ASSERT_EQ(requests.size(), 2u);
    const std::string reference = requests[1].substr(2);
    EXPECT_EQ(requests, (std::vector<std::string>{"1:+4915112345678", "2:" + reference}));
    EXPECT_TRUE(reference.size() == 6 && reference[0] != '0' &&
                reference.find_first_not_of("0123456789") == std::string::npos) << reference;
    EXPECT_EQ(alice.Seen(), (std::vector<std::string>{
                                "? Phone number or mail address: ", "i Login reference: " + reference,
                                GetParam().codeKind + (" Verification code for login reference " + reference + ": ")}));
    const char* also = GetParam().alsoLogged;
    EXPECT_TRUE(also == nullptr || std::any_of(log.begin(), log.end(), [&](const std::string& line) {
                    return line.find(also) != std::string::npos;
                })) << also;
}

INSTANTIATE_TEST_SUITE_P(Arguments, ServiceLogin, testing::Values(
    Success{"echo=1 local=0", "?", nullptr},
    Success{"echo=0 local=0", "*", nullptr},
    // Unusable arguments are logged and leave the safe defaults: the service, the code hidden.
    Success{"echo=yes local= timeout_ms=5 refresh_time=x debug exclude_user_list=;;", "*",
            "malformed argument \"echo=yes\" ignored"}));

struct Case {
    const char* name;
    std::optional<AgentScript> agent; ///< nullopt: the agent is not running
    std::vector<std::string> answers;
    Outcome outcome;
    const char* user = "alice";
    std::vector<std::string> firstRequests = {}; ///< what the agent must have been asked first
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class ServiceCase : public testing::TestWithParam<Case> {};

TEST_P(ServiceCase, EndsAndIsLoggedAsExpected)
{
    const Case& c = GetParam();
    const std::unique_ptr<FakeAgent> agent = c.agent ? std::make_unique<FakeAgent>(*c.agent) : nullptr;
    ScriptedUser user(c.answers);
    ExpectOutcome(c.outcome, Authenticate(kArguments, c.user, user), user, c.user, {kCode});
    std::vector<std::string> asked = agent ? agent->Requests() : std::vector<std::string>{};
    asked.resize(std::min(asked.size(), c.firstRequests.size()));
    EXPECT_EQ(asked, c.firstRequests);
}

const Case kCases[] = {
    // Nothing is sent for what cannot be a contact; the mail address goes lower-cased.
    {"RetriedContactsAndCodes", AgentScript{kListed},
     {"no contact at all", "bob@example.org", "  Alice@Example.COM\t", "999999", "042137"},
     {PAM_SUCCESS, 5, "Wrong verification code.", nullptr, kAccepted}, "alice", {"1:bob@example.org", "1:alice@example.com"}},
    {"ThreeUnregisteredContacts", AgentScript{}, {kMail, kMail, kMail},
     {PAM_MAXTRIES, 3, kNotRegistered, kTooManyTries, "login refused: 3 unregistered contacts"}},
    {"ThreeWrongCodes", AgentScript{kListed}, {kMail, "1", "042138", "4213"},
     {PAM_MAXTRIES, 4, "Wrong verification code.", kTooManyTries, "login refused: 3 wrong verification codes"}},
    {"ContactCheckError", AgentScript{{{kMail, "3"}}}, {kMail},
     {PAM_AUTHINFO_UNAVAIL, 1, nullptr, kUnavailable, "the agent could not check the contact"}},
    {"NoCodeIssued", AgentScript{kListed, "3"}, {kMail},
     {PAM_AUTHINFO_UNAVAIL, 1, nullptr, "No verification code could be issued; login refused. Please try again later.",
      "the agent could not obtain a verification code"}},
    {"AgentNotRunning", std::nullopt, {kMail},
     {PAM_AUTHINFO_UNAVAIL, 1, nullptr, kUnavailable, "no answer to the contact check: the agent is not running"}},
    {"AgentNeverAnswers", AgentScript{kListed, kCode, true}, {kMail},
     {PAM_AUTHINFO_UNAVAIL, 1, nullptr, kUnavailable, "no answer to the contact check: no reply within 300 ms"}},
    {"ImpostorNotRootIsIgnored", AgentScript{kListed, kCode, false, 65534}, {kMail},
     {PAM_AUTHINFO_UNAVAIL, 1, nullptr, kUnavailable, "not sent by the agent as root: 1 (last sender uid 65534)"}},
    {"ConversationFailsAtContact", AgentScript{kListed}, {},
     {PAM_CONV_ERR, 1, nullptr, nullptr, "login refused: conversation failed at the contact prompt"}},
    {"ConversationFailsAtCode", AgentScript{kListed}, {kMail},
     {PAM_CONV_ERR, 2, nullptr, nullptr, "login refused: conversation failed at the verification code prompt"}},
    {"BlankContact", AgentScript{kListed}, {" \t"},
     {PAM_AUTH_ERR, 1, nullptr, nullptr, "login refused: empty answer to the contact prompt"}},
    {"EmptyCode", AgentScript{kListed}, {kMail, ""},
     {PAM_AUTH_ERR, 2, nullptr, nullptr, "login refused: empty answer to the verification code prompt"}},
    // The one success without a second factor; nothing is asked.
    {"ExcludedUser", std::nullopt, {}, {PAM_SUCCESS, 0, nullptr, nullptr, "user is excluded"}, "root"},
};

INSTANTIATE_TEST_SUITE_P(Cases, ServiceCase, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& param) { return param.param.name; });

// pam_unix before the module, "required" as in the agent's include file: a
// wrong password must not make the service send a code.
TEST(RealStack, AWrongPasswordAsksTheAgentNothing)
{
    ASSERT_EQ(system("id carol >/dev/null 2>&1 || useradd -M carol; echo 'carol:Right-1st' | chpasswd"), 0);
    const std::string stack = std::string("auth required pam_unix.so nodelay\n") +
                              "auth [success=1 default=ignore] " + BRACKMOOR_PAM_MODULE_PATH + " local=0\n" +
                              "auth requisite pam_deny.so\nauth required pam_permit.so\n";
    FakeAgent agent(AgentScript{kListed});
    const std::string typed = std::string("\n") + kMail + "\n042137\n";
    TakeSyslog();
    const int wrong = Pamtester(stack, "carol", "wrong" + typed);
    if (wrong == 77) {
        GTEST_SKIP() << "pamtester cannot run this module";
    }
    EXPECT_NE(wrong, 0);
    EXPECT_TRUE(agent.Requests().empty());
    const std::vector<std::string> log = TakeSyslog();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& line) {
        return line.find("user=carol rhost=(unknown) first factor failed, second factor skipped") != std::string::npos;
    }));
    EXPECT_EQ(Pamtester(stack, "carol", "Right-1st" + typed), 0);
    EXPECT_EQ(agent.Requests().size(), 2u);
}

} // namespace
} // namespace brackmoor::pam::test
