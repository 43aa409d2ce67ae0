// Pure parts of the module: arguments, code comparison, one-time codes, the secret file, the failure
// limit, clock skew, settings. Each algorithm, period and digit count against oathtool, enrolment URIs
// and recovery codes are pamtester-local.sh's, with the real command and module.

#include "CodeCompare.h"
#include "ModuleOptions.h"
#include "ClockSkew.h"
#include "LocalSettings.h"
#include "OtpCheck.h"
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
    EXPECT_EQ(std::make_tuple(o.refreshTime, o.echoCode, o.localMode, o.problems.size()),
              std::make_tuple(301, true, true, 0u));
    EXPECT_EQ(o.excludedUsers, (std::vector<std::string>{"u1", "u2"}));
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

TEST(CodeCompare, TypedCodesMatchTheIssuedNumberWhateverTheLeadingZeros)
{
    const std::tuple<const char*, std::uint32_t, bool> cases[] = {
        {"042137", 42137, true}, {"42137", 42137, true},  {" 042137\r\n", 42137, true}, {"000000", 0, true},
        {"0", 0, true},          {"999999999", 999999999, true}, {"042138", 42137, false}, {"4213", 42137, false},
        {"421370", 42137, false}, {"", 0, false}, {"  ", 0, false}, {"0000000000", 0, false}, {"04 2137", 42137, false},
        {"-42137", 42137, false}, {"+42137", 42137, false}, {"١٢٣", 123, false},
        {"137", 42137, false}, // a tail of the issued code is not the code
    };
    for (const auto& [typed, issued, match] : cases) {
        EXPECT_EQ(TypedCodeMatches(typed, issued), match) << typed << " vs " << issued;
    }
}

// RFC 6238 appendix B's SHA-1 key; a 6-digit code is the 8-digit one's last six digits.
constexpr char kSha1Key[] = "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ";

TEST(OtpCheck, TimeBasedCodesWithinTheWindowAndOnlyOnce)
{
    constexpr std::time_t t = 1111111109; // a vector's time; its step is s
    constexpr std::uint64_t s = 37037036;
    using V = OtpVerdict;
    constexpr OtpKind T = OtpKind::Totp;
    const OtpParameters sha1{}, sha1x8{T, OtpAlgorithm::Sha1, 8}, wide{T, OtpAlgorithm::Sha1, 6, 30, 3};
    // key, parameters, now, offset, typed, last accepted step; verdict, step, skew
    using Step = std::uint64_t;
    using Row = std::tuple<const char*, OtpParameters, std::time_t, int, const char*, Step, V, Step, int>;
    const Row cases[] = {
        {kSha1Key, sha1x8, 59, 0, "94287082", 0, V::Accepted, 1, 0},
        {kSha1Key, sha1, t, 0, " 081804\n", 0, V::Accepted, s, 0},
        {kSha1Key, sha1, t + 30, 0, "081804", 0, V::Accepted, s, -1},
        {kSha1Key, sha1, t - 30, 0, "081804", 0, V::Accepted, s, 1},
        {kSha1Key, sha1, t + 60, 0, "081804", 0, V::Wrong, 0, -2},
        {kSha1Key, sha1, t - 60, 0, "081804", 0, V::Wrong, 0, 2},
        {kSha1Key, sha1, t - 150, 0, "081804", 0, V::Wrong, 0, 0},
        {kSha1Key, wide, t - 90, 0, "081804", 0, V::Accepted, s, 3},
        {kSha1Key, sha1, t - 90, 2, "081804", 0, V::Accepted, s, 1}, // a learnt offset moves the window
        {kSha1Key, sha1, t, 0, "81804", 0, V::Wrong, 0, 0},
        {kSha1Key, sha1, t, 0, "081805", 0, V::Wrong, 0, 0},
        {kSha1Key, sha1, t, 0, "081804", s, V::Reused, s, 0},
        {kSha1Key, sha1, t, 0, "081804", s + 1, V::Reused, s, 0},
        {kSha1Key, sha1, t, 0, "081804", s - 1, V::Accepted, s, 0},
        {"not base32!", sha1, 59, 0, "287082", 0, V::BadSecret, 0, 0},
    };
    for (const auto& [key, parameters, now, offset, typed, lastStep, verdict, step, skew] : cases) {
        const OtpResult r = CheckTotp(key, parameters, now, offset, typed, lastStep);
        EXPECT_EQ(std::make_tuple(r.verdict, r.step, r.skew), std::make_tuple(verdict, step, skew)) << now << typed;
    }
}

