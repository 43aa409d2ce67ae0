#include "OtpAuthUri.h"

#include "TotpCheck.h"

namespace brackmoor::pam {

std::string PercentEncode(const std::string& text)
{
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                                c == '-' || c == '.' || c == '_' || c == '~';
        if (unreserved) {
            out.push_back(c);
        } else {
            out.push_back('%');
            out.push_back(kHex[byte >> 4]);
            out.push_back(kHex[byte & 0x0f]);
        }
    }
    return out;
}

std::string MakeOtpAuthUri(const std::string& issuer, const std::string& account,
                           const std::string& base32Secret)
{
    const std::string secret = base32Secret.substr(0, base32Secret.find('='));
    const std::string encodedIssuer = PercentEncode(issuer);
    return "otpauth://totp/" + encodedIssuer + ":" + PercentEncode(account) + "?secret=" + secret +
           "&issuer=" + encodedIssuer + "&algorithm=SHA1&digits=" + std::to_string(kTotpDigits) +
           "&period=" + std::to_string(kTotpStepSeconds);
}

} // namespace brackmoor::pam
