#include "Framework/ConfigManager.h"

#include <cstring>
#include <exception>
#include <sstream>

#include <Poco/Util/IniFileConfiguration.h>

#include "ConfigKeys.h"
#include "ConfigValidator.h"
#include "SDK/FileUtils.h"

namespace Framework {

using namespace ConfigKeys;

namespace {

int IntInRange(const ConfigManager& manager, const char* key, int low, int high, int defaultValue)
{
    const int value = manager.GetInt(key, defaultValue);
    return value >= low && value <= high ? value : defaultValue;
}

} // namespace

ConfigManager* ConfigManager::GetInstance()
{
    static ConfigManager instance;
    return &instance;
}

ConfigManager::ConfigManager() : config(new Poco::Util::IniFileConfiguration) {}

int ConfigManager::Load(const std::string& path, std::string& error)
{
    std::string text;
    if (SDK::FileUtils::ReadFile(path, text, kMaxConfigFileBytes) != 0) {
        error = path + ": cannot read: " + std::strerror(errno);
        return -1;
    }
    std::string cleaned;
    std::string problem;
    if (!ConfigValidator::CleanIni(text, cleaned, problem)) {
        error = path + ": " + problem;
        return -1;
    }
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> loaded;
    try {
        std::istringstream stream(cleaned);
        loaded = new Poco::Util::IniFileConfiguration(stream);
    } catch (const std::exception& e) {
        error = path + ": malformed: " + e.what();
        return -1;
    }
    if (!ConfigValidator::Validate(*loaded, problem)) {
        error = path + ": " + problem;
        return -1;
    }
    std::lock_guard<std::mutex> guard(lock);
    config = loaded;
    configPath = path;
    return 0;
}

void ConfigManager::Set(const std::string& key, const std::string& value)
{
    std::lock_guard<std::mutex> guard(lock);
    config->setString(key, value);
}

std::string ConfigManager::GetAgentId() const
{
    return GetString(kAgentId, "");
}

std::string ConfigManager::GetInstallationPath() const
{
    std::string path = GetString(kInstallationPath, kDefaultInstallationPath);
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    return path;
}

std::string ConfigManager::GetServiceAddress() const
{
    return GetString(kServiceAddress, "");
}

std::string ConfigManager::GetCaFile() const
{
    return GetString(kCaFile, "");
}

std::string ConfigManager::GetAuthTokenFile() const
{
    return GetString(kAuthTokenFile, "");
}

int ConfigManager::GetConnectTimeout() const
{
    return IntInRange(*this, kConnectTimeout, kMinTimeoutSeconds, kMaxTimeoutSeconds, kDefaultTimeoutSeconds);
}

int ConfigManager::GetReadTimeout() const
{
    return IntInRange(*this, kReadTimeout, kMinTimeoutSeconds, kMaxTimeoutSeconds, kDefaultTimeoutSeconds);
}

std::string ConfigManager::GetProxyHost() const
{
    return GetString(kProxyHost, "");
}

int ConfigManager::GetProxyPort() const
{
    return IntInRange(*this, kProxyPort, 1, 65535, kDefaultProxyPort);
}

std::string ConfigManager::GetLogDir() const
{
    return GetString(kLogDir, kDefaultLogDir);
}

std::string ConfigManager::GetLogLevel() const
{
    return GetString(kLogLevel, kDefaultLogLevel);
}

std::string ConfigManager::GetConfigPath() const
{
    std::lock_guard<std::mutex> guard(lock);
    return configPath;
}

std::string ConfigManager::GetString(const std::string& key, const std::string& defaultValue) const
{
    std::lock_guard<std::mutex> guard(lock);
    // Raw: values are taken literally, "${...}" is not expanded.
    return config->getRawString(key, defaultValue);
}

int ConfigManager::GetInt(const std::string& key, int defaultValue) const
{
    int value = 0;
    return ConfigValidator::ParseInt(GetString(key, ""), value) ? value : defaultValue;
}

} // namespace Framework
