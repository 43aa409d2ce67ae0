// The module against a stand-in for the agent: real datagram sockets on the
// agent's abstract name, real Linux-PAM transactions.

#include "FakeAgent.h"
#include "PamHarness.h"
#include "SyslogCapture.h"

#include <gtest/gtest.h>

namespace brackmoor::pam::test {
namespace {

constexpr char kPhone[] = "+4915112345678";
constexpr char kMail[] = "alice@example.com";
constexpr char kArguments[] = "refresh_time=301 echo=0 local=0 exclude_user_list=root;operator timeout_ms=2000";

AgentScript Listing(const std::string& contact, const std::string& codeReply = "42137")
{
    AgentScript script;
    script.contactReplies[contact] = "1";
    script.codeReply = codeReply;
    return script;
}

AgentScript ContactCheckFails()
{
    AgentScript script;
    script.contactReplies[kMail] = "3";
    return script;
}

class ServiceMode : public testing::Test {
protected:
    void SetUp() override { SyslogCapture::Instance().Take(); }

    /// The log since SetUp, which must never hold the code.
    static std::vector<std::string> Log()
    {
        std::vector<std::string> lines = SyslogCapture::Instance().Take();
        for (const std::string& line : lines) {
            EXPECT_EQ(line.find("42137"), std::string::npos) << "code in the log: " << line;
        }
        return lines;
    }

