// libFuzzer target: the agent's configuration file through the whole load.
// The INI clean-up must be idempotent, a refusal one line, and an accepted
// file must give absolute paths, named feeds and a service call bound below
// the PAM module's wait.

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

// A file in a private directory that only its owner may write, as the agent insists.
const std::string& ConfigPath()
{
    static const std::string path = [] {
        static std::string dir = "/tmp/brackmoor-fuzz-XXXXXX";
        if (mkdtemp(&dir[0]) == nullptr) {
            abort();
        }
        atexit([] { std::filesystem::remove_all(dir); });
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
    std::string cleaned, again, error;
    if (ConfigValidator::CleanIni(text, cleaned, error) &&
        (!ConfigValidator::CleanIni(cleaned, again, error) || again != cleaned)) {
        __builtin_trap();
    }
    std::ofstream(ConfigPath(), std::ios::binary | std::ios::trunc) << text;
    Agent::AgentSettings s;
    error.clear();
    if (!Agent::AgentConfig::Load(ConfigPath(), "", s, error)) {
        if (error.empty() || error.find('\n') != std::string::npos) {
            __builtin_trap();
        }
        return 0;
    }
    const Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    const auto absolute = [](const std::string& path) { return !path.empty() && path[0] == '/'; };
    if (s.feeds.empty() || !absolute(s.moduleDir) || !absolute(s.pidFile) || !absolute(s.stateDir) ||
        !absolute(s.logDir) || !absolute(s.installationPath) || s.installationPath.back() != '/' ||
        config->GetConnectTimeout() + config->GetReadTimeout() > Framework::ConfigKeys::kMaxCallSeconds) {
        __builtin_trap();
    }
    for (const Agent::PolicyFeed& feed : s.feeds) {
        const std::string names = feed.module + feed.callback + feed.feature;
        if (!absolute(feed.file) || feed.module.empty() || feed.callback.empty() || feed.feature.empty() ||
            names.find_first_of(" \t\r\n\v\f") != std::string::npos) {
            __builtin_trap();
        }
    }
    return 0;
}
