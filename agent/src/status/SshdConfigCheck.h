#pragma once

#include "CheckResult.h"
#include "StatusPaths.h"

namespace Agent {

/// sshd_config as the files say: whether the agent's keyword switch is on
/// (its "yes" line active), and what sshd will take for keyboard-interactive
/// authentication and UsePAM once drop-ins and line order are counted. A
/// drop-in that sshd reads before the main file's line wins over it.
class SshdConfigCheck {
public:
    static CheckResults Inspect(const StatusPaths& paths);
};

} // namespace Agent
