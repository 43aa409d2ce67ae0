// libFuzzer target: switching sshd's PAM service file and generating the
// include file. The input is the service file, a NUL, then the system auth
// stack (used as both common-auth and password-auth). Switching on must be
// deterministic and idempotent, a generated include file must carry the
// module line, no longer than Linux-PAM reads, for the longest exclude list a
// policy may give, and a switch-off that restored the service file must lead
// to the same switch-on again.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzTask.h"
#include "TwoFactorAuthenticationPamLine.h"

namespace {

bool SwitchOn(Engine::TwoFactorAuthenticationTask& task, const std::string& service, const std::string& stack)
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
    using Engine::PamLine::FitsPamLine;
    Engine::TwoFactorAuthenticationTask& task = Fuzz::Task();
    if (task.excludeUserList.empty()) {
        while (FitsPamLine(task.GenerateParameters())) {
            task.excludeUserList.push_back(std::string(31, 'u') + std::to_string(task.excludeUserList.size() % 10));
        }
        task.excludeUserList.pop_back();
    }

    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t nul = input.find('\0');
    const std::string service = input.substr(0, nul);
    const std::string stack = nul == std::string::npos ? std::string() : input.substr(nul + 1);
    const bool on = SwitchOn(task, service, stack);
    const std::string switched = Fuzz::Read(task.pamSshdPath);
    const std::string include = Fuzz::Read(task.pamIncludePath);
    if (SwitchOn(task, service, stack) != on || Fuzz::Read(task.pamSshdPath) != switched ||
        Fuzz::Read(task.pamIncludePath) != include) {
        __builtin_trap();
    }
    if (!on) {
        return 0;
    }
    const std::string arguments = task.GenerateParameters();
    for (const std::string& form : {Engine::PamLine::skip_form, Engine::PamLine::sufficient_form}) {
        if ((form + arguments).size() > Engine::PamLine::max_line_length) {
            __builtin_trap();
        }
    }
    if (!include.empty() && include.find("\n" + Engine::PamLine::skip_form + arguments + "\n") == std::string::npos &&
        include.find("\n" + Engine::PamLine::sufficient_form + arguments + "\n") == std::string::npos) {
        __builtin_trap();
    }
    if (!task.SwitchAuth(true) || Fuzz::Read(task.pamSshdPath) != switched ||
        Fuzz::Read(task.pamIncludePath) != include) {
        __builtin_trap();
    }
    if (task.SwitchAuth(false) && Fuzz::Lines(Fuzz::Read(task.pamSshdPath), false) == Fuzz::Lines(service, false) &&
        (!task.SwitchAuth(true) || Fuzz::Read(task.pamSshdPath) != switched)) {
        __builtin_trap();
    }
    return 0;
}
