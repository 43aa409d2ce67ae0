#pragma once

#include "OtpRecord.h"

#include <cstdint>
#include <ctime>
#include <string>

namespace brackmoor::pam {

/// Counter values a hardware token may have moved past the expected one
/// (presses that never reached a login).
constexpr std::uint64_t kHotpLookAhead = 10;

/// Verdict on one typed code.
enum class OtpVerdict {
    Accepted,  ///< the code of a step (counter) that may be used now
    Reused,    ///< TOTP: the code of a step in the window at or before the last accepted one
    Wrong,     ///< no usable step or counter has this code
    BadSecret, ///< the stored secret is not valid base32
};

struct OtpResult {
    OtpVerdict verdict = OtpVerdict::Wrong;
    /// The TOTP step or HOTP counter whose code was typed (Accepted and Reused).
    std::uint64_t step = 0;
    /// TOTP: the typed code's distance in steps from the expected step, when
    /// it is the code of a step within ±kMaxOffsetSteps of it (0 otherwise);
    /// codes outside the window are Wrong but still tell of clock skew.
    int skew = 0;
};

/// Checks `typed` against the codes of the steps around `now`, shifted by the
/// user's clock offset. Every step in reach is computed and compared in
/// constant time, so the time taken says nothing about the answer.
OtpResult CheckTotp(const std::string& base32Secret, const OtpParameters& parameters, std::time_t now,
                    int offset, const std::string& typed, std::uint64_t lastStep);

/// Checks `typed` against the codes of counters `counter` to `counter` + kHotpLookAhead.
OtpResult CheckHotp(const std::string& base32Secret, const OtpParameters& parameters, std::uint64_t counter,
                    const std::string& typed);

} // namespace brackmoor::pam
