#pragma once

#include "OtpRecord.h"

#include <string>

namespace brackmoor::pam {

/// The otpauth:// URI that authenticator apps read (usually from a QR code),
/// carrying every setting of the enrolment, for example
///   otpauth://totp/<issuer>:<account>?secret=<base32>&issuer=<issuer>&algorithm=SHA1&digits=6&period=30
///   otpauth://hotp/<issuer>:<account>?secret=<base32>&issuer=<issuer>&algorithm=SHA1&digits=6&counter=0
/// Issuer and account are percent-encoded; base32 padding is dropped.
std::string MakeOtpAuthUri(const OtpRecord& record, const std::string& account);

/// Percent-encodes everything but RFC 3986's unreserved characters.
std::string PercentEncode(const std::string& text);

} // namespace brackmoor::pam
