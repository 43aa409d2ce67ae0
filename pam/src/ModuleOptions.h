#pragma once

#include <string>
#include <vector>

namespace brackmoor::pam {

/// How long the module waits for the agent's answer to one request. The
/// agent ends every call to the verification service within its connect and
/// read time-outs together, which it caps at 25 s; waiting longer than that
/// lets a slow but working service still get its answer through, so that a
/// reply is never lost to this side giving up first.
constexpr int kDefaultReplyTimeoutMs = 30000;
/// Bounds of the test-only "timeout_ms=" argument.
constexpr int kMinReplyTimeoutMs = 100;
constexpr int kMaxReplyTimeoutMs = 60000;

/// The settings of one module line, taken from its arguments
/// ("refresh_time=301 echo=1 local=0 exclude_user_list=u1;u2").
///
/// Parsing never fails: an argument that is unknown or malformed is recorded
/// in `problems` (for the log) and leaves the setting at its safe default.
struct ModuleOptions {
    /// local=1: the code is a time-based one-time password checked on this
    /// host; any other value (or none) asks the agent's verification service.
    bool localMode = false;
    /// echo=1: the code is shown while it is typed; hidden otherwise.
    bool echoCode = false;
    /// refresh_time=: the agent's contact-list refresh interval. The agent
    /// hands it to every module line; the module itself has no use for it.
    int refreshTime = 0;
    /// exclude_user_list=: users who log in without a second factor.
    std::vector<std::string> excludedUsers;
    /// timeout_ms=: bound on each wait for the agent. Only tests write it;
    /// the agent's include file never does.
    int replyTimeoutMs = kDefaultReplyTimeoutMs;
    /// One line per argument that was ignored, saying why.
    std::vector<std::string> problems;

    /// True when `user` is on the exclusion list (exact, case-sensitive match).
    bool IsExcluded(const std::string& user) const;
};

/// Reads the module arguments as the PAM library passes them.
ModuleOptions ParseModuleOptions(int argc, const char* const* argv);

} // namespace brackmoor::pam
