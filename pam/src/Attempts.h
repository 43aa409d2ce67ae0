#pragma once

#include <string>

namespace brackmoor::pam {

/// Tries a user gets at each question (contact, verification code,
/// authenticator code) before the login is refused with PAM_MAXTRIES.
constexpr int kMaxTries = 3;

/// "attempt 2 of 3", for the log.
inline std::string AttemptText(int attempt)
{
    return "attempt " + std::to_string(attempt) + " of " + std::to_string(kMaxTries);
}

} // namespace brackmoor::pam
