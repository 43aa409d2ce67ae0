#pragma once

#include <map>
#include <string>

namespace Agent {

/// Where sshd takes one setting from, as its configuration files say.
struct SshdSetting {
    bool found = false;  ///< false: no line sets it; sshd's built-in default applies
    std::string value;   ///< the value as written (first word after the keyword)
    std::string file;    ///< the file of the deciding line
    int line = 0;        ///< its line number, from 1
};

/// Reads sshd's global settings from its files the way sshd does: lines in
/// order, Include directives expanded in place (glob, sorted, relative to
/// /etc/ssh), keywords without regard to case, "keyword value" or
/// "keyword=value", and for each keyword the first value wins. Reading
/// stops at the first Match block, which holds per-connection overrides.
///
/// ChallengeResponseAuthentication is read as KbdInteractiveAuthentication,
/// the name it is an alias of, so that whichever of the two comes first
/// decides, as in sshd.
class SshdSettingsReader {
public:
    /// Include paths are resolved under `root` ("" for the real system).
    explicit SshdSettingsReader(std::string root);

    /// Reads `mainFile` and what it includes; false when `mainFile` itself
    /// cannot be read (an unreadable included file is skipped, as sshd's
    /// glob would).
    bool Read(const std::string& mainFile);

    /// The deciding line of `keyword` (lower case), or found=false.
    SshdSetting Get(const std::string& keyword) const;

private:
    bool ReadFile(const std::string& path, int depth);
    void Include(const std::string& patterns, int depth);

    std::string root;
    bool stopped = false;  ///< a Match block was reached
    std::map<std::string, SshdSetting> settings;
};

} // namespace Agent
