#pragma once

#include <mutex>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

namespace Framework {

/// The agent's configuration, read from one INI file whose path the host
/// process passes to Load(). Keys (section.key):
///
///   agent.id                  agent identifier sent to the verification service (required)
///   agent.installation_path   installation directory, default "/opt/brackmoor/" (a
///                             trailing slash is added when missing)
///   service.address           verification service as host[:port] (required)
///   service.ca_file           CA certificates that the service's certificate must chain to (required)
///   service.auth_token_file   file holding the agent's token (required)
///   service.connect_timeout   seconds, default 10 (1..300)
///   service.read_timeout      seconds, default 10 (1..300)
///   service.proxy_host        HTTPS proxy host, default none; proxies come only from here,
///   service.proxy_port        never from the environment (default 3128 when a host is set)
///   log.dir                   directory of the rotating log files, default "/var/log/brackmoor"
///   log.level                 POCO level name or number, default "information"
///
/// Other keys (the host's own) are reachable through GetString/GetInt.
/// Thread-safe: every accessor copies under a lock.
class ConfigManager {
public:
    static ConfigManager* GetInstance();

    /// Loads and validates `path`. 0 on success; otherwise non-zero, the
    /// previous configuration kept, and `error` a one-line message naming the
    /// file and, where one is at fault, the key.
    int Load(const std::string& path, std::string& error);

    /// Sets one key in memory (tests, command-line overrides).
    void Set(const std::string& key, const std::string& value);

    std::string GetAgentId() const;
    std::string GetInstallationPath() const;
    std::string GetServiceAddress() const;
    std::string GetCaFile() const;
    std::string GetAuthTokenFile() const;
    int GetConnectTimeout() const;
    int GetReadTimeout() const;
    std::string GetProxyHost() const;
    int GetProxyPort() const;
    std::string GetLogDir() const;
    std::string GetLogLevel() const;
    /// The file Load() read, empty before.
    std::string GetConfigPath() const;

    std::string GetString(const std::string& key, const std::string& defaultValue) const;
    int GetInt(const std::string& key, int defaultValue) const;

private:
    ConfigManager();

    mutable std::mutex lock;
    Poco::AutoPtr<Poco::Util::AbstractConfiguration> config;
    std::string configPath;
};

/// The agent's authentication towards the verification service.
class CommAuthManager {
public:
    static CommAuthManager* GetInstance();

    /// The current token: the first line of the configured token file, trimmed,
    /// read anew on every call so that a rotated token takes effect at once.
    /// Empty when the file cannot be read.
    std::string GetAuthToken() const;

private:
    CommAuthManager() = default;
};

} // namespace Framework
