#pragma once

#include <string>
#include <vector>

namespace Agent {

/// What the command line asks for.
enum class Command {
    Run,      ///< run the agent until SIGTERM/SIGINT
    Status,   ///< report whether the second factor is in force, from the files alone
    Help,     ///< print the usage text
    Version,  ///< print the version
    Invalid,  ///< the command line could not be understood; see CommandLine::error
};

/// The parsed command line of brackmoor-agent:
///   brackmoor-agent [--config PATH] [--policy PATH] [--foreground]
///   brackmoor-agent status [--config PATH] [--root DIR] [--sshd PATH]
///   brackmoor-agent --help | --version
/// Options take their value as the next word or after "=".
struct CommandLine {
    static constexpr const char* kDefaultConfigPath = "/etc/brackmoor/agent.conf";
    static constexpr const char* kDefaultSshdPath = "/usr/sbin/sshd";

    /// Parses `args` (without the program name); never throws.
    static CommandLine Parse(const std::vector<std::string>& args);

    /// The text printed by --help.
    static std::string Usage();

    Command command = Command::Run;
    std::string configPath = kDefaultConfigPath;
    bool configGiven = false;   ///< --config was on the command line
    std::string policyPath;     ///< --policy, empty when not given
    bool foreground = false;    ///< --foreground: log to standard error as well
    std::string rootDir;        ///< status --root: prefix of every system path
    std::string sshdPath = kDefaultSshdPath;  ///< status --sshd: the sshd binary asked for -T
    std::string user;           ///< status --user: sshd's settings for this user's connection
    std::string error;          ///< why the command line is Invalid
};

} // namespace Agent
