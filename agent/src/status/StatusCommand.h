#pragma once

#include <ostream>

#include "CommandLine.h"

namespace Agent {

/// `brackmoor-agent status`: tells an operator, from the files alone,
/// whether the second factor is switched on — sshd_config, sshd's PAM
/// service file, the include file, the module copies, sshd's own effective
/// settings when sshd is installed — one line per finding, then a verdict
/// that says plainly why the second factor is not in force when it is not.
class StatusCommand {
public:
    /// Exit status 0 only when the second factor is in force, 1 otherwise.
    static int Run(const CommandLine& options, std::ostream& out);
};

} // namespace Agent
