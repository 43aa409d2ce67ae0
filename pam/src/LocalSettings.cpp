#include "LocalSettings.h"

#include "brackmoor/UniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brackmoor::pam {
namespace {

constexpr std::size_t kMaxFileBytes = 4096;

std::string Trim(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// Digits only, within [low, high].
bool ParseBounded(const std::string& text, unsigned low, unsigned high, unsigned* value)
{
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const unsigned number = static_cast<unsigned>(std::stoul(text));
    if (number < low || number > high) {
        return false;
    }
    *value = number;
    return true;
}

} // namespace

SettingsStatus LocalSettings::Load(const std::string& path)
{
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.Valid()) {
        lastError = errno;
        return errno == ENOENT  ? SettingsStatus::Ok
               : errno == ELOOP ? SettingsStatus::Insecure
                                : SettingsStatus::IoError;
    }
    struct stat info {};
    if (::fstat(fd.Get(), &info) != 0) {
        lastError = errno;
        return SettingsStatus::IoError;
    }
    // Whoever may write this file may let users in without a second factor.
    if (!S_ISREG(info.st_mode) || info.st_uid != 0 || (info.st_mode & 022) != 0) {
        return SettingsStatus::Insecure;
    }
    char buffer[kMaxFileBytes];
    const ssize_t got = ::read(fd.Get(), buffer, sizeof buffer);
    if (got < 0) {
        lastError = errno;
        return SettingsStatus::IoError;
    }
    Parse(std::string(buffer, static_cast<std::size_t>(got)));
    return SettingsStatus::Ok;
}

void LocalSettings::Parse(const std::string& text)
{
    std::size_t start = 0;
    for (int number = 1; start < text.size(); ++number) {
        std::size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = Trim(text.substr(start, std::min(end, text.find('#', start)) - start));
        start = end + 1;
        if (line.empty()) {
            continue;
        }
        const std::size_t equals = line.find('=');
        const std::string key = Trim(line.substr(0, equals));
        const std::string value = equals == std::string::npos ? std::string() : Trim(line.substr(equals + 1));
        unsigned parsed = 0;
        bool good = false;
        if (key == "allow_unenrolled" && ParseBounded(value, 0, 1, &parsed)) {
            allowUnenrolled = parsed == 1;
            good = true;
        } else if (key == "max_failures") {
            good = ParseBounded(value, 1, 100, &throttle.maxFailures);
        } else if (key == "failure_window") {
            good = ParseBounded(value, 60, 86400, &throttle.windowSeconds);
        }
        if (!good) {
            problems.push_back(std::string(kSettingsFile) + " line " + std::to_string(number) +
                               ": unknown key or bad value; ignored");
        }
    }
}

} // namespace brackmoor::pam
