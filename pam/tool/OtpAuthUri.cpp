#include "OtpAuthUri.h"

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

std::string MakeOtpAuthUri(const OtpRecord& record, const std::string& account)
{
    const std::string& base32 = record.secretBase32.Text();
    const std::string encodedIssuer = PercentEncode(record.issuer);
    const OtpParameters& p = record.parameters;
    const bool hotp = p.kind == OtpKind::Hotp;
    return std::string("otpauth://") + (hotp ? "hotp/" : "totp/") + encodedIssuer + ":" + PercentEncode(account) +
           "?secret=" + base32.substr(0, base32.find('=')) + "&issuer=" + encodedIssuer +
           "&algorithm=" + AlgorithmName(p.algorithm) + "&digits=" + std::to_string(p.digits) +
           (hotp ? "&counter=" + std::to_string(record.counter) : "&period=" + std::to_string(p.period));
}

} // namespace brackmoor::pam
