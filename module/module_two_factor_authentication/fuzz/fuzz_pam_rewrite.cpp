// libFuzzer target: switching sshd's PAM service file and generating the
// include file. Input: the service file, a NUL, the system auth stack (as
// common-auth and password-auth). Switching on must be deterministic and
// idempotent, the include file must carry the module line within what
// Linux-PAM reads for the longest exclude list a policy may give, and a
// switch-off that restored the service file must lead to the same switch-on.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzTask.h"
#include "TwoFactorAuthenticationPamLine.h"

using namespace Engine;

namespace {

bool SwitchOn(TwoFactorAuthenticationTask& task, const std::string& service, const std::string& stack)
{
    Fuzz::Write(task.pamSshdPath, service);
    Fuzz::Write(task.pamDir + "common-auth", stack);
    Fuzz::Write(task.pamDir + "password-auth", stack);
    std::remove(task.pamIncludePath.c_str());
    return task.SwitchAuth(true);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    TwoFactorAuthenticationTask& task = Fuzz::Task();
    // Made once: the longest exclude list that still fits the module line.
    for (bool fits = task.excludeUserList.empty(); fits; fits = PamLine::FitsPamLine(task.GenerateParameters())) {
        task.excludeUserList.push_back(std::string(31, 'u') + std::to_string(task.excludeUserList.size() % 10));
    }
    if (!PamLine::FitsPamLine(task.GenerateParameters())) {
        task.excludeUserList.pop_back();
    }
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t nul = input.find('\0');
    const std::string service = input.substr(0, nul);
    const std::string stack = nul == std::string::npos ? std::string() : input.substr(nul + 1);
    const bool on = SwitchOn(task, service, stack);
    const std::string switched = Fuzz::ReadWholeFile(task.pamSshdPath);
    const std::string include = Fuzz::ReadWholeFile(task.pamIncludePath);
    if (SwitchOn(task, service, stack) != on || Fuzz::ReadWholeFile(task.pamSshdPath) != switched ||
        Fuzz::ReadWholeFile(task.pamIncludePath) != include) {
        __builtin_trap();
    }
    bool carried = include.empty();
    for (const std::string& form : {PamLine::skip_form, PamLine::sufficient_form}) {
        const std::string line = form + task.GenerateParameters();
        carried |= line.size() <= PamLine::max_line_length && include.find("\n" + line + "\n") != std::string::npos;
    }
    if (!carried || (on && (!task.SwitchAuth(true) || Fuzz::ReadWholeFile(task.pamSshdPath) != switched ||
                            Fuzz::ReadWholeFile(task.pamIncludePath) != include))) {
        __builtin_trap();
    }
    const bool restored = on && task.SwitchAuth(false) &&
                          Fuzz::Lines(Fuzz::ReadWholeFile(task.pamSshdPath), false) == Fuzz::Lines(service, false);
    if (restored && (!task.SwitchAuth(true) || Fuzz::ReadWholeFile(task.pamSshdPath) != switched)) {
        __builtin_trap();
    }
    return 0;
}
