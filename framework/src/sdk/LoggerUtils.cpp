#include "SDK/LoggerUtils.h"

#include <exception>
#include <map>

#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/SplitterChannel.h>

#include "Framework/ConfigManager.h"
#include "LocationFormatter.h"
#include "SDK/DirUtils.h"

namespace SDK {

namespace {

const char* const kCommonFile = "agent.log";
const char* const kRotateSize = "10 M";
const char* const kArchivesKept = "5";
const unsigned int kLogDirMode = 0750;

/// Loggers handed out so far (name -> file name) and the channel of each
/// file, shared by all loggers writing to it. Guarded by LoggerUtils::lock.
struct Registry {
    std::map<std::string, std::string> loggerFiles;
    std::map<std::string, Poco::AutoPtr<Poco::Channel>> fileChannels;
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

Poco::AutoPtr<Poco::Channel> Formatted(const Poco::Channel::Ptr& channel)
{
    return new Poco::FormattingChannel(new LocationFormatter, channel);
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
        return found->second;
    }
    Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
    // Console first: a file that cannot be opened throws, and the console
    // copy should still have been written.
    if (toConsole) {
        splitter->addChannel(Formatted(Poco::Channel::Ptr(new Poco::ConsoleChannel)));
    }
    if (!directory.empty()) {
        Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(directory + "/" + fileName));
        file->setProperty(Poco::FileChannel::PROP_ROTATION, kRotateSize);
        file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
        file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, kArchivesKept);
        splitter->addChannel(Formatted(file));
    }
    Poco::AutoPtr<Poco::Channel> channel(splitter);
    registry.fileChannels[fileName] = channel;
    return channel;
}

} // namespace SDK
