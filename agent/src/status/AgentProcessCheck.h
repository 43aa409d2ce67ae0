#pragma once

#include <string>

#include "CheckResult.h"

namespace Agent {

/// Whether an agent holds its pid file's lock now. Informational in local
/// mode; in service mode the PAM module asks the agent at every login, so a
/// stopped agent locks every user out who is not excluded: a failure.
class AgentProcessCheck {
public:
    /// `moduleArguments`: the include file's arguments of pam_brackmoor.so.
    static CheckResults Inspect(const std::string& pidFile, const std::string& moduleArguments);
};

} // namespace Agent
