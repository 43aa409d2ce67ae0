// libFuzzer target: the module's argument parser. The input is split on
// newlines and NULs into an argv, as no real argument holds either.

#include "ModuleOptions.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using brackmoor::pam::ModuleOptions;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::string> pieces(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == '\n' || data[i] == '\0') {
            pieces.emplace_back();
        } else {
            pieces.back().push_back(static_cast<char>(data[i]));
        }
    }
    std::vector<const char*> argv;
    for (const std::string& piece : pieces) {
        argv.push_back(piece.c_str());
    }
    const ModuleOptions options = brackmoor::pam::ParseModuleOptions(static_cast<int>(argv.size()), argv.data());

    if (options.replyTimeoutMs < brackmoor::pam::kMinReplyTimeoutMs ||
        options.replyTimeoutMs > brackmoor::pam::kMaxReplyTimeoutMs) {
        __builtin_trap();
    }
    for (const std::string& user : options.excludedUsers) {
        if (user.empty() || user.find(';') != std::string::npos || !options.IsExcluded(user)) {
            __builtin_trap();
        }
    }
    if (options.problems.size() > argv.size()) {
        __builtin_trap();
    }
    return 0;
}
