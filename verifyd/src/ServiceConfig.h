#pragma once

#include <set>
#include <string>

namespace brackmoor::verifyd {

/// Everything brackmoor-verifyd takes from its INI file. verifyd/README.md
/// documents every key; the defaults below are the ones it names.
struct ServiceConfig {
    std::string listenAddress = "127.0.0.1";
    unsigned short listenPort = 8443; ///< 0 picks a free port (tests)
    int threads = 8;
    int requestTimeoutSeconds = 5; ///< handshake and request, or idle between requests
    int connectionsPerClient = 32; ///< open connections one address may hold
    int maxConnections = 1024;     ///< open connections in all
    std::set<std::string> trustedProxies; ///< addresses whose X-Forwarded-For counts

    std::string certificateFile;
    std::string privateKeyFile;

    std::string databasePath = "/var/lib/brackmoor-verifyd/verifyd.db";
    std::string databaseUrl; ///< postgresql://...; when set, used instead of databasePath
    std::string outboxDir = "/var/lib/brackmoor-verifyd/outbox";

    std::string smtpHost; ///< empty: mail goes to the outbox
    unsigned short smtpPort = 25;
    std::string smtpFrom;
    int smtpTimeoutSeconds = 10;

    std::string smsCommand; ///< empty: SMS go to the outbox
    int smsTimeoutSeconds = 10;

    int codesPerMinute = 3;
    int codesPerHour = 20;
    int authFailuresPerMinute = 10; ///< per client address, before it is throttled

    std::string logFile; ///< empty: standard error
    std::string logLevel = "information";

    /// Where the state is: the PostgreSQL URL when set, else the SQLite file.
    const std::string& DatabaseLocation() const
    {
        return databaseUrl.empty() ? databasePath : databaseUrl;
    }
};

/// Reads and checks the INI file at `path`. Relative paths inside it are taken
/// relative to the file's own folder, so a configuration can travel with its
/// certificate and database. Unknown keys are refused, because a misspelt key
/// would otherwise silently fall back to a default. On failure returns false
/// and sets `error` to one line naming the file and the key at fault.
bool LoadServiceConfig(const std::string& path, ServiceConfig& config, std::string& error);

} // namespace brackmoor::verifyd
