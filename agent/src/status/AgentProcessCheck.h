#pragma once

#include <string>

#include "CheckResult.h"

namespace Agent {

/// Whether an agent holds its pid file's lock now. Informational: the
/// files decide whether the second factor is in force; but with local=0 the
/// PAM module asks the agent, so a stopped agent is worth a warning then.
class AgentProcessCheck {
public:
    /// `moduleArguments`: the include file's arguments of pam_brackmoor.so.
    static CheckResults Inspect(const std::string& pidFile, const std::string& moduleArguments);
};

} // namespace Agent
