#pragma once

#include <string>

namespace Agent {

/// Whether a file the agent acts on could have been changed by someone
/// other than the administrator. The agent runs as root and its inputs
/// decide what code it runs (module libraries) and how logins are checked
/// (configuration, policy files), so it takes them only from files that
/// root (or the agent's own user) owns and that neither group nor others
/// may write.
class FileTrust {
public:
    /// Empty when `path` is a regular file (or, with `directory`, a
    /// directory) that can be trusted; otherwise why not, in a few words.
    static std::string WhyUntrusted(const std::string& path, bool directory);
};

} // namespace Agent
