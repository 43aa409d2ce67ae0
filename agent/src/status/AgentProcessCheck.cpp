#include "AgentProcessCheck.h"

#include <vector>

#include "PidFile.h"
#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "agent";

bool ServiceMode(const std::string& moduleArguments)
{
    for (const std::string& argument : TextFile::Fields(moduleArguments)) {
        if (argument == "local=0") {
            return true;
        }
    }
    return false;
}

} // namespace

CheckResults AgentProcessCheck::Inspect(const std::string& pidFile, const std::string& moduleArguments)
{
    long pid = 0;
    if (PidFile::IsHeld(pidFile, pid)) {
        return {{CheckLevel::Info, kSubject, "running" + (pid > 0 ? " (pid " + std::to_string(pid) + ")" : "")}};
    }
    if (ServiceMode(moduleArguments)) {
        return {{CheckLevel::Warning, kSubject,
                 "not running (" + pidFile + " is not locked), but the PAM module is set to ask it (local=0)"}};
    }
    return {{CheckLevel::Info, kSubject, "not running (" + pidFile + " is not locked)"}};
}

} // namespace Agent
