// Pure parts of the module: argument and reply parsing, code comparison,
// TOTP checking against the published test vectors, enrolment URIs.

#include "AgentReply.h"
#include "CodeCompare.h"
#include "ModuleOptions.h"
#include "OtpAuthUri.h"
#include "TotpCheck.h"
#include "TotpStore.h"

#include <gtest/gtest.h>
#include <tuple>

namespace brackmoor::pam {
namespace {

ModuleOptions Parse(std::vector<const char*> args)
{
    return ParseModuleOptions(static_cast<int>(args.size()), args.data());
}

TEST(ModuleOptions, ReadsTheAgentsIncludeLine)
{
    const ModuleOptions o = Parse({"refresh_time=301", "echo=1", nullptr, "local=1", "exclude_user_list=;u1;;u2;"});
    EXPECT_EQ(o.refreshTime, 301);
    EXPECT_TRUE(o.echoCode);
    EXPECT_TRUE(o.localMode);
    EXPECT_EQ(o.excludedUsers, (std::vector<std::string>{"u1", "u2"}));
    EXPECT_EQ(o.replyTimeoutMs, kDefaultReplyTimeoutMs);
    EXPECT_TRUE(o.problems.empty());
    EXPECT_TRUE(o.IsExcluded("u2"));
    for (const char* other : {"U2", "u", "u22", ""}) {
        EXPECT_FALSE(o.IsExcluded(other)) << other;
    }
    EXPECT_EQ(Parse({"timeout_ms=100"}).replyTimeoutMs, 100);
}

TEST(ModuleOptions, BadArgumentsAreReportedAndLeaveTheSafeDefaults)
{
    for (const char* arg : {"echo=2", "echo=", "echo=1x", "local=-1", "local=99999999999", "timeout_ms=99",
                            "timeout_ms=60001", "refresh_time=1e3", "debug", "ECHO=1", "\x01\xff"}) {
        const ModuleOptions o = Parse({arg});
        EXPECT_FALSE(o.echoCode || o.localMode) << arg;
        EXPECT_EQ(o.replyTimeoutMs, kDefaultReplyTimeoutMs) << arg;
        EXPECT_EQ(o.problems.size(), 1u) << arg;
    }
}

// Also fuzzed (pam/fuzz), with the rules that whatever parses prints back as
// the input, and that no code is 3 or longer than nine digits.
TEST(AgentReply, AcceptsExactlyWhatPercentDWrites)
{
    using Bytes = std::string;
    const std::pair<Bytes, std::optional<std::int32_t>> cases[] = {
        {Bytes("1\0", 2), 1}, {Bytes("42137\0", 6), 42137}, {"42137", 42137}, {Bytes("0\0", 2), 0},
        {Bytes("-5\0", 3), -5}, {Bytes("2147483647\0", 11), INT32_MAX}, {Bytes("-2147483648\0", 12), INT32_MIN},
        {Bytes("2147483648\0", 11), std::nullopt}, {Bytes("01\0", 3), std::nullopt}, {Bytes("-0\0", 3), std::nullopt},
        {Bytes("\0", 1), std::nullopt}, {"", std::nullopt}, {Bytes("1\0\0", 3), std::nullopt},
        {Bytes(" 1\0", 3), std::nullopt}, {Bytes("1:2\0", 4), std::nullopt}, {Bytes("+1\0", 3), std::nullopt},
    };
    for (const auto& [bytes, value] : cases) {
        EXPECT_EQ(ParseReplyNumber(bytes.data(), bytes.size()), value) << bytes;
    }
}

TEST(CodeCompare, TypedCodesMatchTheIssuedNumberWhateverTheLeadingZeros)
{
    const std::tuple<const char*, std::uint32_t, bool> cases[] = {
        {"042137", 42137, true},   {"42137", 42137, true},   {" 042137\r\n", 42137, true},
        {"000000", 0, true},       {"0", 0, true},           {"999999999", 999999999, true},
        {"042138", 42137, false},  {"4213", 42137, false},   {"421370", 42137, false},
        {"", 0, false},            {"  ", 0, false},         {"0000000000", 0, false},
        {"04 2137", 42137, false}, {"-42137", 42137, false}, {"+42137", 42137, false}, {"١٢٣", 123, false},
    };
    for (const auto& [typed, issued, match] : cases) {
        EXPECT_EQ(TypedCodeMatches(typed, issued), match) << typed << " vs " << issued;
    }
}

TEST(TotpCheck, MatchesThePublishedVectorsWithinOneStepAndOnlyOnce)
{
    // RFC 6238, appendix B, SHA-1 key "12345678901234567890", last six digits.
    const char* secret = "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ";
    constexpr std::time_t t = 1111111109; // a vector's time; its step is s
    constexpr std::uint64_t s = 37037036;
    using V = TotpVerdict;
    // now, typed, last accepted step; verdict, step of the typed code
    const std::tuple<std::time_t, const char*, std::uint64_t, V, std::uint64_t> cases[] = {
        {59, "287082", 0, V::Accepted, 1},      {2000000000, "279037", 0, V::Accepted, 66666666},
        {t, "081804", 0, V::Accepted, s},       {t, " 081804\n", 0, V::Accepted, s},
        {t + 30, "081804", 0, V::Accepted, s},  {t - 30, "081804", 0, V::Accepted, s},
        {t + 60, "081804", 0, V::Wrong, 0},     {t - 60, "081804", 0, V::Wrong, 0},
        {t, "81804", 0, V::Wrong, 0},           {t, "081805", 0, V::Wrong, 0},
        {t, "081804", s, V::Reused, s},         {t, "081804", s + 1, V::Reused, s},
        {t, "081804", s - 1, V::Accepted, s},
    };
    for (const auto& [now, typed, lastStep, verdict, step] : cases) {
        const TotpResult r = CheckTotp(secret, now, typed, lastStep);
        EXPECT_EQ(r.verdict, verdict) << now << " " << typed << " " << lastStep;
        EXPECT_EQ(r.step, step) << now << " " << typed << " " << lastStep;
    }
    EXPECT_EQ(CheckTotp("not base32!", 59, "287082", 0).verdict, TotpVerdict::BadSecret);
}

TEST(TotpStore, UserNamesThatCannotEscapeTheDirectory)
{
    for (const char* good : {"alice", "a.b-c_d", "svc$", "user@REALM", "9lives"}) {
        EXPECT_TRUE(IsStorableUserName(good)) << good;
    }
    for (const std::string& bad : std::vector<std::string>{"", ".", "..", ".hidden", "-rf", "a/b", "../etc", "a b",
                                                            "a\nb", "ä", std::string(256, 'a')}) {
        EXPECT_FALSE(IsStorableUserName(bad)) << bad;
    }
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
