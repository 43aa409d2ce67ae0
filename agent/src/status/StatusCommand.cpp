#include "StatusCommand.h"

#include <map>
#include <string>

#include "AgentConfig.h"
#include "AgentProcessCheck.h"
#include "ModuleCopiesCheck.h"
#include "PamIncludeCheck.h"
#include "PamServiceCheck.h"
#include "PidFile.h"
#include "PolicyMatchCheck.h"
#include "SshdBypassCheck.h"
#include "SshdConfigCheck.h"
#include "SshdEffectiveCheck.h"
#include "StatusPaths.h"
#include "TextFile.h"

namespace Agent {

namespace {

const char* Tag(CheckLevel level)
{
    switch (level) {
    case CheckLevel::Ok:
        return "[ ok ]";
    case CheckLevel::Info:
        return "[info]";
    case CheckLevel::Warning:
        return "[warn]";
    case CheckLevel::Fail:
        break;
    }
    return "[FAIL]";
}

void Append(CheckResults& all, const CheckResults& more)
{
    all.insert(all.end(), more.begin(), more.end());
}

const char* const kTwoFactorModule = "two_factor_authentication_module";

/// The agent's pid file and the two-factor feed's policy file, under the
/// root, from the configuration when it loads.
void ConfiguredFiles(const CommandLine& options, const StatusPaths& paths, std::string& pidFile,
                     std::string& policyFile, CheckResults& results)
{
    pidFile = paths.Under(AgentConfig::kDefaultPidFile);
    policyFile.clear();
    const std::string config = options.configGiven ? options.configPath : paths.Under(options.configPath);
    if (!options.configGiven && !TextFile::Exists(config)) {
        return;
    }
    AgentSettings settings;
    std::string error;
    if (!AgentConfig::Load(config, "", settings, error)) {
        results.push_back({CheckLevel::Warning, "configuration", error});
        return;
    }
    pidFile = paths.Under(settings.pidFile);
    for (const PolicyFeed& feed : settings.feeds) {
        if (feed.module == kTwoFactorModule) {
            policyFile = paths.Under(feed.file);
        }
    }
}

} // namespace

int StatusCommand::Run(const CommandLine& options, std::ostream& out)
{
    const StatusPaths paths(options.rootDir);
    CheckResults results;
    Append(results, SshdConfigCheck::Inspect(paths));
    bool switched = false;
    Append(results, PamServiceCheck::Inspect(paths, switched));
    std::string arguments;
    Append(results, PamIncludeCheck::Inspect(paths, switched, arguments));
    Append(results, ModuleCopiesCheck::Inspect(paths));
    std::map<std::string, std::string> effective;
    Append(results, SshdEffectiveCheck::Inspect(paths, options.sshdPath, options.user, effective));
    std::string pidFile;
    std::string policyFile;
    ConfiguredFiles(options, paths, pidFile, policyFile, results);
    long pid = 0;
    const bool agentRunning = PidFile::IsHeld(pidFile, pid);
    Append(results, PolicyMatchCheck::Inspect(policyFile, arguments, agentRunning));
    Append(results, AgentProcessCheck::Inspect(pidFile, arguments));
    Append(results, SshdBypassCheck::Inspect(paths, effective, arguments, options.user));

    if (!paths.root.empty()) {
        out << "(system paths under " << paths.root << ")\n";
    }
    CheckResults failures;
    for (const CheckResult& result : results) {
        out << Tag(result.level) << ' ' << result.subject << ": " << result.text << '\n';
        if (result.level == CheckLevel::Fail) {
            failures.push_back(result);
        }
    }
    if (failures.empty()) {
        out << "second factor: in force\n";
        return 0;
    }
    out << "second factor: NOT in force, because\n";
    for (const CheckResult& failure : failures) {
        out << "  - " << failure.subject << ": " << failure.text << '\n';
    }
    out.flush();
    return 1;
}

} // namespace Agent
