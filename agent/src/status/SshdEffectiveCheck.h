#pragma once

#include <map>
#include <string>

#include "CheckResult.h"
#include "StatusPaths.h"

namespace Agent {

/// What sshd itself will use: `sshd -T` prints its effective settings after
/// reading every file and drop-in, so it is the final word on keyboard-
/// interactive authentication and UsePAM. Skipped when sshd is not installed,
/// and for callers other than root, for whom sshd -T cannot run.
class SshdEffectiveCheck {
public:
    /// `sshdBinary` is asked with -T -f for the configuration under the root;
    /// for the connection of `user` (Match blocks applied) when not empty.
    /// `settings` receives every effective setting (keyword in lower case),
    /// empty when sshd was not asked or failed.
    static CheckResults Inspect(const StatusPaths& paths, const std::string& sshdBinary, const std::string& user,
                                std::map<std::string, std::string>& settings);
};

} // namespace Agent
