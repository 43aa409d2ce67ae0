#include "TotpCheck.h"

#include "CodeCompare.h"
#include "SecretString.h"

#include <liboath/oath.h>
#include <stdlib.h>

namespace brackmoor::pam {
namespace {

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

/// True when `code` is the code of `step`.
bool StepHasCode(const DecodedSecret& secret, std::uint64_t step, const char* code)
{
    char expected[kTotpDigits + 1] = {};
    const time_t at = static_cast<time_t>(step * kTotpStepSeconds);
    const bool made = oath_totp_generate(secret.Bytes(), secret.Size(), at, kTotpStepSeconds,
                                         OATH_TOTP_DEFAULT_START_TIME, kTotpDigits, expected) == OATH_OK;
    const bool equal = made && ConstantTimeEqual(expected, code, kTotpDigits);
    WipeBytes(expected, sizeof expected);
    return equal;
}

} // namespace

TotpResult CheckTotp(const std::string& base32Secret, std::time_t now, const std::string& typed,
                     std::uint64_t lastStep)
{
    TotpResult result;
    if (oath_init() != OATH_OK) {
        result.verdict = TotpVerdict::BadSecret;
        return result;
    }
    const DecodedSecret secret(base32Secret);
    std::size_t begin = 0;
    std::size_t count = 0;
    if (!secret.Valid()) {
        result.verdict = TotpVerdict::BadSecret;
    } else if (now >= 0 && FindTypedDigits(typed, kTotpDigits, &begin, &count) && count == kTotpDigits) {
        const std::uint64_t current = static_cast<std::uint64_t>(now) / kTotpStepSeconds;
        const std::uint64_t first = current >= kTotpWindowSteps ? current - kTotpWindowSteps : 0;
        for (std::uint64_t step = first; step <= current + kTotpWindowSteps; ++step) {
            if (!StepHasCode(secret, step, typed.data() + begin)) {
                continue;
            }
            if (step > lastStep) {
                result = {TotpVerdict::Accepted, step};
            } else if (result.verdict != TotpVerdict::Accepted) {
                result = {TotpVerdict::Reused, step};
            }
        }
    }
    oath_done();
    return result;
}

} // namespace brackmoor::pam
