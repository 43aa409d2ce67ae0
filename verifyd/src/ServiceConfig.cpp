#include "ServiceConfig.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Path.h>
#include <Poco/Util/IniFileConfiguration.h>

#include "PostgresUrl.h"

namespace brackmoor::verifyd {
namespace {

using Poco::Util::AbstractConfiguration;

/// Parses a whole decimal integer in [low, high].
bool ParseInt(const std::string& text, long low, long high, long& value)
{
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

/// Reads typed keys one after the other and remembers the first error.
class KeyReader {
public:
    KeyReader(const AbstractConfiguration& source, std::string path, std::string base)
        : ini(source), file(std::move(path)), folder(std::move(base))
    {
    }

    void Text(const std::string& key, std::string& target)
    {
        if (ini.hasProperty(key)) {
            target = ini.getString(key);
        }
    }

    void Path(const std::string& key, std::string& target)
    {
        Text(key, target);
        if (!target.empty()) {
            target = Poco::Path(folder).resolve(Poco::Path(target)).toString();
        }
    }

    template <typename T>
    void Int(const std::string& key, long low, long high, T& target)
    {
        if (!ini.hasProperty(key)) {
            return;
        }
        long value = 0;
        if (!ParseInt(ini.getString(key), low, high, value)) {
            Fail(key, "expected an integer from " + std::to_string(low) + " to " +
                          std::to_string(high));
            return;
        }
        target = static_cast<T>(value);
    }

    /// A list of IP addresses separated by blanks or commas.
    void Addresses(const std::string& key, std::set<std::string>& target)
    {
        if (!ini.hasProperty(key)) {
            return;
        }
        std::string text = ini.getString(key);
        std::replace(text.begin(), text.end(), ',', ' ');
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            Poco::Net::IPAddress address;
            if (!Poco::Net::IPAddress::tryParse(word, address)) {
                Fail(key, "not an IP address: " + word);
                return;
            }
            target.insert(address.toString());
        }
    }

    void Fail(const std::string& key, const std::string& why)
    {
        if (error.empty()) {
            error = file + ": " + key + ": " + why;
        }
    }

    std::string error;

private:
    const AbstractConfiguration& ini;
    std::string file;
    std::string folder;
};

const std::set<std::string>& KnownKeys()
{
    static const std::set<std::string> keys = {
        "server.address",          "server.port",
        "server.threads",          "server.request_timeout",
        "server.connections_per_client", "server.max_connections",
        "server.trusted_proxies",  "tls.certificate",
        "tls.private_key",         "database.path",
        "database.url",            "outbox.directory",
        "smtp.host",               "smtp.port",
        "smtp.from",               "smtp.timeout",
        "sms.command",             "sms.timeout",
        "limits.codes_per_minute", "limits.codes_per_hour",
        "limits.auth_failures_per_minute", "log.file",
        "log.level",
    };
    return keys;
}

/// The first key of the file that this program does not know, or "".
std::string FirstUnknownKey(const AbstractConfiguration& ini)
{
    AbstractConfiguration::Keys sections;
    ini.keys(sections);
    for (const std::string& section : sections) {
        AbstractConfiguration::Keys keys;
        ini.keys(section, keys);
        if (keys.empty()) {
            return section; // a key outside any section
        }
        for (const std::string& key : keys) {
            const std::string full = section + "." + key;
            if (KnownKeys().count(full) == 0) {
                return full;
            }
        }
    }
    return "";
}

void ReadKeys(KeyReader& read, ServiceConfig& config)
{
    read.Text("server.address", config.listenAddress);
    read.Int("server.port", 0, 65535, config.listenPort);
    read.Int("server.threads", 1, 256, config.threads);
    read.Int("server.request_timeout", 1, 300, config.requestTimeoutSeconds);
    read.Int("server.connections_per_client", 1, 100000, config.connectionsPerClient);
    read.Int("server.max_connections", 16, 100000, config.maxConnections);
    read.Addresses("server.trusted_proxies", config.trustedProxies);
    read.Path("tls.certificate", config.certificateFile);
    read.Path("tls.private_key", config.privateKeyFile);
    read.Path("database.path", config.databasePath);
    read.Text("database.url", config.databaseUrl);
    read.Path("outbox.directory", config.outboxDir);
    read.Text("smtp.host", config.smtpHost);
    read.Int("smtp.port", 1, 65535, config.smtpPort);
    read.Text("smtp.from", config.smtpFrom);
    read.Int("smtp.timeout", 1, 300, config.smtpTimeoutSeconds);
    read.Path("sms.command", config.smsCommand);
    read.Int("sms.timeout", 1, 300, config.smsTimeoutSeconds);
    read.Int("limits.codes_per_minute", 1, 1000000, config.codesPerMinute);
    read.Int("limits.codes_per_hour", 1, 1000000, config.codesPerHour);
    read.Int("limits.auth_failures_per_minute", 1, 1000000, config.authFailuresPerMinute);
    read.Path("log.file", config.logFile);
    read.Text("log.level", config.logLevel);
}

void CheckValues(KeyReader& read, const ServiceConfig& config, const AbstractConfiguration& ini)
{
    if (ini.hasProperty("database.path") && ini.hasProperty("database.url")) {
        read.Fail("database.url", "set either database.path (SQLite) or database.url (PostgreSQL)");
    }
    if (config.listenAddress.empty()) {
        read.Fail("server.address", "must not be empty");
    }
    if (config.certificateFile.empty()) {
        read.Fail("tls.certificate", "is required");
    }
    if (config.privateKeyFile.empty()) {
        read.Fail("tls.private_key", "is required");
    }
    if (config.databasePath.empty()) {
        read.Fail("database.path", "must not be empty");
    }
    std::string why;
    std::string keywords;
    if (!config.databaseUrl.empty() && !PostgresConnectionString(config.databaseUrl, keywords, why)) {
        read.Fail("database.url", why);
    }
    if (config.outboxDir.empty()) {
        read.Fail("outbox.directory", "must not be empty");
    }
    if (!config.smtpHost.empty() && config.smtpFrom.empty()) {
        read.Fail("smtp.from", "is required when smtp.host is set");
    }
    try {
        Poco::Logger::parseLevel(config.logLevel);
    } catch (const Poco::Exception&) {
        read.Fail("log.level", "unknown level \"" + config.logLevel + "\"");
    }
}

} // namespace

bool LoadServiceConfig(const std::string& path, ServiceConfig& config, std::string& error)
{
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> ini;
    try {
        ini = new Poco::Util::IniFileConfiguration(path);
    } catch (const Poco::Exception& e) {
        error = path + ": cannot read: " + e.displayText();
        return false;
    }
    const std::string unknown = FirstUnknownKey(*ini);
    if (!unknown.empty()) {
        error = path + ": " + unknown + ": unknown key";
        return false;
    }
    const std::string folder = Poco::Path(path).absolute().parent().toString();
    KeyReader read(*ini, path, folder);
    ServiceConfig loaded;
    ReadKeys(read, loaded);
    CheckValues(read, loaded, *ini);
    if (!read.error.empty()) {
        error = read.error;
        return false;
    }
    config = loaded;
    return true;
}

} // namespace brackmoor::verifyd
