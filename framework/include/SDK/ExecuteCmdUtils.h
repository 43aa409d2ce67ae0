#pragma once

#include <string>

namespace SDK {

class ExecuteCmdUtils {
public:
    /// Runs `command` through /bin/sh -c in a process group of its own, with
    /// standard input from /dev/null and standard output and error captured.
    /// Keeps at most `maxOutput` bytes of output. Returns when the shell
    /// exits, without waiting for background children that keep the output
    /// open; after `timeoutSeconds` (120 when not positive) the whole group
    /// is killed. Returns the shell's exit status, or -1 when it could not be
    /// started, was killed or timed out.
    static int ExecuteCmd(const std::string& command, std::string& output, unsigned long maxOutput,
                          int timeoutSeconds = 120);
};

} // namespace SDK
