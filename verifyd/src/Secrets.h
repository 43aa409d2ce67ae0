#pragma once

#include <string>

// The service's secrets: agent tokens, verification codes and the digests that
// stand in for them. Every function reports failure of the random source or of
// the digest with an empty result rather than an exception, and callers fail
// closed on it.

namespace brackmoor::verifyd {

/// Lower-case hex SHA-256 of `text`: how tokens are stored and how contacts
/// are published, the same form the agent computes on its side. "" on failure.
std::string Sha256Hex(const std::string& text);

/// A new agent token: 32 bytes from the OpenSSL CSPRNG as 64 lower-case hex
/// digits. "" when the random source fails.
std::string NewToken();

/// A new verification code: six decimal digits, uniformly distributed (random
/// 32-bit words above the largest multiple of 10^6 are drawn again, so no
/// code is likelier than another). "" when the random source fails.
std::string NewCode();

/// Equality of two secrets in time that does not depend on where they differ,
/// so that a token cannot be guessed byte by byte from response times.
bool SameSecret(const std::string& a, const std::string& b);

} // namespace brackmoor::verifyd
