#include "SDK/LoggerUtils.h"

#include <cstdint>
#include <exception>
#include <map>

#include <Poco/Thread.h>

#include "AsyncLogChannel.h"
#include "Framework/ConfigManager.h"
#include "SDK/DirUtils.h"

namespace SDK {

namespace {

const char* const kCommonFile = "agent.log";
const std::uint64_t kRotateBytes = 10 * 1024 * 1024;
const int kArchivesKept = 5;
const unsigned int kLogDirMode = 0750;

/// Loggers handed out so far (name -> file name) and the channel of each
/// file, shared by all loggers writing to it. Guarded by LoggerUtils::lock.
struct Registry {
    std::map<std::string, std::string> loggerFiles;
    std::map<std::string, AsyncLogChannel::Ptr> fileChannels;
};

Registry& TheRegistry()
{
    static Registry registry;
    return registry;
}

/// A file name derived from a module name: no directory parts.
std::string OwnFileName(const std::string& name)
{
    std::string file = name;
    for (char& c : file) {
        if (c == '/') {
            c = '_';
        }
    }
    return file + ".log";
}

int ParseLevel(const std::string& level, int& out)
{
    try {
        out = Poco::Logger::parseLevel(level);
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

} // namespace

LoggerUtils* LoggerUtils::GetInstance()
{
    static LoggerUtils instance;
    return &instance;
}

int LoggerUtils::Configure(const std::string& logDir, const std::string& levelName, bool console)
{
    int parsed = 0;
    if (ParseLevel(levelName, parsed) != 0 || (!logDir.empty() && DirUtils::MakeDirs(logDir, kLogDirMode) != 0)) {
        return -1;
    }
    std::lock_guard<std::mutex> guard(lock);
    directory = logDir;
    level = parsed;
    toConsole = console;
    configured = true;
    Registry& registry = TheRegistry();
    // The former channels write what they hold as they go.
    registry.fileChannels.clear();
    try {
        for (const auto& entry : registry.loggerFiles) {
            Poco::Logger& logger = Poco::Logger::get(entry.first);
            logger.setChannel(ChannelFor(entry.second));
            logger.setLevel(level);
        }
    } catch (const std::exception&) {
        return -1;
    }
    return 0;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool ownFile)
{
    if (name.empty()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(lock);
    try {
        if (!configured) {
            // Until the host configures logging, follow the configuration
            // file; with none loaded, write to standard error only.
            const Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
            const bool haveConfig = !config->GetConfigPath().empty() || !config->GetString("log.dir", "").empty();
            directory = haveConfig ? config->GetLogDir() : std::string();
            toConsole = !haveConfig;
            if (ParseLevel(config->GetLogLevel(), level) != 0) {
                level = Poco::Message::PRIO_INFORMATION;
            }
            if (!directory.empty()) {
                DirUtils::MakeDirs(directory, kLogDirMode);
            }
            configured = true;
        }
        Poco::Logger& logger = Poco::Logger::get(name);
        Registry& registry = TheRegistry();
        if (registry.loggerFiles.count(name) == 0) {
            const std::string file = ownFile ? OwnFileName(name) : kCommonFile;
            logger.setChannel(ChannelFor(file));
            logger.setLevel(level);
            registry.loggerFiles[name] = file;
        }
        return &logger;
    } catch (const std::exception&) {
        return nullptr;
    }
}

Poco::AutoPtr<Poco::Channel> LoggerUtils::ChannelFor(const std::string& fileName)
{
    Registry& registry = TheRegistry();
    auto found = registry.fileChannels.find(fileName);
    if (found != registry.fileChannels.end()) {
        return Poco::AutoPtr<Poco::Channel>(found->second.get(), true);
    }
    const std::string path = directory.empty() ? std::string() : directory + "/" + fileName;
    AsyncLogChannel::Ptr channel(new AsyncLogChannel(path, toConsole, kRotateBytes, kArchivesKept));
    registry.fileChannels[fileName] = channel;
    return Poco::AutoPtr<Poco::Channel>(channel.get(), true);
}

void LoggerUtils::Log(Poco::Logger& logger, Poco::Message::Priority priority, const char* file, int line,
                      const std::string& text)
{
    Poco::Channel::Ptr channel = logger.getChannel();
    if (auto* own = dynamic_cast<AsyncLogChannel*>(channel.get())) {
        own->Append(Poco::Timestamp().epochMicroseconds(), priority, logger.name(), text, file, line);
        return;
    }
    // Poco::Message's constructor asks the kernel for the process id, a
    // system call that costs more than the rest of a record; copies of one
    // message made once carry it without asking.
    static const Poco::Message prototype;
    Poco::Message message(prototype, text);
    message.setSource(logger.name());
    message.setPriority(priority);
    message.setSourceFile(file);
    message.setSourceLine(line);
    message.setTime(Poco::Timestamp());
    message.setTid(static_cast<long>(Poco::Thread::currentTid()));
    logger.log(message);
}

void LoggerUtils::Flush()
{
    std::lock_guard<std::mutex> guard(lock);
    for (auto& entry : TheRegistry().fileChannels) {
        entry.second->flush();
    }
}

} // namespace SDK
