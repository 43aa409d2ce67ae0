#include "VerifydApplication.h"

#include <signal.h>

#include <iostream>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionSet.h>

#include "AdminCommand.h"
#include "Database.h"
#include "Service.h"

namespace brackmoor::verifyd {
namespace {

/// Sends every logger's output to the configured file (rotated at 10 MB,
/// five old files kept) or, without one, to standard error. The file is
/// opened here, so that an unusable path is a start-up error instead of an
/// exception in the first request that logs. false and `error` set then.
bool ConfigureLogging(const std::string& file, const std::string& level, const char* pattern,
                      std::string& error)
{
    Poco::AutoPtr<Poco::Channel> sink;
    if (file.empty()) {
        sink = new Poco::ConsoleChannel(std::cerr);
    } else {
        Poco::AutoPtr<Poco::FileChannel> rotating = new Poco::FileChannel(file);
        rotating->setProperty("rotation", "10 M");
        rotating->setProperty("archive", "number");
        rotating->setProperty("purgeCount", "5");
        try {
            rotating->open();
        } catch (const Poco::Exception& e) {
            error = file + ": cannot open the log file: " + e.displayText();
            return false;
        }
        sink = rotating;
    }
    Poco::AutoPtr<Poco::PatternFormatter> format = new Poco::PatternFormatter(pattern);
    Poco::AutoPtr<Poco::FormattingChannel> channel = new Poco::FormattingChannel(format, sink);
    // Loggers made later copy the root; those made before keep their own
    // copy of channel and level, so both are set on the whole tree too.
    Poco::Logger::root().setChannel(channel);
    Poco::Logger::root().setLevel(level);
    Poco::Logger::setChannel("", channel);
    Poco::Logger::setLevel("", Poco::Logger::parseLevel(level));
    return true;
}

/// Messages of the program and of the framework's start-up (a bad option,
/// say) as one line each on standard error.
void LogToConsole()
{
    std::string ignored;
    ConfigureLogging("", "warning", "brackmoor-verifyd: %t", ignored);
}

/// Blocks the termination signals in every thread still to come, so that only
/// waitForTerminationRequest() receives them and they cannot kill the process
/// in the middle of a request.
void BlockTerminationSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGQUIT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

} // namespace

VerifydApplication::VerifydApplication()
{
    LogToConsole();
}

void VerifydApplication::defineOptions(Poco::Util::OptionSet& options)
{
    ServerApplication::defineOptions(options);
    options.addOption(Poco::Util::Option("config", "c", "configuration file")
                          .required(false)
                          .repeatable(false)
                          .argument("FILE"));
    options.addOption(Poco::Util::Option("help", "h", "show this help").required(false));
}

void VerifydApplication::handleOption(const std::string& name, const std::string& value)
{
    ServerApplication::handleOption(name, value);
    if (name == "config") {
        // Absolute now: --daemon changes to "/" before the file is read.
        configPath = Poco::Path(value).absolute().toString();
    } else if (name == "help") {
        helpRequested = true;
        stopOptionsProcessing();
    }
}

int VerifydApplication::main(const std::vector<std::string>& args)
{
    if (helpRequested) {
        PrintHelp();
        return EXIT_OK;
    }
    const bool serving = args.empty() || args[0] == "serve";
    const std::string usage = serving ? (args.size() > 1 ? "serve takes no arguments" : "")
                                      : AdminCommand::CheckUsage(args);
    if (!usage.empty()) {
        std::cerr << "brackmoor-verifyd: " << usage << " (see --help)\n";
        return kBadConfiguration;
    }
    ServiceConfig config;
    std::string error;
    if (!LoadServiceConfig(configPath, config, error)) {
        std::cerr << "brackmoor-verifyd: " << error << "\n";
        return kBadConfiguration;
    }
    return serving ? Serve(config) : Administer(config, args);
}

int VerifydApplication::Serve(const ServiceConfig& config)
{
    std::string error;
    if (!ConfigureLogging(config.logFile, config.logLevel, "%Y-%m-%d %H:%M:%S.%i %q %s: %t",
                          error)) {
        std::cerr << "brackmoor-verifyd: " << error << "\n";
        return kBadConfiguration;
    }
    BlockTerminationSignals();
    Poco::Logger& log = Poco::Logger::get("verifyd");
    std::unique_ptr<Service> service = Service::Create(config, error);
    if (!service) {
        // Always the one line on standard error; the log file (if any) keeps
        // it too, next to the records of the runs before.
        std::cerr << "brackmoor-verifyd: " << error << "\n";
        if (!config.logFile.empty()) {
            log.fatal(error);
        }
        return kBadConfiguration;
    }
    service->Start();
    log.notice("listening on https://%s:%hu with %d threads", config.listenAddress,
               service->Port(), config.threads);
    waitForTerminationRequest();
    log.notice("stopping");
    service->Stop();
    return EXIT_OK;
}

int VerifydApplication::Administer(const ServiceConfig& config,
                                   const std::vector<std::string>& args)
{
    LogToConsole();
    std::string error;
    std::unique_ptr<Database> database = Database::Open(config.DatabaseLocation(), 2, error);
    if (!database) {
        std::cerr << "brackmoor-verifyd: " << error << "\n";
        return kBadConfiguration;
    }
    AdminCommand command(*database, std::cout, std::cerr);
    return command.Run(args);
}

void VerifydApplication::PrintHelp() const
{
    Poco::Util::HelpFormatter help(options());
    help.setCommand(commandName());
    help.setUsage("[--config FILE] [serve | agent add|remove|list ... | contact add|remove|list ...]");
    help.setHeader("The Brackmoor verification service and its administration commands.");
    help.setFooter(
        "  agent add ID                 register an agent; prints its token once\n"
        "  agent remove ID              remove an agent and its contacts\n"
        "  agent list                   list agents\n"
        "  contact add AGENT CONTACT    register a phone number (E.164) or mail address\n"
        "  contact remove AGENT CONTACT remove a contact\n"
        "  contact list AGENT           list an agent's contacts with their hashes");
    help.format(std::cout);
}

} // namespace brackmoor::verifyd
