// The module against a stand-in for the agent: real datagram sockets on the
// agent's abstract name, real Linux-PAM transactions.

#include "FakeAgent.h"
#include "PamHarness.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
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
constexpr char kCode[] = "42137"; ///< the code the stand-in issues, which must never be logged
const std::map<std::string, std::string> kListed{{kMail, "1"}};

struct Case {
    const char* name;
    std::optional<AgentScript> agent; ///< nullopt: the agent is not running
    std::vector<std::string> answers;
    Outcome outcome;
    std::vector<std::string> firstRequests = {}; ///< what the agent must have been asked first
};

class ServiceCase : public testing::TestWithParam<Case> {};

TEST_P(ServiceCase, EndsAndIsLoggedAsExpected)
{
    const Case& c = GetParam();
    const std::unique_ptr<FakeAgent> agent = c.agent ? std::make_unique<FakeAgent>(*c.agent) : nullptr;
    ScriptedUser user{c.answers};
    ExpectOutcome(c.outcome, Authenticate(kArguments, "alice", user), user, "alice", {kCode});
    std::vector<std::string> asked = agent ? agent->Requests() : std::vector<std::string>{};
    asked.resize(std::min(asked.size(), c.firstRequests.size()));
    EXPECT_EQ(asked, c.firstRequests);
}

const Case kCases[] = {
    // Nothing is sent for what cannot be a contact; the mail address goes lower-cased. The issued
    // code was 042137: the agent's reply has lost the leading zero.
    {"RetriedContactsAndCodes", AgentScript{kListed},
     {"no contact at all", "bob@example.org", "  Alice@Example.COM\t", "999999", "042137"},
     {PAM_SUCCESS, 5, kNotRegistered, nullptr, kAccepted}, {"1:bob@example.org", "1:alice@example.com"}},
    {"ThreeWrongCodes", AgentScript{kListed}, {kMail, "1", "042138", "4213"},
     {PAM_MAXTRIES, 4, "Wrong verification code.", kTooManyTries, "login refused: 3 wrong verification codes"}},
    {"ThreeUnregisteredContacts", AgentScript{}, {kMail, kMail, kMail},
     {PAM_MAXTRIES, 3, kNotRegistered, kTooManyTries, "login refused: 3 unregistered contacts"}},
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
    {"EmptyCode", AgentScript{kListed}, {kMail, ""},
     {PAM_AUTH_ERR, 2, nullptr, nullptr, "login refused: empty answer to the verification code prompt"}},
};

INSTANTIATE_TEST_SUITE_P(Cases, ServiceCase, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& param) { return param.param.name; });

// pam_unix before the module, "required" as in the agent's include file,
// under pamtester (libpam's own terminal conversation): a wrong password must
// not make the service send a code.
TEST(RealStack, AWrongPasswordAsksTheAgentNothing)
{
#ifdef BRACKMOOR_SANITIZED
    GTEST_SKIP() << "an instrumented module cannot load into the uninstrumented pamtester";
#endif
    if (system("command -v pamtester >/dev/null") != 0) {
        GTEST_SKIP() << "pamtester is not installed";
    }
    ASSERT_EQ(system("id carol >/dev/null 2>&1 || useradd -M carol; echo 'carol:Right-1st' | chpasswd"), 0);
    std::ofstream("/etc/pam.d/brackmoor-stack")
        << "auth required pam_unix.so nodelay\nauth [success=1 default=ignore] " << BRACKMOOR_PAM_MODULE_PATH
        << " local=0\nauth requisite pam_deny.so\nauth required pam_permit.so\n";
    FakeAgent agent(AgentScript{kListed});
    const auto login = [](const std::string& password) {
        FILE* typing = popen("pamtester brackmoor-stack carol authenticate >/dev/null 2>&1", "w");
        std::fputs((password + "\n" + kMail + "\n042137\n").c_str(), typing);
        return pclose(typing);
    };
    TakeSyslog();
    EXPECT_NE(login("wrong"), 0);
    EXPECT_TRUE(agent.Requests().empty());
    const std::vector<std::string> lines = TakeSyslog();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("user=carol rhost=(unknown) first factor failed, second factor skipped") != std::string::npos;
    }));
    EXPECT_EQ(login("Right-1st"), 0);
    EXPECT_EQ(agent.Requests().size(), 2u);
}

} // namespace
} // namespace brackmoor::pam::test
