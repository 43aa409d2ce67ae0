#pragma once

#include "AuthLog.h"
#include "LocalSettings.h"
#include "ModuleOptions.h"
#include "OtpCheck.h"
#include "PamConversation.h"
#include "TotpStore.h"

#include <cstdint>
#include <string>

namespace brackmoor::pam {

/// The second factor checked on this host alone: the user types the current
/// code of an authenticator app or hardware token enrolled with
/// brackmoor-totp, or one of the recovery codes made with it.
///
/// A user without a secret goes through the same questions, answers, checks,
/// file updates and failure limit as one with a secret who types wrong codes,
/// so that nobody who reaches the module learns which accounts have one;
/// unless the setting file lets such users in (a gradual rollout).
class LocalFactor {
public:
    LocalFactor(const ModuleOptions& options, PamConversation& user, AuthLog& log, std::string directory,
                std::string settingsFile)
        : options_(options), user_(user), log_(log), store_(std::move(directory)),
          settingsFile_(std::move(settingsFile))
    {
    }

    /// Runs the exchange for `user` and returns the PAM result of the login.
    int Run(const std::string& user);

private:
    /// What became of one typed code.
    enum class Outcome {
        Accepted, ///< logged in
        Wrong,    ///< refused; the user may try again
        Reused,   ///< refused as used before; the user may try again
        Locked,   ///< refused, and the failure limit is reached
        Failed,   ///< the store failed; the login ends with `result`
    };
    struct Try {
        Outcome outcome;
        int result;             ///< PAM result when Failed
        std::int64_t lockedFor; ///< seconds, when Locked
    };

    /// Reads the setting file; PAM_SUCCESS when it may be used.
    int LoadSettings();
    /// Locks the store and reads the user's record, an empty one when the
    /// user has none; PAM_SUCCESS when it is usable.
    int LoadRecord(const std::string& user, OtpRecord* record);
    /// Checks one typed code and records the outcome.
    Try CheckTyped(const std::string& user, const std::string& typed);
    /// The part of CheckTyped done under the store's lock: read, check, write back.
    Try CheckUnderLock(const std::string& user, const std::string& typed, std::int64_t now, OtpRecord* record);
    /// The verdict on `typed`, with the record updated for an accepted code.
    OtpVerdict Verify(OtpRecord* record, const std::string& typed, std::int64_t now);
    /// The TOTP or HOTP check, with the clock skew of this login noted.
    OtpResult CheckCode(OtpRecord* record, const std::string& typed, std::int64_t now);
    /// Refuses a locked-out user; the PAM result.
    int Locked(std::int64_t seconds);
    /// Logs and reports a store that cannot be used; the PAM result.
    int StoreFailed(StoreStatus status, const char* step);

    const ModuleOptions& options_;
    PamConversation& user_;
    AuthLog& log_;
    TotpStore store_;
    std::string settingsFile_;
    LocalSettings settings_;
    /// Outcomes are written only into an existing store, and only for real
    /// accounts: no files for made-up names.
    bool storeOpen_ = false;
    bool accountExists_ = false;
    /// How the accepted code was accepted, for the log and the user.
    std::string acceptedBy_;
    bool recoveryCodeUsed_ = false;
    /// Clock skew counts once per login, however many tries it takes.
    bool skewNoted_ = false;
};

} // namespace brackmoor::pam