TEST(OtpRecord, ReadsFilesOfBothVersionsAndRefusesDamagedOnes)
{
    OtpRecord v1;
    ASSERT_TRUE(ParseOtpRecord("secret=JBSWY3DPEHPK3PXP\nlast_step=17\n", &v1));
    EXPECT_EQ(std::make_tuple(v1.secretBase32.Text(), v1.lastStep, v1.parameters.digits, v1.parameters.period,
                              v1.parameters.window, v1.issuer),
              std::make_tuple(std::string("JBSWY3DPEHPK3PXP"), 17u, 6u, 30u, 1u, std::string("Brackmoor")));

    const std::string full = "version=2\nkind=hotp\nsecret=JBSWY3DPEHPK3PXP\nalgorithm=SHA512\ndigits=8\nperiod=60\n"
                             "window=4\nissuer=ACME Ops\nlast_step=3\ncounter=9\noffset=-4\nskew=2,3\nfailures=3\n"
                             "failures_since=1700000000\nrecovery=$y$a\nrecovery=$y$b\n";
    OtpRecord back;
    ASSERT_TRUE(ParseOtpRecord(full, &back));
    EXPECT_EQ(FormatOtpRecord(back), full);

    const std::string v2 = "version=2\nsecret=JBSWY3DPEHPK3PXP\n";
    for (const std::string& bad : std::vector<std::string>{"last_step=1\n", "secret=A\ndigits=8\n", "secret=\n",
                                   "x=1\n", "version=3\n", v2 + "digits=7\n", v2 + "period=45\n", v2 + "window=5\n",
                                   v2 + "offset=5\n", v2 + "skew=1,-1\n", v2 + "skew=1,2,3\n", v2 + "kind=motp\n",
                                   v2 + "algorithm=MD5\n", v2 + "issuer=a:b\n", v2 + "counter=-1\n"}) {
        OtpRecord record;
        EXPECT_FALSE(ParseOtpRecord(bad, &record)) << bad;
    }
}

TEST(Throttle, LocksAfterTheLimitWithinTheWindowUntilItPasses)
{
    const Throttle throttle{3, 300};
    OtpRecord record;
    const std::pair<std::int64_t, std::int64_t> failuresAndLock[] = {{1000, 0}, {1100, 0}, {1200, 100}, {1250, 50}};
    for (const auto& [now, locked] : failuresAndLock) {
        if (throttle.LockedFor(record, now) == 0) {
            throttle.CountFailure(&record, now);
        }
        EXPECT_EQ(throttle.LockedFor(record, now), locked) << now;
    }
    EXPECT_EQ(throttle.LockedFor(record, 1300), 0);
    EXPECT_EQ(throttle.LockedFor(record, 0), 300); // a clock set back locks one window at most
    throttle.CountFailure(&record, 1301);          // the old window has passed: counting starts again
    EXPECT_EQ(record.failures, 1u);
}

TEST(ClockSkew, ThreeLoginsOffTheSameWayMoveTheOffsetBySteps)
{
    // skew per login; offset after each
    const std::vector<std::pair<std::vector<int>, std::vector<int>>> cases = {
        {{2, 3, 2}, {0, 0, 2}}, {{-1, -4, -2}, {0, 0, -1}}, {{2, 0, 2, 2}, {0, 0, 0, 0}},
        {{2, -2, 2, 2}, {0, 0, 0, 0}}, {{4, 4, 4, 3, 3, 3}, {0, 0, 4, 4, 4, 4}},
    };
    for (const auto& [skews, offsets] : cases) {
        OtpRecord record;
        for (std::size_t i = 0; i < skews.size(); ++i) {
            NoteClockSkew(&record, skews[i]);
            EXPECT_EQ(record.offset, offsets[i]) << "login " << i;
        }
    }
}

TEST(LocalSettings, ReadsKnownKeysAndKeepsDefaultsForBadOnes)
{
    LocalSettings settings;
    settings.Parse("# rollout\n allow_unenrolled = 1 \nmax_failures=10 # fewer\nfailure_window = 600\n");
    EXPECT_EQ(std::make_tuple(settings.allowUnenrolled, settings.throttle.maxFailures, settings.throttle.windowSeconds,
                              settings.problems.size()), std::make_tuple(true, 10u, 600u, 0u));
    LocalSettings bad;
    bad.Parse("allow_unenrolled=yes\nmax_failures=0\nfailure_window=59\nlockout=1\nmax_failures\n");
    EXPECT_EQ(std::make_tuple(bad.allowUnenrolled, bad.throttle.maxFailures, bad.throttle.windowSeconds,
                              bad.problems.size()), std::make_tuple(false, 5u, 300u, 5u));
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

} // namespace
} // namespace brackmoor::pam
