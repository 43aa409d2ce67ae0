// Pure parts of the module: argument and reply parsing, code comparison,
// TOTP checking against the published test vectors, enrolment URIs.

#include "AgentReply.h"
#include "CodeCompare.h"
#include "ModuleOptions.h"
#include "OtpAuthUri.h"
#include "TotpCheck.h"
#include "TotpStore.h"

#include <gtest/gtest.h>

namespace brackmoor::pam {
namespace {

ModuleOptions Parse(std::vector<const char*> args)
{
    return ParseModuleOptions(static_cast<int>(args.size()), args.data());
}

TEST(ModuleOptions, ReadsTheAgentsIncludeLine)
{
    const ModuleOptions o = Parse({"refresh_time=301", "echo=1", "local=0", "exclude_user_list=u1;u2"});
    EXPECT_EQ(o.refreshTime, 301);
    EXPECT_TRUE(o.echoCode);
    EXPECT_FALSE(o.localMode);
    EXPECT_EQ(o.excludedUsers, (std::vector<std::string>{"u1", "u2"}));
    EXPECT_EQ(o.replyTimeoutMs, kDefaultReplyTimeoutMs);
    EXPECT_TRUE(o.problems.empty());
    EXPECT_TRUE(o.IsExcluded("u2"));
    EXPECT_FALSE(o.IsExcluded("U2"));
    EXPECT_FALSE(o.IsExcluded(""));
}

TEST(ModuleOptions, DefaultsAreHiddenCodesAndTheService)
{
    const ModuleOptions o = Parse({});
    EXPECT_FALSE(o.echoCode);
    EXPECT_FALSE(o.localMode);
    EXPECT_TRUE(o.excludedUsers.empty());
}

TEST(ModuleOptions, BadArgumentsAreReportedAndLeaveSafeSettings)
{
    struct Case {
        const char* arg;
        bool echo;
        bool local;
        int timeout;
    };
    const Case cases[] = {
        {"echo=2", false, false, kDefaultReplyTimeoutMs},     {"echo=", false, false, kDefaultReplyTimeoutMs},
        {"echo=1x", false, false, kDefaultReplyTimeoutMs},    {"local=-1", false, false, kDefaultReplyTimeoutMs},
        {"local=99999999999", false, false, kDefaultReplyTimeoutMs},
        {"timeout_ms=99", false, false, kDefaultReplyTimeoutMs}, {"timeout_ms=60001", false, false, kDefaultReplyTimeoutMs},
        {"refresh_time=1e3", false, false, kDefaultReplyTimeoutMs}, {"debug", false, false, kDefaultReplyTimeoutMs},
        {"ECHO=1", false, false, kDefaultReplyTimeoutMs},     {"\x01\xff", false, false, kDefaultReplyTimeoutMs},
    };
    for (const Case& c : cases) {
        const ModuleOptions o = Parse({c.arg});
        EXPECT_EQ(o.echoCode, c.echo) << c.arg;
        EXPECT_EQ(o.localMode, c.local) << c.arg;
        EXPECT_EQ(o.replyTimeoutMs, c.timeout) << c.arg;
        EXPECT_EQ(o.problems.size(), 1u) << c.arg;
    }
    EXPECT_EQ(Parse({"timeout_ms=100"}).replyTimeoutMs, 100);
    EXPECT_EQ(Parse({"exclude_user_list=;a;;b;"}).excludedUsers, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(Parse({"local=1"}).localMode);
    EXPECT_TRUE(Parse({nullptr, "echo=1"}).echoCode);
}

TEST(AgentReply, AcceptsExactlyWhatPercentDWrites)
{
    struct Case {
        std::string bytes;
        std::optional<std::int32_t> value;
    };
    const Case cases[] = {
        {std::string("1\0", 2), 1},
        {std::string("42137\0", 6), 42137},
        {"42137", 42137},
        {std::string("0\0", 2), 0},
        {std::string("-5\0", 3), -5},
        {std::string("2147483647\0", 11), 2147483647},
        {std::string("-2147483648\0", 12), INT32_MIN},
        {std::string("2147483648\0", 11), std::nullopt},
        {std::string("01\0", 3), std::nullopt},
        {std::string("-0\0", 3), std::nullopt},
        {std::string("\0", 1), std::nullopt},
        {"", std::nullopt},
        {std::string("1\0\0", 3), std::nullopt},
        {std::string(" 1\0", 3), std::nullopt},
        {std::string("1:2\0", 4), std::nullopt},
        {std::string("+1\0", 3), std::nullopt},
        {std::string("123456789012\0", 13), std::nullopt},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ParseReplyNumber(c.bytes.data(), c.bytes.size()), c.value) << c.bytes;
    }
}

TEST(AgentReply, ThreeAndNegativeRepliesCarryNoCode)
{
    EXPECT_EQ(InterpretCodeReply(3), std::nullopt);
    EXPECT_EQ(InterpretCodeReply(-42137), std::nullopt);
    EXPECT_EQ(InterpretCodeReply(1000000000), std::nullopt);
    EXPECT_EQ(InterpretCodeReply(std::nullopt), std::nullopt);
    EXPECT_EQ(InterpretCodeReply(0), 0u);
    EXPECT_EQ(InterpretCodeReply(42137), 42137u);
    EXPECT_EQ(InterpretContactReply(1), ContactVerdict::Listed);
    EXPECT_EQ(InterpretContactReply(2), ContactVerdict::NotListed);
    EXPECT_EQ(InterpretContactReply(0), ContactVerdict::Error);
    EXPECT_EQ(InterpretContactReply(std::nullopt), ContactVerdict::Error);
}

TEST(CodeCompare, TypedCodesMatchTheIssuedNumberWhateverTheLeadingZeros)
{
    struct Case {
        const char* typed;
        std::uint32_t issued;
        bool match;
    };
    const Case cases[] = {
        {"042137", 42137, true},    {"42137", 42137, true},       {" 042137\r\n", 42137, true},
        {"000000", 0, true},        {"0", 0, true},               {"999999999", 999999999, true},
        {"042138", 42137, false},   {"4213", 42137, false},       {"421370", 42137, false},
        {"", 0, false},             {"  ", 0, false},             {"0000000000", 0, false},
        {"04 2137", 42137, false},  {"-42137", 42137, false},     {"42137x", 42137, false},
        {"+42137", 42137, false},   {"١٢٣", 123, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(TypedCodeMatches(c.typed, c.issued), c.match) << c.typed << " vs " << c.issued;
    }
}

// RFC 6238, appendix B, SHA-1 key "12345678901234567890", last six digits.
constexpr char kRfcSecret[] = "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ";

TEST(TotpCheck, MatchesThePublishedVectorsWithinOneStepAndOnlyOnce)
{
    struct Case {
        std::time_t now;
        const char* typed;
        std::uint64_t lastStep;
        TotpVerdict verdict;
        std::uint64_t step;
    };
    const Case cases[] = {
        {59, "287082", 0, TotpVerdict::Accepted, 1},
        {1111111109, "081804", 0, TotpVerdict::Accepted, 37037036},
        {1111111109 + 30, "081804", 0, TotpVerdict::Accepted, 37037036},
        {1111111109 - 30, "081804", 0, TotpVerdict::Accepted, 37037036},
        {1111111109 + 60, "081804", 0, TotpVerdict::Wrong, 0},
        {1111111109 - 60, "081804", 0, TotpVerdict::Wrong, 0},
        {1111111109, " 081804\n", 0, TotpVerdict::Accepted, 37037036},
        {1111111109, "81804", 0, TotpVerdict::Wrong, 0},
        {1111111109, "081805", 0, TotpVerdict::Wrong, 0},
        {1111111109, "081804", 37037036, TotpVerdict::Reused, 37037036},
        {1111111109, "081804", 37037037, TotpVerdict::Reused, 37037036},
        {1111111109, "081804", 37037035, TotpVerdict::Accepted, 37037036},
        {2000000000, "279037", 0, TotpVerdict::Accepted, 66666666},
    };
    for (const Case& c : cases) {
        const TotpResult r = CheckTotp(kRfcSecret, c.now, c.typed, c.lastStep);
        EXPECT_EQ(r.verdict, c.verdict) << c.now << " " << c.typed;
        EXPECT_EQ(r.step, c.step) << c.now << " " << c.typed;
    }
    EXPECT_EQ(CheckTotp("not base32!", 59, "287082", 0).verdict, TotpVerdict::BadSecret);
}

TEST(TotpStore, UserNamesThatCannotEscapeTheDirectory)
{
    for (const char* good : {"alice", "a.b-c_d", "svc$", "user@REALM", "9lives"}) {
        EXPECT_TRUE(IsStorableUserName(good)) << good;
    }
    for (const char* bad : {"", ".", "..", ".hidden", "-rf", "a/b", "../etc", "a b", "a\nb", "ä"}) {
        EXPECT_FALSE(IsStorableUserName(bad)) << bad;
    }
    EXPECT_FALSE(IsStorableUserName(std::string(256, 'a')));
}

TEST(OtpAuthUri, EncodesIssuerAndAccount)
{
    EXPECT_EQ(MakeOtpAuthUri("Brackmoor", "alice@web 1", "JBSWY3DPEHPK3PXP===="),
              "otpauth://totp/Brackmoor:alice%40web%201?secret=JBSWY3DPEHPK3PXP&issuer=Brackmoor"
              "&algorithm=SHA1&digits=6&period=30");
    EXPECT_EQ(PercentEncode("a&b=c:d~"), "a%26b%3Dc%3Ad~");
}

} // namespace
} // namespace brackmoor::pam
