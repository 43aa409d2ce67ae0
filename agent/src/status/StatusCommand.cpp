#include "StatusCommand.h"

#include <string>

#include "AgentConfig.h"
#include "AgentProcessCheck.h"
#include "ModuleCopiesCheck.h"
#include "PamIncludeCheck.h"
#include "PamServiceCheck.h"
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

/// The pid file the agent would lock, from the configuration when it loads.
std::string PidFilePath(const CommandLine& options, const StatusPaths& paths, CheckResults& results)
{
    const std::string config = options.configGiven ? options.configPath : paths.Under(options.configPath);
    if (!options.configGiven && !TextFile::Exists(config)) {
        return paths.Under(AgentConfig::kDefaultPidFile);
    }
    AgentSettings settings;
    std::string error;
    if (!AgentConfig::Load(config, "", settings, error)) {
        results.push_back({CheckLevel::Warning, "configuration", error});
        return paths.Under(AgentConfig::kDefaultPidFile);
    }
    return paths.Under(settings.pidFile);
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
    Append(results, SshdEffectiveCheck::Inspect(paths, options.sshdPath));
    const std::string pidFile = PidFilePath(options, paths, results);
    Append(results, AgentProcessCheck::Inspect(pidFile, arguments));

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
