#include "OtpCheck.h"

#include "CodeCompare.h"
#include "SecretString.h"

#include <liboath/oath.h>
#include <stdlib.h>

namespace brackmoor::pam {
namespace {

constexpr std::size_t kMaxDigits = 8;

/// The decoded secret, wiped and freed when it goes out of scope.
class DecodedSecret {
public:
    explicit DecodedSecret(const std::string& base32)
    {
        if (oath_base32_decode(base32.data(), base32.size(), &bytes_, &size_) != OATH_OK) {
            bytes_ = nullptr;
            size_ = 0;
        }
    }
    ~DecodedSecret()
    {
        WipeBytes(bytes_, size_);
        free(bytes_);
    }
    DecodedSecret(const DecodedSecret&) = delete;
    DecodedSecret& operator=(const DecodedSecret&) = delete;

    bool Valid() const { return bytes_ != nullptr && size_ > 0; }
    const char* Bytes() const { return bytes_; }
    std::size_t Size() const { return size_; }

private:
    char* bytes_ = nullptr;
    std::size_t size_ = 0;
};

int AlgorithmFlags(OtpAlgorithm algorithm)
{
    switch (algorithm) {
    case OtpAlgorithm::Sha256:
        return OATH_TOTP_HMAC_SHA256;
    case OtpAlgorithm::Sha512:
        return OATH_TOTP_HMAC_SHA512;
    case OtpAlgorithm::Sha1:
        break;
    }
    return 0;
}

/// True when `code` is the code of moving factor `factor`. HOTP and TOTP
/// differ only in the factor (RFC 6238 is RFC 4226 over the step number), so
/// both go through the TOTP generator with one-second steps, which is the
/// one that offers the SHA-2 variants.
bool FactorHasCode(const DecodedSecret& secret, const OtpParameters& parameters, std::uint64_t factor,
                   const char* code)
{
    char expected[kMaxDigits + 1] = {};
    const bool made = oath_totp_generate2(secret.Bytes(), secret.Size(), static_cast<time_t>(factor), 1, 0,
                                          parameters.digits, AlgorithmFlags(parameters.algorithm),
                                          expected) == OATH_OK;
    const bool equal = made && ConstantTimeEqual(expected, code, parameters.digits);
    WipeBytes(expected, sizeof expected);
    return equal;
}

/// Decodes the secret and finds the typed digits; the verdict when either fails.
class Attempt {
public:
    Attempt(const std::string& base32Secret, const OtpParameters& parameters, const std::string& typed)
        : ready_(oath_init() == OATH_OK), secret_(base32Secret), typed_(typed)
    {
        std::size_t count = 0;
        digits_ = FindTypedDigits(typed, kMaxDigits, &begin_, &count) && count == parameters.digits;
    }
    ~Attempt()
    {
        if (ready_) {
            oath_done();
        }
    }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    bool SecretUsable() const { return ready_ && secret_.Valid(); }
    bool DigitsUsable() const { return digits_; }
    const DecodedSecret& Secret() const { return secret_; }
    const char* Code() const { return typed_.data() + begin_; }

private:
    bool ready_;
    DecodedSecret secret_;
    const std::string& typed_;
    std::size_t begin_ = 0;
    bool digits_ = false;
};

} // namespace

OtpResult CheckTotp(const std::string& base32Secret, const OtpParameters& parameters, std::time_t now,
                    int offset, const std::string& typed, std::uint64_t lastStep)
{
    OtpResult result;
    const Attempt attempt(base32Secret, parameters, typed);
    if (!attempt.SecretUsable()) {
        result.verdict = OtpVerdict::BadSecret;
        return result;
    }
    const long long expected = static_cast<long long>(now) / parameters.period + offset;
    const int reach = kMaxOffsetSteps > static_cast<int>(parameters.window) ? kMaxOffsetSteps
                                                                             : static_cast<int>(parameters.window);
    if (now < 0 || !attempt.DigitsUsable()) {
        return result;
    }
    for (int distance = -reach; distance <= reach; ++distance) {
        const long long step = expected + distance;
        if (step < 0 ||
            !FactorHasCode(attempt.Secret(), parameters, static_cast<std::uint64_t>(step), attempt.Code())) {
            continue;
        }
        const bool inWindow = distance >= -static_cast<int>(parameters.window) &&
                              distance <= static_cast<int>(parameters.window);
        const std::uint64_t matched = static_cast<std::uint64_t>(step);
        if (inWindow && matched > lastStep) {
            result = {OtpVerdict::Accepted, matched, distance};
        } else if (inWindow && result.verdict != OtpVerdict::Accepted) {
            result = {OtpVerdict::Reused, matched, distance};
        } else if (result.verdict == OtpVerdict::Wrong) {
            result.skew = distance;
        }
    }
    return result;
}

OtpResult CheckHotp(const std::string& base32Secret, const OtpParameters& parameters, std::uint64_t counter,
                    const std::string& typed)
{
    OtpResult result;
    const Attempt attempt(base32Secret, parameters, typed);
    if (!attempt.SecretUsable()) {
        result.verdict = OtpVerdict::BadSecret;
        return result;
    }
    for (std::uint64_t ahead = 0; attempt.DigitsUsable() && ahead <= kHotpLookAhead; ++ahead) {
        if (FactorHasCode(attempt.Secret(), parameters, counter + ahead, attempt.Code()) &&
            result.verdict == OtpVerdict::Wrong) {
            result = {OtpVerdict::Accepted, counter + ahead, 0};
        }
    }
    return result;
}

} // namespace brackmoor::pam
