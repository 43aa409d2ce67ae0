#include "Throttle.h"

namespace brackmoor::pam {

std::int64_t Throttle::LockedFor(const OtpRecord& record, std::int64_t now) const
{
    if (record.failures < maxFailures) {
        return 0;
    }
    const std::int64_t end = record.failuresSince + windowSeconds;
    // A clock set back must not stretch the lock beyond one window.
    return now >= end ? 0 : (end - now > windowSeconds ? windowSeconds : end - now);
}

void Throttle::CountFailure(OtpRecord* record, std::int64_t now) const
{
    if (record->failures == 0 || now >= record->failuresSince + windowSeconds || now < record->failuresSince) {
        record->failures = 0;
        record->failuresSince = now;
    }
    ++record->failures;
}

void Throttle::Clear(OtpRecord* record)
{
    record->failures = 0;
    record->failuresSince = 0;
}

} // namespace brackmoor::pam
