#include "AgentReply.h"

namespace brackmoor::pam {
namespace {

/// "%d" of INT32_MIN is 11 characters; the NUL makes 12.
constexpr std::size_t kMaxReplyText = 11;
constexpr std::int32_t kFailureReply = 3;
constexpr std::uint32_t kLargestCode = 999999999; // kMaxCodeDigits nines

} // namespace

std::optional<std::int32_t> ParseReplyNumber(const char* data, std::size_t size)
{
    if (data == nullptr || size == 0) {
        return std::nullopt;
    }
    // The NUL is part of the datagram; be lenient about a sender that omits it.
    if (data[size - 1] == '\0') {
        --size;
    }
    if (size == 0 || size > kMaxReplyText) {
        return std::nullopt;
    }
    std::size_t i = 0;
    const bool negative = data[0] == '-';
    if (negative) {
        ++i;
    }
    const std::size_t digits = size - i;
    if (digits == 0 || (digits > 1 && data[i] == '0') || (negative && data[i] == '0')) {
        return std::nullopt;
    }
    std::int64_t value = 0;
    for (; i < size; ++i) {
        if (data[i] < '0' || data[i] > '9') {
            return std::nullopt;
        }
        value = value * 10 + (data[i] - '0');
    }
    value = negative ? -value : value;
    if (value < INT32_MIN || value > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(value);
}

ContactVerdict InterpretContactReply(std::optional<std::int32_t> reply)
{
    if (reply == 1) {
        return ContactVerdict::Listed;
    }
    if (reply == 2) {
        return ContactVerdict::NotListed;
    }
    return ContactVerdict::Error;
}

std::optional<std::uint32_t> InterpretCodeReply(std::optional<std::int32_t> reply)
{
    if (!reply || *reply == kFailureReply || *reply < 0 ||
        static_cast<std::uint32_t>(*reply) > kLargestCode) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*reply);
}

} // namespace brackmoor::pam
