#pragma once

// Keys of the agent's configuration file and the defaults of optional keys.

namespace Framework {
namespace ConfigKeys {

constexpr const char* kAgentId = "agent.id";
constexpr const char* kInstallationPath = "agent.installation_path";
constexpr const char* kServiceAddress = "service.address";
constexpr const char* kCaFile = "service.ca_file";
constexpr const char* kAuthTokenFile = "service.auth_token_file";
constexpr const char* kConnectTimeout = "service.connect_timeout";
constexpr const char* kReadTimeout = "service.read_timeout";
constexpr const char* kProxyHost = "service.proxy_host";
constexpr const char* kProxyPort = "service.proxy_port";
constexpr const char* kLogDir = "log.dir";
constexpr const char* kLogLevel = "log.level";

constexpr const char* kDefaultInstallationPath = "/opt/brackmoor/";
constexpr int kDefaultTimeoutSeconds = 5;
constexpr int kMinTimeoutSeconds = 1;
// A whole call to the verification service ends within connect plus read
// time-out; the PAM module waits 30 s for the agent's reply, so the sum
// stays below that with room for a request queued behind another.
constexpr int kMaxCallSeconds = 25;
constexpr int kMaxTimeoutSeconds = kMaxCallSeconds - kMinTimeoutSeconds;
constexpr int kDefaultProxyPort = 3128;
constexpr const char* kDefaultLogDir = "/var/log/brackmoor";
constexpr const char* kDefaultLogLevel = "information";

// The configuration file is small; anything larger is refused unread.
constexpr long kMaxConfigFileBytes = 1024 * 1024;

} // namespace ConfigKeys
} // namespace Framework
