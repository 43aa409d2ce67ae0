#include "AgentProcessCheck.h"

#include <vector>

#include "PidFile.h"
#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "agent";

/// The PAM module checks codes itself only with "local=1"; any other value,
/// or none, makes it ask the agent.
bool ServiceMode(const std::string& moduleArguments)
{
    if (moduleArguments.empty()) {
        return false;
    }
    for (const std::string& argument : TextFile::Fields(moduleArguments)) {
        if (argument == "local=1") {
            return false;
        }
    }
    return true;
}

} // namespace

CheckResults AgentProcessCheck::Inspect(const std::string& pidFile, const std::string& moduleArguments)
{
    long pid = 0;
    if (PidFile::IsHeld(pidFile, pid)) {
        return {{CheckLevel::Info, kSubject, "running" + (pid > 0 ? " (pid " + std::to_string(pid) + ")" : "")}};
    }
    if (ServiceMode(moduleArguments)) {
        return {{CheckLevel::Fail, kSubject,
                 "not running (" + pidFile + " is not locked), but the PAM module asks it for every login "
                 "(not local=1): every user who is not excluded is refused"}};
    }
    return {{CheckLevel::Info, kSubject, "not running (" + pidFile + " is not locked)"}};
}

} // namespace Agent
