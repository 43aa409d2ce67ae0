#pragma once

#include <string>
#include <vector>

namespace brackmoor::pam {

/// Digits of a recovery code.
constexpr std::size_t kRecoveryDigits = 8;

/// A new set of single-use recovery codes (kRecoveryCodeCount of them):
/// `codes` as the user types them, shown once, and `hashes` to be stored,
/// each salted and hashed with crypt(3)'s yescrypt. False when the random
/// source or the hash fails.
bool MakeRecoveryCodes(std::vector<std::string>* codes, std::vector<std::string>* hashes);

/// The index in `hashes` of the code typed, or -1. An answer of
/// kRecoveryDigits digits always costs kRecoveryCodeCount hashes, however many
/// codes are left (none for a user without a secret), so the time taken
/// tells nothing about the account.
int FindRecoveryCode(const std::vector<std::string>& hashes, const std::string& typed);

} // namespace brackmoor::pam
