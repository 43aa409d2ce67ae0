#pragma once

#include <mutex>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>

namespace SDK {

/// The agent's logging: one POCO logger per module, named after the module,
/// writing to rotating files in the log directory and, when the host runs in
/// the foreground, to the console as well. A record costs its caller a copy
/// into a buffer; a writer thread per file formats and appends records every
/// few milliseconds, so logging stays off the callers' hot paths while
/// records reach the file within milliseconds. Nothing is dropped: Flush()
/// and the end of the process write everything logged before.
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

    /// Writes one record of `logger`, as Poco::Logger::log does with a
    /// message of these fields, but without building a Poco::Message when the
    /// logger writes to the agent's files: the record is copied straight into
    /// the file's buffer. The caller has checked the logger's level.
    static void Log(Poco::Logger& logger, Poco::Message::Priority priority, const char* file, int line,
                    const std::string& text);

    /// Returns once every record logged so far is written (the agent calls
    /// it when modules stop and before it exits).
    void Flush();

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
