#pragma once

#include <string>

#include <Poco/Util/AbstractConfiguration.h>

namespace Framework {

/// Checks an agent configuration file before it replaces the one in use, so
/// that a mistake is reported once, at load, with the key at fault, instead
/// of surfacing later as a failed login.
class ConfigValidator {
public:
    /// Copies the section and key lines of INI `text` into `cleaned`, dropping
    /// blank lines and comments (';' or '#'). False, with `error` set to
    /// "malformed: line N: ...", for any other line.
    static bool CleanIni(const std::string& text, std::string& cleaned, std::string& error);

    /// Checks that the required keys are present and every known key has a
    /// usable value. False, with `error` set to "missing key K" or
    /// "bad value for K: 'V' (RULE)".
    static bool Validate(const Poco::Util::AbstractConfiguration& config, std::string& error);

    /// A decimal integer filling the whole text (an optional leading '-').
    static bool ParseInt(const std::string& text, int& value);

    /// Whether connect and read time-out together stay within the bound of
    /// one service call; `error` says why not.
    static bool CheckCallBound(const Poco::Util::AbstractConfiguration& config, std::string& error);

    /// "host", "host:port", "[v6]" or "[v6]:port", port 1..65535.
    static bool IsHostPort(const std::string& text);

    /// A POCO level name ("error", "information", ...) or number 1..8.
    static bool IsLogLevel(const std::string& text);
};

} // namespace Framework
