#pragma once

#include "OtpRecord.h"

#include <cstdint>

namespace brackmoor::pam {

/// The failed-code limit across logins: `maxFailures` wrong codes within
/// `windowSeconds` of the first of them lock the user out until that window
/// has passed. The count lives in the user's record, so it holds across
/// logins and across sshd's processes; an accepted code clears it.
struct Throttle {
    unsigned maxFailures = 5;
    unsigned windowSeconds = 300;

    /// Seconds until the user may try again; 0 when not locked.
    std::int64_t LockedFor(const OtpRecord& record, std::int64_t now) const;

    /// Counts one failed code at `now`, starting a new window when the last has passed.
    void CountFailure(OtpRecord* record, std::int64_t now) const;

    /// Forgets the failures after a success.
    static void Clear(OtpRecord* record);
};

} // namespace brackmoor::pam