    /// True when a line names the user and the remote host and says `what`.
    static bool Logged(const std::vector<std::string>& lines, const std::string& user, const std::string& what)
    {
        for (const std::string& line : lines) {
            if (line.find("pam_brackmoor") != std::string::npos &&
                line.find("user=" + user + " rhost=203.0.113.7 ") != std::string::npos &&
                line.find(what) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
};

bool Contains(const std::vector<std::string>& lines, const std::string& fragment)
{
    for (const std::string& line : lines) {
        if (line.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

class ServiceModeEcho : public ServiceMode, public testing::WithParamInterface<bool> {};

TEST_P(ServiceModeEcho, ListedContactAndIssuedCodeLogIn)
{
    const bool echo = GetParam();
    FakeAgent agent(Listing(kPhone));
    ASSERT_TRUE(agent.Bound());
    // The issued code was 042137; the agent's reply has lost the leading zero.
    ScriptedUser alice({" 0049 (151) 1234-5678 ", " 042137 "});

    ASSERT_EQ(Authenticate(std::string("echo=") + (echo ? "1" : "0") + " local=0", "alice", alice), PAM_SUCCESS);

    const std::vector<std::string> requests = agent.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], std::string("1:") + kPhone);
    ASSERT_EQ(requests[1].size(), 8u);
    const std::string reference = requests[1].substr(2);
    EXPECT_EQ(requests[1].substr(0, 2), "2:");
    EXPECT_GE(std::stoi(reference), 100000);
    EXPECT_TRUE(alice.Saw("Login reference: " + reference));

    const std::vector<Message> prompts = alice.Prompts();
    ASSERT_EQ(prompts.size(), 2u);
    EXPECT_EQ(prompts[0].style, PAM_PROMPT_ECHO_ON);
    EXPECT_EQ(prompts[0].text, "Phone number or mail address: ");
    EXPECT_EQ(prompts[1].style, echo ? PAM_PROMPT_ECHO_ON : PAM_PROMPT_ECHO_OFF);
    EXPECT_EQ(prompts[1].text, "Verification code for login reference " + reference + ": ");
    if (SyslogCapture::Instance().Available()) {
        EXPECT_TRUE(Logged(Log(), "alice", "second factor accepted"));
    }
}

INSTANTIATE_TEST_SUITE_P(EchoOffAndOn, ServiceModeEcho, testing::Bool());

TEST_F(ServiceMode, MailAddressIsSentLowerCased)
{
    FakeAgent agent(Listing(kMail));
    ASSERT_TRUE(agent.Bound());
    ScriptedUser alice({"  Alice@Example.COM\t", "42137"});
    EXPECT_EQ(Authenticate(kArguments, "alice", alice), PAM_SUCCESS);
    EXPECT_EQ(agent.Requests().at(0), std::string("1:") + kMail);
}

TEST_F(ServiceMode, UnregisteredContactsMayBeRetriedAndInvalidOnesAreNotSent)
{
    FakeAgent agent(Listing(kMail));
    ASSERT_TRUE(agent.Bound());
    ScriptedUser alice({"no contact at all", "bob@example.org", kMail, "999999", "042137"});

    EXPECT_EQ(Authenticate(kArguments, "alice", alice), PAM_SUCCESS);

    EXPECT_TRUE(alice.Saw("is not registered for this server"));
    EXPECT_TRUE(alice.Saw("Wrong verification code."));
    const std::vector<std::string> requests = agent.Requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], "1:bob@example.org");
}

struct FailureCase {
    const char* name;
    AgentScript script;
    bool agentRunning;
    std::vector<std::string> answers;
    int failAtPrompt;
    int expected;
    const char* toldUser;
    const char* logged;
};

class ServiceModeFailure : public ServiceMode, public testing::WithParamInterface<FailureCase> {};

TEST_P(ServiceModeFailure, FailsClosed)
{
    const FailureCase& c = GetParam();
    std::unique_ptr<FakeAgent> agent;
    if (c.agentRunning) {
        agent = std::make_unique<FakeAgent>(c.script);
        ASSERT_TRUE(agent->Bound());
    }
    ScriptedUser alice(c.answers, c.failAtPrompt);

    EXPECT_EQ(Authenticate(std::string(kArguments) + " timeout_ms=300", "alice", alice), c.expected);

    EXPECT_TRUE(alice.Saw(c.toldUser)) << "user was not told: " << c.toldUser;
    if (SyslogCapture::Instance().Available()) {
        EXPECT_TRUE(Logged(Log(), "alice", c.logged)) << "not logged: " << c.logged;
    }
}

AgentScript Silent()
{
    AgentScript script = Listing(kMail);
    script.silent = true;
    return script;
}

const FailureCase kFailures[] = {
    {"ThreeUnregisteredContacts", Listing(kPhone), true, {kMail, kMail, kMail}, -1, PAM_MAXTRIES,
     "Too many failed attempts", "3 unregistered contacts"},
    {"ThreeWrongCodes", Listing(kMail), true, {kMail, "1", "042138", "4213"}, -1, PAM_MAXTRIES,
     "Too many failed attempts", "3 wrong verification codes"},
    {"ContactCheckError", ContactCheckFails(), true, {kMail}, -1, PAM_AUTHINFO_UNAVAIL,
     "verification service is unavailable", "the agent could not check the contact"},
    {"NoCodeIssued", Listing(kMail, "3"), true, {kMail, "3"}, -1, PAM_AUTHINFO_UNAVAIL,
     "No verification code could be issued", "could not obtain a verification code"},
    {"UnreadableCodeReply", Listing(kMail, "42137 "), true, {kMail, "42137"}, -1, PAM_AUTHINFO_UNAVAIL,
     "No verification code could be issued", "could not obtain a verification code"},
    {"AgentNotRunning", {}, false, {kMail}, -1, PAM_AUTHINFO_UNAVAIL, "verification service is unavailable",
     "the agent is not running"},
    {"AgentNeverAnswers", Silent(), true, {kMail}, -1, PAM_AUTHINFO_UNAVAIL,
     "verification service is unavailable", "no reply within 300 ms"},
    {"ConversationFailsAtContact", Listing(kMail), true, {kMail}, 0, PAM_CONV_ERR, "Phone number",
     "conversation failed at the contact prompt"},
    {"ConversationFailsAtCode", Listing(kMail), true, {kMail, "42137"}, 1, PAM_CONV_ERR, "Verification code",
     "conversation failed at the verification code prompt"},
    {"EmptyContact", Listing(kMail), true, {" \t"}, -1, PAM_AUTH_ERR, "Phone number", "empty answer"},
    {"EmptyCode", Listing(kMail), true, {kMail, ""}, -1, PAM_AUTH_ERR, "Verification code", "empty answer"},
};

INSTANTIATE_TEST_SUITE_P(Cases, ServiceModeFailure, testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<FailureCase>& param) { return param.param.name; });

// sshd shows a message only together with a prompt: a refusal must come with one.
TEST_F(ServiceMode, RefusalReachesTheUserTogetherWithAClosingPrompt)
{
    ScriptedUser alice({kMail, ""});
    EXPECT_EQ(Authenticate(std::string(kArguments) + " timeout_ms=300", "alice", alice), PAM_AUTHINFO_UNAVAIL);
    const std::vector<Message>& seen = alice.Seen();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[seen.size() - 2].style, PAM_ERROR_MSG);
    EXPECT_EQ(seen[seen.size() - 2].text,
              "The verification service is unavailable; login refused. Please try again later.");
    EXPECT_EQ(seen.back().style, PAM_PROMPT_ECHO_ON);
    EXPECT_EQ(seen.back().text, kClosingPrompt);
}

TEST_F(ServiceMode, RepliesFromAnImpostorThatIsNotRootAreIgnored)
{
    ImpostorAgent impostor;
    ASSERT_TRUE(impostor.Ready());
    ScriptedUser alice({kMail, "42137"});

    EXPECT_EQ(Authenticate(std::string(kArguments) + " timeout_ms=300", "alice", alice), PAM_AUTHINFO_UNAVAIL);

    EXPECT_GE(impostor.Answered(), 1) << "the impostor must have been asked, or this proves nothing";
    ASSERT_EQ(alice.Prompts().size(), 2u) << "the contact, then the prompt closing the refusal";
    EXPECT_EQ(alice.Prompts()[1].text, kClosingPrompt);
    if (SyslogCapture::Instance().Available()) {
        EXPECT_TRUE(Logged(Log(), "alice", "last sender uid 65534"));
    }
}

TEST_F(ServiceMode, ExcludedUserPassesWithoutAQuestion)
{
    ScriptedUser root({});
    EXPECT_EQ(Authenticate(kArguments, "root", root), PAM_SUCCESS);
    EXPECT_TRUE(root.Seen().empty());
    ScriptedUser rooted({});
    EXPECT_NE(Authenticate(kArguments, "root2", rooted), PAM_SUCCESS);
    if (SyslogCapture::Instance().Available()) {
        EXPECT_TRUE(Logged(Log(), "root", "user is excluded"));
    }
}

TEST_F(ServiceMode, MalformedArgumentsAreLoggedAndIgnored)
{
    FakeAgent agent(Listing(kMail));
    ASSERT_TRUE(agent.Bound());
    ScriptedUser alice({kMail, "42137"});

    EXPECT_EQ(Authenticate("echo=yes local= timeout_ms=5 refresh_time=x debug exclude_user_list=;;", "alice", alice),
              PAM_SUCCESS);

    ASSERT_EQ(alice.Prompts().size(), 2u);
    EXPECT_EQ(alice.Prompts()[1].style, PAM_PROMPT_ECHO_OFF);
    if (SyslogCapture::Instance().Available()) {
        const std::vector<std::string> log = Log();
        EXPECT_TRUE(Logged(log, "alice", "second factor accepted"));
        EXPECT_TRUE(Contains(log, "unknown argument \"debug\" ignored"));
        EXPECT_TRUE(Contains(log, "malformed argument \"echo=yes\" ignored"));
    }
}

} // namespace
} // namespace brackmoor::pam::test
