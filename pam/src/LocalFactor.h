#pragma once

#include "AuthLog.h"
#include "ModuleOptions.h"
#include "PamConversation.h"
#include "TotpCheck.h"
#include "TotpStore.h"

#include <string>

namespace brackmoor::pam {

/// The second factor checked on this host alone: the user types the current
/// code of an authenticator app enrolled with brackmoor-totp. A user without
/// a secret, or with a secret that is not kept root-only, is refused.
class LocalFactor {
public:
    LocalFactor(const ModuleOptions& options, PamConversation& user, AuthLog& log, std::string directory)
        : options_(options), user_(user), log_(log), store_(std::move(directory))
    {
    }

    /// Runs the exchange for `user` and returns the PAM result of the login.
    int Run(const std::string& user);

private:
    /// Reads the user's record under the store's lock; PAM_SUCCESS when it is usable.
    int LoadRecord(const std::string& user, TotpRecord* record);
    /// Checks one typed code and records its step when accepted.
    int CheckTyped(const std::string& user, const std::string& typed, TotpVerdict* verdict);
    /// Logs and reports a store that cannot be used; the PAM result.
    int StoreFailed(StoreStatus status, const char* step);

    const ModuleOptions& options_;
    PamConversation& user_;
    AuthLog& log_;
    TotpStore store_;
};

} // namespace brackmoor::pam
