#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Poco { namespace Net { class Context; } }

namespace SDK {

/// HTTP(S) client of the agent.
///
/// - The token "SERVICE_ADDRESS" in a URL is replaced by the configured
///   verification service address (Framework::ConfigManager service.address).
/// - https:// URLs: the server certificate must chain to the configured CA
///   file (service.ca_file) and match the host name; nothing else is trusted.
/// - Connect and read time-outs come from the configuration (10 s each by
///   default), so a hung service cannot block a caller for ever.
/// - A proxy is used only when the configuration names one, never from the
///   environment.
/// - Query parameters are URL-encoded and appended to the URL.
///
/// Get and Post return the HTTP status; -1 when no response was received
/// (connection, TLS or time-out failure, logged at error priority), so a
/// transport failure is never 200. `expectedStatus`: a response with another
/// status is logged at warning priority.
///
/// Thread-safe: every call uses its own connection.
class HttpUtils {
public:
    static HttpUtils* GetInstance();

    int Get(const std::string& url, const std::map<std::string, std::string>& params,
            const std::map<std::string, std::string>& headers,
            std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
            int expectedStatus);

    int Post(const std::string& url, const std::map<std::string, std::string>& params,
             const std::map<std::string, std::string>& headers, const std::string& body,
             std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
             int expectedStatus);

    /// Drops the cached TLS context so that the next request re-reads the CA file.
    void Reset();

private:
    HttpUtils() = default;
    int Send(const std::string& method, const std::string& url,
             const std::map<std::string, std::string>& params,
             const std::map<std::string, std::string>& headers, const std::string* body,
             std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
             int expectedStatus);

    std::mutex lock;
    std::string contextCaFile;
    std::shared_ptr<Poco::Net::Context> context;
};

} // namespace SDK
