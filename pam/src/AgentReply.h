#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace brackmoor::pam {

/// The agent's answer to a contact check ("1:<contact>").
enum class ContactVerdict {
    Listed,    ///< reply 1: the contact is registered for this host
    NotListed, ///< reply 2: it is not; the user may try another
    Error,     ///< reply 3 or anything unreadable: the check could not be made
};

/// Reads one reply datagram: the decimal text of a signed 32-bit number
/// exactly as printf's "%d" writes it, followed by the NUL that the agent
/// sends with it. Anything else (leading zeros, blanks, a second number,
/// missing digits, out of range) is not a reply.
std::optional<std::int32_t> ParseReplyNumber(const char* data, std::size_t size);

/// The meaning of a contact-check reply.
ContactVerdict InterpretContactReply(std::optional<std::int32_t> reply);

/// The issued code in a code-request reply, or nothing when the agent could
/// not obtain one. The agent sends the code as an integer, so leading zeros
/// of the issued code are lost ("042137" arrives as 42137). Its failure reply
/// is 3, which makes an issued code 000003 unusable: such a login fails
/// closed and the user simply logs in again with a new code.
std::optional<std::uint32_t> InterpretCodeReply(std::optional<std::int32_t> reply);

/// Codes are compared as numbers of at most this many digits.
constexpr int kMaxCodeDigits = 9;

} // namespace brackmoor::pam
