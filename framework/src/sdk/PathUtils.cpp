#include "SDK/PathUtils.h"

#include "Framework/ConfigManager.h"

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int PathUtils::GetInstallationPath(std::string& out)
{
    std::string path = Framework::ConfigManager::GetInstance()->GetInstallationPath();
    if (path.empty()) {
        return -1;
    }
    out = std::move(path);
    return 0;
}

} // namespace SDK
