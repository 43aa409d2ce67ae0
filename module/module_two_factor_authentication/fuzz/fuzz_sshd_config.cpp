// libFuzzer target: switching keyboard-interactive authentication in a random
// sshd_config. The rewrite must be deterministic, switching on, off and on
// again must leave sshd reading what one switch-on gives, the precondition
// scan must not change its verdict, and once switched no active line of the
// edited keyword may still say the opposite.

#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzTask.h"

namespace {

const char* const kKeys[] = {"ChallengeResponseAuthentication", "KbdInteractiveAuthentication"};

std::string Switched(Engine::TwoFactorAuthenticationTask& task, bool on)
{
    task.SwitchSshdConfig(on);
    return Fuzz::ReadWholeFile(task.sshdConfigPath);
}

// Whether an active line still sets the keyword that the switch edits to `value`.
bool HasActive(Engine::TwoFactorAuthenticationTask& task, const std::string& value)
{
    const std::string key = task.IsHasTwoKeyLine(kKeys[0]) != -1 ? kKeys[0] : kKeys[1];
    for (const std::string& line : Fuzz::Lines(Fuzz::ReadWholeFile(task.sshdConfigPath), true)) {
        if (task.IsHasKeyLine(line, key, value)) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Engine::TwoFactorAuthenticationTask& task = Fuzz::Task();
    const std::string original(reinterpret_cast<const char*>(data), size);
    Fuzz::Write(task.sshdConfigPath, original);
    const bool usable = task.IsUsePamAndPwdAuth();
    const std::string on = Switched(task, true);
    if (HasActive(task, "no")) {
        __builtin_trap();
    }

    Fuzz::Write(task.sshdConfigPath, original);
    if (Switched(task, true) != on || task.IsUsePamAndPwdAuth() != usable) {
        __builtin_trap();
    }
    Switched(task, false);
    if (HasActive(task, "yes") || task.IsUsePamAndPwdAuth() != usable) {
        __builtin_trap();
    }
    if (Fuzz::Lines(Switched(task, true), true) != Fuzz::Lines(on, true)) {
        __builtin_trap();
    }
    return 0;
}
