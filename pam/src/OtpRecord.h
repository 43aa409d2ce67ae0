#pragma once

#include "SecretString.h"

#include <cstdint>
#include <string>
#include <vector>

namespace brackmoor::pam {

/// How a user's codes are made, chosen at enrolment.
enum class OtpKind {
    Totp, ///< time-based: the moving factor is the current time step
    Hotp, ///< counter-based (hardware tokens): the token's press counter
};

enum class OtpAlgorithm { Sha1, Sha256, Sha512 };

struct OtpParameters {
    OtpKind kind = OtpKind::Totp;
    OtpAlgorithm algorithm = OtpAlgorithm::Sha1;
    unsigned digits = 6;  ///< 6 or 8
    unsigned period = 30; ///< seconds per step, 30 or 60 (TOTP)
    unsigned window = 1;  ///< steps accepted either side of the expected one, 1 to 4 (TOTP)
};

/// Limits that a record must keep; anything outside is a damaged file.
constexpr int kMaxOffsetSteps = 4;
constexpr std::size_t kRecoveryCodeCount = 10;
constexpr unsigned kMaxWindowSteps = 4;

/// One user's file in the secret store. A record without a secret is not an
/// enrolment: it only counts the failed codes typed for a user who has none,
/// so that such a user is treated exactly like an enrolled one.
struct OtpRecord {
    /// The shared secret, base32 as in the otpauth:// URI; empty: not enrolled.
    SecretString secretBase32;
    OtpParameters parameters;
    /// Shown by the authenticator app next to the account.
    std::string issuer = "Brackmoor";
    /// TOTP: the last step whose code was accepted (0: none yet). A code of
    /// this step or an earlier one is refused, so a code works only once.
    std::uint64_t lastStep = 0;
    /// HOTP: the next counter value the token is expected to show.
    std::uint64_t counter = 0;
    /// TOTP: the user's clock offset in steps, learnt from consistent skew.
    int offset = 0;
    /// TOTP: skew seen in the latest logins (all of one sign), not yet adopted.
    std::vector<int> pendingSkew;
    /// Failed codes counted since `failuresSince` (Unix seconds).
    unsigned failures = 0;
    std::int64_t failuresSince = 0;
    /// Salted hashes (crypt(3)) of the recovery codes not used yet.
    std::vector<std::string> recoveryHashes;

    bool Enrolled() const { return !secretBase32.Text().empty(); }
};

/// The version written by FormatOtpRecord. Files without a version line are
/// version 1 (secret and last_step only, SHA1, 6 digits, 30 s, window 1).
constexpr int kRecordVersion = 2;

/// Reads a file's text; false when it is not a valid record of a known version.
bool ParseOtpRecord(const std::string& text, OtpRecord* record);

/// The file's text in the current version; to be wiped after use (SecretString).
std::string FormatOtpRecord(const OtpRecord& record);

/// "SHA1", "SHA256", "SHA512"; and back, false for anything else.
const char* AlgorithmName(OtpAlgorithm algorithm);
bool ParseAlgorithmName(const std::string& name, OtpAlgorithm* algorithm);

/// An issuer that fits one line of the file and the otpauth URI: 1 to 64
/// printable characters other than ':'.
bool IsValidIssuer(const std::string& issuer);

} // namespace brackmoor::pam
