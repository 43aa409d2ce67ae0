#pragma once

#include <mutex>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>

namespace SDK {

/// The agent's logging: one POCO logger per module, named after the module,
/// writing to rotating files in the log directory and, when the host runs in
/// the foreground, to the console as well.
class LoggerUtils {
public:
    static LoggerUtils* GetInstance();

    /// Sets where records go from now on: `logDir` for the files (created
    /// when missing), `level` as a POCO level name or number, `console` to
    /// copy every record to standard error. Loggers handed out earlier are
    /// switched over (meant for start-up: a logger must not be in use by
    /// another thread while its channel is replaced). An empty `logDir`
    /// writes no files. 0 on success; non-zero, nothing changed, for an
    /// unknown level or a directory that cannot be created.
    int Configure(const std::string& logDir, const std::string& level, bool console);

    /// The logger of module `name`. With `ownFile` false the module writes to
    /// the agent's common file "agent.log"; with true to "<name>.log". Null
    /// only for an empty name. The logger lives until the process ends.
    /// Before Configure(), the settings come from Framework::ConfigManager
    /// (log.dir, log.level); while no configuration has been loaded and no
    /// log.dir set, records go to standard error only.
    Poco::Logger* GetModuleLogger(const std::string& name, bool ownFile);

private:
    LoggerUtils() = default;
    Poco::AutoPtr<Poco::Channel> ChannelFor(const std::string& fileName);

    std::mutex lock;
    std::string directory;
    int level = Poco::Message::PRIO_INFORMATION;
    bool toConsole = false;
    bool configured = false;
};

} // namespace SDK
