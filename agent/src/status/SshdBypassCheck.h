#pragma once

#include <map>
#include <string>

#include "CheckResult.h"
#include "StatusPaths.h"

namespace Agent {

/// Ways into the machine that sshd allows around the second factor, read
/// from sshd's effective settings: each a warning naming what it means and
/// the line to change. They do not decide the verdict, which is about
/// whether the second factor is in force for keyboard-interactive logins.
class SshdBypassCheck {
public:
    /// `settings`: sshd -T's output (none: nothing to say); `moduleArguments`:
    /// the include file's pam_brackmoor.so arguments (for the excluded users);
    /// `user`: the user sshd was asked for, "" for the global settings.
    static CheckResults Inspect(const StatusPaths& paths, const std::map<std::string, std::string>& settings,
                                const std::string& moduleArguments, const std::string& user);
};

} // namespace Agent
