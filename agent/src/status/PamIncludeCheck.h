#pragma once

#include "CheckResult.h"
#include "StatusPaths.h"

namespace Agent {

/// The include file "/etc/pam.d/brackmoor-auth": present and carrying the
/// pam_brackmoor.so line with the module's arguments.
class PamIncludeCheck {
public:
    /// `serviceSwitched`: sshd's PAM service file includes this file, so a
    /// missing file breaks sshd's PAM stack rather than merely being off.
    /// `arguments` receives the module line's arguments, empty when none.
    static CheckResults Inspect(const StatusPaths& paths, bool serviceSwitched, std::string& arguments);
};

} // namespace Agent
