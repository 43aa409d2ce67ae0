#pragma once

#include <string>

namespace brackmoor::pam {

/// The otpauth:// URI that authenticator apps read (usually from a QR code):
///   otpauth://totp/<issuer>:<account>?secret=<base32>&issuer=<issuer>&algorithm=SHA1&digits=6&period=30
/// Issuer and account are percent-encoded; base32 padding is dropped.
std::string MakeOtpAuthUri(const std::string& issuer, const std::string& account,
                           const std::string& base32Secret);

/// Percent-encodes everything but RFC 3986's unreserved characters.
std::string PercentEncode(const std::string& text);

} // namespace brackmoor::pam
