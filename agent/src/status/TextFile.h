#pragma once

#include <string>
#include <vector>

namespace Agent {

/// Line and field access to the small configuration files the status
/// command reads (sshd_config, PAM files).
class TextFile {
public:
    /// Reads `path` into `lines` (without their newlines); false when it
    /// cannot be read.
    static bool ReadLines(const std::string& path, std::vector<std::string>& lines);

    /// `line` without leading and trailing white space.
    static std::string Trimmed(const std::string& line);

    /// The fields of `line` separated by blanks and tabs, without empty ones.
    static std::vector<std::string> Fields(const std::string& line);

    /// Whether `path` exists (symbolic links followed).
    static bool Exists(const std::string& path);
};

} // namespace Agent
