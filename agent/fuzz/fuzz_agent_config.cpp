// libFuzzer target: the agent's configuration file, through the whole load
// (INI clean-up, the framework's key checks, the host's keys and policy
// feeds). The clean-up must be idempotent, a refusal must be one line, and
// an accepted file must give absolute paths, named feeds and a service call
// bound below the PAM module's wait.

#include <stdlib.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "AgentConfig.h"
#include "ConfigKeys.h"
#include "ConfigValidator.h"
#include "Framework/ConfigManager.h"

namespace {

bool IsAbsolute(const std::string& path)
{
    return !path.empty() && path[0] == '/';
}

bool IsName(const std::string& name)
{
    return !name.empty() && name.find_first_of(" \t\r\n\v\f") == std::string::npos;
}

const std::string& ConfigPath()
{
    static const std::string path = [] {
        static std::string dir = "/tmp/brackmoor-fuzz-XXXXXX";
        if (mkdtemp(&dir[0]) == nullptr) {
            abort();
        }
        atexit([] { std::filesystem::remove_all(dir); });
        // Only a file that neither group nor others may write is read at all.
        std::ofstream(dir + "/agent.conf").close();
        chmod((dir + "/agent.conf").c_str(), 0600);
        return dir + "/agent.conf";
    }();
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using Framework::ConfigValidator;
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string cleaned;
    std::string again;
    std::string error;
    if (ConfigValidator::CleanIni(text, cleaned, error) &&
        (!ConfigValidator::CleanIni(cleaned, again, error) || again != cleaned)) {
        __builtin_trap();
    }
    std::ofstream(ConfigPath(), std::ios::binary | std::ios::trunc) << text;
    Agent::AgentSettings settings;
    error.clear();
    if (!Agent::AgentConfig::Load(ConfigPath(), "", settings, error)) {
        if (error.empty() || error.find('\n') != std::string::npos) {
            __builtin_trap();
        }
        return 0;
    }
    const Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    if (settings.feeds.empty() || !IsAbsolute(settings.moduleDir) || !IsAbsolute(settings.pidFile) ||
        !IsAbsolute(settings.stateDir) || !IsAbsolute(settings.logDir) || settings.installationPath.back() != '/' ||
        config->GetConnectTimeout() + config->GetReadTimeout() > Framework::ConfigKeys::kMaxCallSeconds) {
        __builtin_trap();
    }
    for (const Agent::PolicyFeed& feed : settings.feeds) {
        if (!IsAbsolute(feed.file) || !IsName(feed.module) || !IsName(feed.callback) || !IsName(feed.feature)) {
            __builtin_trap();
        }
    }
    return 0;
}
