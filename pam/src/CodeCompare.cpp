#include "CodeCompare.h"

#include "AgentReply.h"
#include "SecretString.h"

namespace brackmoor::pam {
namespace {

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

} // namespace

bool ConstantTimeEqual(const char* a, const char* b, std::size_t size)
{
    volatile unsigned char difference = 0;
    for (std::size_t i = 0; i < size; ++i) {
        difference = difference | static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return difference == 0;
}

bool FindTypedDigits(const std::string& typed, std::size_t maxDigits, std::size_t* begin,
                     std::size_t* count)
{
    std::size_t first = 0;
    std::size_t end = typed.size();
    while (first < end && IsBlank(typed[first])) {
        ++first;
    }
    while (end > first && IsBlank(typed[end - 1])) {
        --end;
    }
    if (end == first || end - first > maxDigits) {
        return false;
    }
    for (std::size_t i = first; i < end; ++i) {
        if (typed[i] < '0' || typed[i] > '9') {
            return false;
        }
    }
    *begin = first;
    *count = end - first;
    return true;
}

bool TypedCodeMatches(const std::string& typed, std::uint32_t issued)
{
    std::size_t begin = 0;
    std::size_t count = 0;
    if (!FindTypedDigits(typed, kMaxCodeDigits, &begin, &count)) {
        return false;
    }
    char typedPadded[kMaxCodeDigits];
    char issuedPadded[kMaxCodeDigits];
    const std::size_t padding = kMaxCodeDigits - count;
    for (std::size_t i = 0; i < kMaxCodeDigits; ++i) {
        typedPadded[i] = i < padding ? '0' : typed[begin + i - padding];
    }
    std::uint32_t rest = issued;
    for (int i = kMaxCodeDigits - 1; i >= 0; --i) {
        issuedPadded[i] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    }
    const bool equal = rest == 0 && ConstantTimeEqual(typedPadded, issuedPadded, kMaxCodeDigits);
    WipeBytes(typedPadded, sizeof typedPadded);
    WipeBytes(issuedPadded, sizeof issuedPadded);
    return equal;
}

} // namespace brackmoor::pam
