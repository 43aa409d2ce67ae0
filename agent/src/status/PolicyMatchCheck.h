#pragma once

#include <string>

#include "CheckResult.h"

namespace Agent {

/// Whether the include file's module arguments are the ones the policy file
/// makes: arguments left by an agent that was killed, or by a policy the
/// agent was not told to re-read, exclude the wrong users.
class PolicyMatchCheck {
public:
    /// `policyFile`: the two-factor feed's policy ("" when none is
    /// configured); `arguments`: those of the include file's module line;
    /// `agentRunning`: a running agent will push a changed file on reload.
    static CheckResults Inspect(const std::string& policyFile, const std::string& arguments, bool agentRunning);
};

} // namespace Agent
