#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace brackmoor::pam {

/// Time-based one-time passwords as authenticator apps make them: HMAC-SHA1,
/// 30-second steps counted from the Unix epoch, 6 digits.
constexpr unsigned kTotpStepSeconds = 30;
constexpr unsigned kTotpDigits = 6;
/// Steps accepted on either side of the current one, for clock drift and
/// for the time the user takes to type.
constexpr unsigned kTotpWindowSteps = 1;

/// Verdict on one typed authenticator code.
enum class TotpVerdict {
    Accepted,  ///< the code of a step in the window after the last accepted one
    Reused,    ///< the code of a step in the window that is not after the last accepted one
    Wrong,     ///< no step in the window has this code (or it is not 6 digits)
    BadSecret, ///< the stored secret is not valid base32
};

struct TotpResult {
    TotpVerdict verdict = TotpVerdict::Wrong;
    /// The step whose code was typed (Accepted and Reused only).
    std::uint64_t step = 0;
};

/// Checks `typed` against the codes of the steps around `now`, each compared
/// in constant time. Steps at or before `lastStep` count as used.
TotpResult CheckTotp(const std::string& base32Secret, std::time_t now, const std::string& typed,
                     std::uint64_t lastStep);

} // namespace brackmoor::pam
