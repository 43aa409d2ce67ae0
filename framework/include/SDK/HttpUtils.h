#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <Poco/AutoPtr.h>

namespace Poco { namespace Net { class Context; class Session; } }

namespace SDK {

/// HTTP(S) client of the agent.
///
/// - The token "SERVICE_ADDRESS" in a URL is replaced by the configured
///   verification service address (Framework::ConfigManager service.address).
/// - https:// URLs: the server certificate must chain to the configured CA
///   file (service.ca_file) and match the host name; nothing else is trusted.
/// - A call ends within the configured connect plus read time-out (5 s each
///   by default), whatever the server does: a stalled or dripping server, a
///   handshake that never finishes, a body that never ends. Bodies are
///   limited to 64 KiB.
/// - A TLS session of an earlier call to the same service is offered again
///   (resumption), as long as the CA file stays the same.
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

    /// Drops the cached TLS context and sessions so that the next request
    /// re-reads the CA file and makes a full handshake.
    void Reset();

private:
    HttpUtils() = default;
    int Send(const std::string& method, const std::string& url,
             const std::map<std::string, std::string>& params,
             const std::map<std::string, std::string>& headers, const std::string* body,
             std::map<std::string, std::string>& responseHeaders, std::string& responseBody,
             int expectedStatus);

    /// The client context for `caFile` and, in `resume`, the TLS session
    /// remembered for `endpoint` (host:port).
    Poco::AutoPtr<Poco::Net::Context> TlsFor(const std::string& caFile, const std::string& endpoint,
                                             Poco::AutoPtr<Poco::Net::Session>& resume);
    /// Keeps `session` for the next call to `endpoint` made with context `tls`.
    void RememberSession(const Poco::AutoPtr<Poco::Net::Context>& tls, const std::string& endpoint,
                         const Poco::AutoPtr<Poco::Net::Session>& session);

    std::mutex lock;
    std::string contextCaFile;
    std::shared_ptr<Poco::Net::Context> context;
    std::map<std::string, Poco::AutoPtr<Poco::Net::Session>> tlsSessions;
};

} // namespace SDK
