#pragma once

#include "CommandLine.h"

namespace Agent {

/// Exit statuses of brackmoor-agent.
enum ExitStatus {
    kExitOk = 0,           ///< clean shut-down, or the asked information printed
    kExitFailure = 1,      ///< could not run: another instance, unusable log directory, signal setup
    kExitConfigError = 2,  ///< bad command line or configuration file
};

/// The agent host process: configuration, single-instance lock, logging,
/// modules, policy delivery and the signal loop, then the shut-down.
/// It stays in the foreground in every case (systemd runs it as
/// Type=simple); --foreground only adds console logging.
class Host {
public:
    /// Runs the agent until SIGTERM or SIGINT; the process exit status.
    static int Run(const CommandLine& options);

    /// Writes "brackmoor-agent: <text>" as one line on standard error.
    static void PrintError(const std::string& text);
};

} // namespace Agent
