#include "PolicyMatchCheck.h"

#include "SDK/FileUtils.h"
#include "TwoFactorAuthenticationPamLine.h"
#include "TwoFactorAuthenticationPolicyDocument.h"

namespace Agent {

namespace {

const char* const kSubject = "policy";
const long kMaxPolicyBytes = 1024 * 1024;

} // namespace

CheckResults PolicyMatchCheck::Inspect(const std::string& policyFile, const std::string& arguments,
                                       bool agentRunning)
{
    if (policyFile.empty() || arguments.empty()) {
        return {};
    }
    std::string text;
    if (SDK::FileUtils::ReadFile(policyFile, text, kMaxPolicyBytes) != 0) {
        return {{CheckLevel::Warning, kSubject, policyFile + " cannot be read; the arguments in force stay"}};
    }
    Engine::PolicySettings settings;
    unsigned int badIndex = 0;
    if (Engine::ReadPolicyDocument(text, settings, badIndex) != Engine::PolicyFault::None) {
        return {{CheckLevel::Warning, kSubject,
                 policyFile + " is refused by the module (the agent's log says why); the arguments in force stay"}};
    }
    const std::string expected = Engine::PamLine::FormatArguments(settings.refreshTime, settings.echo,
                                                                  settings.local, settings.excludeUserList);
    if (expected == arguments) {
        return {{CheckLevel::Ok, kSubject, "brackmoor-auth arguments match " + policyFile}};
    }
    const std::string differ = "brackmoor-auth has '" + arguments + "', " + policyFile + " makes '" + expected + "'";
    if (agentRunning) {
        return {{CheckLevel::Warning, kSubject,
                 differ + ": the file changed since it was pushed (systemctl reload brackmoor-agent pushes it)"}};
    }
    return {{CheckLevel::Fail, kSubject,
             differ + ": left by an agent that did not stop cleanly; starting the agent restores and applies "
                      "the policy file"}};
}

} // namespace Agent
