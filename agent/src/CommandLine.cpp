#include "CommandLine.h"

#include <cstddef>

namespace Agent {

namespace {

/// Where an option may appear.
enum class Scope {
    Run,     ///< only when running the agent
    Status,  ///< only with the status command
    Both,    ///< with either
};

struct ValueOption {
    const char* name;
    Scope scope;
    std::string CommandLine::*target;
};

const ValueOption kValueOptions[] = {
    {"--config", Scope::Both, &CommandLine::configPath},
    {"--policy", Scope::Run, &CommandLine::policyPath},
    {"--root", Scope::Status, &CommandLine::rootDir},
    {"--sshd", Scope::Status, &CommandLine::sshdPath},
    {"--user", Scope::Status, &CommandLine::user},
};

bool InScope(Scope scope, bool status)
{
    return scope == Scope::Both || (scope == Scope::Status) == status;
}

CommandLine Invalid(const std::string& why)
{
    CommandLine result;
    result.command = Command::Invalid;
    result.error = why;
    return result;
}

} // namespace

CommandLine CommandLine::Parse(const std::vector<std::string>& args)
{
    CommandLine result;
    std::size_t i = 0;
    const bool status = !args.empty() && args[0] == "status";
    if (status) {
        result.command = Command::Status;
        ++i;
    }
    for (; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            result.command = Command::Help;
            return result;
        }
        if (arg == "--version") {
            result.command = Command::Version;
            return result;
        }
        if (arg == "--foreground" && !status) {
            result.foreground = true;
            continue;
        }
        const ValueOption* option = nullptr;
        std::string value;
        bool inlineValue = false;
        for (const ValueOption& candidate : kValueOptions) {
            const std::string name = candidate.name;
            if (arg == name || arg.compare(0, name.size() + 1, name + "=") == 0) {
                option = &candidate;
                inlineValue = arg.size() > name.size();
                value = inlineValue ? arg.substr(name.size() + 1) : std::string();
                break;
            }
        }
        if (option == nullptr || !InScope(option->scope, status)) {
            return Invalid("unknown " + std::string(arg.rfind("-", 0) == 0 ? "option " : "argument ") + arg);
        }
        if (!inlineValue) {
            if (i + 1 >= args.size()) {
                return Invalid("option " + arg + " needs a value");
            }
            value = args[++i];
        }
        if (value.empty()) {
            return Invalid("option " + std::string(option->name) + " needs a value");
        }
        result.*(option->target) = value;
        if (option->target == &CommandLine::configPath) {
            result.configGiven = true;
        }
    }
    return result;
}

std::string CommandLine::Usage()
{
    return "Usage:\n"
           "  brackmoor-agent [--config PATH] [--policy PATH] [--foreground]\n"
           "      Runs the agent: loads the modules of the module directory, pushes them\n"
           "      their policy files, re-reads the policy files on SIGHUP and shuts the\n"
           "      modules down on SIGTERM or SIGINT.\n"
           "  brackmoor-agent status [--config PATH] [--root DIR] [--sshd PATH] [--user NAME]\n"
           "      Tells from the files alone whether the second factor is in force;\n"
           "      exit status 0 only when it is.\n"
           "  brackmoor-agent --help | --version\n"
           "\n"
           "Options:\n"
           "  --config PATH   agent configuration (default /etc/brackmoor/agent.conf)\n"
           "  --policy PATH   policy file of the first policy feed, instead of the configured one\n"
           "  --foreground    log to standard error as well as to the log files\n"
           "  --root DIR      status: look at DIR/etc/ssh, DIR/etc/pam.d, DIR/lib... instead of /\n"
           "  --sshd PATH     status: the sshd binary asked for its effective settings\n"
           "  --user NAME     status: sshd's settings for NAME's logins (its Match blocks applied)\n"
           "                  (default /usr/sbin/sshd; skipped when it does not exist)\n"
           "\n"
           "Exit status: 0 success; 1 runtime failure (another instance runs, the log\n"
           "directory cannot be used), or for status: the second factor is not in force;\n"
           "2 bad command line or configuration.\n";
}

} // namespace Agent
