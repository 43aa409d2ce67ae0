#pragma once

#include <string>
#include <vector>

namespace Agent {

/// How one finding bears on the verdict.
enum class CheckLevel {
    Ok,       ///< this part of the second factor is in place
    Info,     ///< worth knowing; no bearing on the verdict
    Warning,  ///< not what the agent leaves behind, but the second factor still holds
    Fail,     ///< the second factor is not in force because of this
};

/// One line of the status report.
struct CheckResult {
    CheckLevel level;
    std::string subject;  ///< the file or part looked at
    std::string text;     ///< what was found, in plain words
};

using CheckResults = std::vector<CheckResult>;

} // namespace Agent
