#include "Framework/ConfigManager.h"

#include "SDK/FileUtils.h"
#include "SDK/StrUtils.h"

namespace Framework {

namespace {

// A token is one short line; a larger file is not a token file.
const long kMaxTokenFileBytes = 64 * 1024;

} // namespace

CommAuthManager* CommAuthManager::GetInstance()
{
    static CommAuthManager instance;
    return &instance;
}

std::string CommAuthManager::GetAuthToken() const
{
    const std::string path = ConfigManager::GetInstance()->GetAuthTokenFile();
    std::string content;
    if (path.empty() || SDK::FileUtils::ReadFile(path, content, kMaxTokenFileBytes) != 0) {
        return std::string();
    }
    std::string token = content.substr(0, content.find('\n'));
    SDK::StrUtils::Trim(token);
    return token;
}

} // namespace Framework
