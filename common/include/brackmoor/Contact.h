#pragma once

// How a contact (phone number or mail address) is written before it is hashed.
//
// This is the one place that defines it: the PAM module normalises what the
// user types, the verification service normalises what the operator
// registers, and both hash the result (lower-case hex SHA-256), so that the
// agent's task, which hashes the PAM module's text as received, finds typed
// and registered forms of the same contact equal.
//
// Rules:
//   1. Blanks, tabs, CR, LF, VT and FF around the text are removed.
//   2. A text with an "@" is a mail address: ASCII letters are lower-cased,
//      nothing else changes.
//   3. Any other text is a phone number: blanks, tabs, "-", ".", "(", ")"
//      and "/" inside it are removed, and a leading "00" becomes "+".
//      The result is valid in E.164 form: "+", then 8 to 15 digits, the
//      first not 0 (checked by IsValidPhone, at registration).

#include <string>

namespace brackmoor {

inline bool IsContactSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

inline std::string NormalizeContact(const std::string& typed)
{
    std::string::size_type begin = 0;
    std::string::size_type end = typed.size();
    while (begin < end && IsContactSpace(typed[begin])) {
        ++begin;
    }
    while (end > begin && IsContactSpace(typed[end - 1])) {
        --end;
    }
    std::string text = typed.substr(begin, end - begin);

    if (text.find('@') != std::string::npos) {
        for (char& c : text) {
            if (c >= 'A' && c <= 'Z') {
                c = static_cast<char>(c - 'A' + 'a');
            }
        }
        return text;
    }

    std::string phone;
    phone.reserve(text.size());
    for (char c : text) {
        if (IsContactSpace(c) || c == '-' || c == '.' || c == '(' || c == ')' || c == '/') {
            continue;
        }
        phone.push_back(c);
    }
    if (phone.compare(0, 2, "00") == 0) {
        phone.replace(0, 2, "+");
    }
    return phone;
}

/// E.164: "+", then 8 to 15 digits, the first not 0. Expects a normalised text.
inline bool IsValidPhone(const std::string& phone)
{
    if (phone.size() < 9 || phone.size() > 16 || phone[0] != '+' || phone[1] == '0') {
        return false;
    }
    for (std::string::size_type i = 1; i < phone.size(); ++i) {
        if (phone[i] < '0' || phone[i] > '9') {
            return false;
        }
    }
    return true;
}

/// A plain mail address: one "@", a non-empty local part of printable ASCII
/// without blanks or ":" (the agent's requests are split at ":", so such an
/// address could never be matched), and a domain of letters, digits, "-" and "." with at least
/// one inner dot. Expects a normalised text.
inline bool IsValidMail(const std::string& mail)
{
    const std::string::size_type at = mail.find('@');
    if (at == std::string::npos || at == 0 || mail.find('@', at + 1) != std::string::npos ||
        mail.size() > 254) {
        return false;
    }
    for (std::string::size_type i = 0; i < at; ++i) {
        const char c = mail[i];
        if (c <= ' ' || c > '~' || c == ':') {
            return false;
        }
    }
    const std::string domain = mail.substr(at + 1);
    const std::string::size_type dot = domain.find('.');
    if (domain.empty() || dot == std::string::npos || dot == 0 || domain.back() == '.' ||
        domain.find("..") != std::string::npos) {
        return false;
    }
    for (char c : domain) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!ok) {
            return false;
        }
    }
    return true;
}

} // namespace brackmoor
