#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace brackmoor::verifyd {

/// How a command run by RunCommand ended.
struct CommandResult {
    enum class Outcome {
        Exited,     ///< it exited by itself; `status` is its exit code
        Signalled,  ///< a signal ended it; `status` is the signal number
        TimedOut,   ///< it outlived its time and was killed with its process group
        NotStarted, ///< it could not be started; `output` says why
    };

    Outcome outcome = Outcome::NotStarted;
    int status = -1;
    std::string output; ///< the first line of its standard output and error, for log lines

    bool Succeeded() const { return outcome == Outcome::Exited && status == 0; }
};

/// Runs `argv[0]` (an absolute path) with the arguments `argv` and waits at
/// most `timeout` for it.
///
/// Started with posix_spawn, never through a shell, so no argument is ever
/// interpreted. The command gets /dev/null as input, a pipe as output and
/// error, no other open descriptor of this process (the listening socket
/// included), default signal handling, an environment of PATH and LANG only,
/// and a process group of its own, which is killed as a whole on time-out.
/// Thread-safe; needs Linux 5.3 or later (pidfd_open).
CommandResult RunCommand(const std::vector<std::string>& argv, std::chrono::milliseconds timeout);

} // namespace brackmoor::verifyd
