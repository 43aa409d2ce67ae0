#include "ConfigValidator.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>

#include <Poco/Logger.h>

#include "ConfigKeys.h"
#include "SDK/StrUtils.h"

namespace Framework {

using namespace ConfigKeys;

namespace {

std::string BadValue(const char* key, const std::string& value, const char* rule)
{
    return std::string("bad value for ") + key + ": '" + value + "' (" + rule + ")";
}

bool IsHostChar(char c, bool bracketed)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_' ||
           (bracketed && c == ':');
}

bool IsPort(const std::string& text)
{
    int port = 0;
    return ConfigValidator::ParseInt(text, port) && port >= 1 && port <= 65535;
}

bool IsInRange(const std::string& text, int low, int high)
{
    int value = 0;
    return ConfigValidator::ParseInt(text, value) && value >= low && value <= high;
}

/// A host without port or brackets.
bool IsPlainHost(const std::string& text)
{
    return ConfigValidator::IsHostPort(text) && text.find_first_of(":[") == std::string::npos;
}

bool IsAbsolutePath(const std::string& text)
{
    return !text.empty() && text[0] == '/';
}

/// Checks the optional key `key` with `check` when it is present.
template <typename Check>
bool CheckOptional(const Poco::Util::AbstractConfiguration& config, const char* key, Check check,
                   const char* rule, std::string& error)
{
    if (!config.has(key)) {
        return true;
    }
    const std::string value = config.getRawString(key);
    if (check(value)) {
        return true;
    }
    error = BadValue(key, value, rule);
    return false;
}

} // namespace

bool ConfigValidator::CleanIni(const std::string& text, std::string& cleaned, std::string& error)
{
    cleaned.clear();
    std::string::size_type start = 0;
    for (int lineNumber = 1; start < text.size(); ++lineNumber) {
        std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        start = end + 1;
        SDK::StrUtils::Trim(line);
        if (line.empty() || line[0] == ';' || line[0] == '#') {
            continue;
        }
        const bool section = line[0] == '[';
        if (section && (line.size() < 3 || line.back() != ']')) {
            error = "malformed: line " + std::to_string(lineNumber) + ": expected [section]";
            return false;
        }
        if (!section && (line.find('=') == std::string::npos || line[0] == '=')) {
            error = "malformed: line " + std::to_string(lineNumber) + ": expected key = value";
            return false;
        }
        cleaned += line;
        cleaned += '\n';
    }
    return true;
}

bool ConfigValidator::Validate(const Poco::Util::AbstractConfiguration& config, std::string& error)
{
    for (const char* key : {kAgentId, kServiceAddress, kCaFile, kAuthTokenFile}) {
        if (config.getRawString(key, "").empty()) {
            error = std::string("missing key ") + key;
            return false;
        }
    }
    const auto timeout = [](const std::string& v) {
        return IsInRange(v, kMinTimeoutSeconds, kMaxTimeoutSeconds);
    };
    const std::string timeoutRange = "1.." + std::to_string(kMaxTimeoutSeconds);
    return CheckOptional(config, kServiceAddress, IsHostPort, "host[:port]", error) &&
           CheckOptional(config, kInstallationPath, IsAbsolutePath, "absolute path", error) &&
           CheckOptional(config, kCaFile, IsAbsolutePath, "absolute path", error) &&
           CheckOptional(config, kAuthTokenFile, IsAbsolutePath, "absolute path", error) &&
           CheckOptional(config, kConnectTimeout, timeout, timeoutRange.c_str(), error) &&
           CheckOptional(config, kReadTimeout, timeout, timeoutRange.c_str(), error) && CheckCallBound(config, error) &&
           CheckOptional(config, kProxyHost, IsPlainHost, "host name or IPv4 address", error) &&
           CheckOptional(config, kProxyPort, IsPort, "1..65535", error) &&
           CheckOptional(config, kLogDir, IsAbsolutePath, "absolute path", error) &&
           CheckOptional(config, kLogLevel, IsLogLevel, "fatal..trace or 1..8", error);
}

bool ConfigValidator::CheckCallBound(const Poco::Util::AbstractConfiguration& config, std::string& error)
{
    int connect = kDefaultTimeoutSeconds;
    int read = kDefaultTimeoutSeconds;
    ParseInt(config.getRawString(kConnectTimeout, std::to_string(connect)), connect);
    ParseInt(config.getRawString(kReadTimeout, std::to_string(read)), read);
    if (connect + read > kMaxCallSeconds) {
        error = std::string("bad value for ") + kConnectTimeout + " + " + kReadTimeout + ": " +
                std::to_string(connect + read) + " s (at most " + std::to_string(kMaxCallSeconds) + ")";
        return false;
    }
    return true;
}

bool ConfigValidator::ParseInt(const std::string& text, int& value)
{
    if (text.empty() || (!std::isdigit(static_cast<unsigned char>(text[0])) && text[0] != '-')) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < INT_MIN || parsed > INT_MAX) {
        return false;
    }
    value = static_cast<int>(parsed);
    return true;
}

bool ConfigValidator::IsHostPort(const std::string& text)
{
    std::string::size_type hostEnd = 0;
    std::string::size_type portStart = std::string::npos;
    const bool bracketed = !text.empty() && text[0] == '[';
    if (bracketed) {
        hostEnd = text.find(']');
        if (hostEnd == std::string::npos || hostEnd < 2) {
            return false;
        }
        if (hostEnd + 1 < text.size()) {
            if (text[hostEnd + 1] != ':') {
                return false;
            }
            portStart = hostEnd + 2;
        }
    } else {
        hostEnd = text.find(':');
        if (hostEnd != std::string::npos) {
            portStart = hostEnd + 1;
        } else {
            hostEnd = text.size();
        }
    }
    const std::string::size_type hostStart = bracketed ? 1 : 0;
    if (hostEnd <= hostStart) {
        return false;
    }
    for (std::string::size_type i = hostStart; i < hostEnd; ++i) {
        if (!IsHostChar(text[i], bracketed)) {
            return false;
        }
    }
    return portStart == std::string::npos || IsPort(text.substr(portStart));
}

bool ConfigValidator::IsLogLevel(const std::string& text)
{
    try {
        Poco::Logger::parseLevel(text);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace Framework
