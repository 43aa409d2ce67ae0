#pragma once

#include "Throttle.h"

#include <string>
#include <vector>

namespace brackmoor::pam {

/// The module's own setting file. The module line's arguments are fixed by
/// the agent, which writes them; what only local mode needs is set here.
constexpr char kSettingsFile[] = "/etc/brackmoor/pam.conf";

/// Outcome of reading the setting file.
enum class SettingsStatus {
    Ok,       ///< read, or there is no file (all defaults)
    Insecure, ///< not a regular file owned by root that only root may write; not used
    IoError,  ///< could not be read (see LastError)
};

/// Settings of local mode, from "key = value" lines ('#' starts a comment):
///
///     allow_unenrolled = 0      # 1: users without a secret log in, with a warning
///     max_failures = 5          # wrong codes (1..100) ...
///     failure_window = 300      # ... within this many seconds (60..86400) lock the user out
///
/// A missing file means the defaults. An unknown key or a bad value is
/// reported in `problems` and leaves that setting at its default.
struct LocalSettings {
    bool allowUnenrolled = false;
    Throttle throttle;
    std::vector<std::string> problems;
    int lastError = 0;

    /// Reads `path`.
    SettingsStatus Load(const std::string& path);
    /// Takes one file's text.
    void Parse(const std::string& text);
};

} // namespace brackmoor::pam
