// Shared by the module's fuzz targets: one task whose files all live in a
// private temporary directory, whose log records are formatted but thrown
// away, and which can never restart sshd.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Framework/ConfigManager.h"
#include "SDK/LoggerUtils.h"
#include "SDK/StrUtils.h"
#include "TestSupport/TempDir.h"
#include "TwoFactorAuthenticationTask.h"

namespace Fuzz {

using TestSupport::ReadWholeFile;

inline void Write(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

/// The task, made on first use. Its files lie in a directory on tmpfs where
/// there is one, as every rewrite syncs; the directory goes at exit.
inline Engine::TwoFactorAuthenticationTask& Task()
{
    static Engine::TwoFactorAuthenticationTask* task = [] {
        // Without an installation path the restart is refused, not run.
        Framework::ConfigManager::GetInstance()->Set("agent.installation_path", "");
        // No log directory and no console: every record is formatted, then dropped.
        SDK::LoggerUtils::GetInstance()->Configure("", "trace", false);
        static std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm/brackmoor-fuzz-XXXXXX"
                                                                : "/tmp/brackmoor-fuzz-XXXXXX";
        if (mkdtemp(&dir[0]) == nullptr) {
            abort();
        }
        atexit([] { std::filesystem::remove_all(dir); });
        auto* made = new Engine::TwoFactorAuthenticationTask;
        made->pamDir = dir + "/";
        made->sshdConfigPath = dir + "/sshd_config";
        made->pamSshdPath = dir + "/sshd";
        made->pamIncludePath = dir + "/brackmoor-auth";
        return made;
    }();
    return *task;
}

/// The lines of `text`, trimmed, without the empty ones and, when `active`,
/// without comments: what sshd takes from the file.
inline std::vector<std::string> Lines(const std::string& text, bool active)
{
    std::vector<std::string> lines;
    SDK::StrUtils::Split(text, "\n", lines);
    std::vector<std::string> kept;
    for (std::string& line : lines) {
        SDK::StrUtils::Trim(line);
        if (!line.empty() && !(active && line[0] == '#')) {
            kept.push_back(line);
        }
    }
    return kept;
}

} // namespace Fuzz
