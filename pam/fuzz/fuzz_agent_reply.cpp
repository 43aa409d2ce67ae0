// libFuzzer target: the agent's reply parser and the typed-code comparison.
// A parsed reply must print back ("%d" and NUL) to exactly the input; a code
// must never be the failure reply 3 or longer than nine digits; a typed
// answer may match only the number it spells.

#include "AgentReply.h"
#include "CodeCompare.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace brackmoor::pam;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    const std::optional<std::int32_t> reply = ParseReplyNumber(text, size);
    if (reply) {
        char printed[16];
        const int length = std::snprintf(printed, sizeof printed, "%d", *reply);
        const std::size_t body = size > 0 && text[size - 1] == '\0' ? size - 1 : size;
        if (length < 0 || static_cast<std::size_t>(length) != body || std::memcmp(printed, text, body) != 0) {
            __builtin_trap();
        }
    }
    InterpretContactReply(reply);
    const std::optional<std::uint32_t> code = InterpretCodeReply(reply);
    if (code && (*code == 3 || *code > 999999999u)) {
        __builtin_trap();
    }

    const std::string typed(text, size);
    const std::uint32_t issued = code ? *code : 42137;
    std::size_t begin = 0;
    std::size_t count = 0;
    const bool digits = FindTypedDigits(typed, kMaxCodeDigits, &begin, &count);
    if (TypedCodeMatches(typed, issued) &&
        (!digits || std::strtoul(typed.substr(begin, count).c_str(), nullptr, 10) != issued)) {
        __builtin_trap();
    }
    return 0;
}
