#include "ModuleOptions.h"

#include <cstring>
#include <limits>

namespace brackmoor::pam {
namespace {

constexpr std::size_t kMaxQuotedArgument = 64;

/// A short, printable rendering of an argument for the log.
std::string Quote(const char* arg)
{
    std::string out = "\"";
    std::size_t n = 0;
    for (const char* p = arg; *p != '\0'; ++p, ++n) {
        if (n == kMaxQuotedArgument) {
            out += "...";
            break;
        }
        const unsigned char c = static_cast<unsigned char>(*p);
        out.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
    }
    out += "\"";
    return out;
}

/// A decimal integer with an optional sign and nothing else, within int range.
bool ParseInt(const char* text, int* value)
{
    const char* p = text;
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+') {
        ++p;
    }
    if (*p == '\0') {
        return false;
    }
    long long result = 0;
    for (; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') {
            return false;
        }
        result = result * 10 + (*p - '0');
        if (result > static_cast<long long>(std::numeric_limits<int>::max()) + 1) {
            return false;
        }
    }
    result = negative ? -result : result;
    if (result > std::numeric_limits<int>::max() || result < std::numeric_limits<int>::min()) {
        return false;
    }
    *value = static_cast<int>(result);
    return true;
}

/// The text after `key` when `arg` starts with it.
const char* ValueOf(const char* arg, const char* key)
{
    const std::size_t length = std::strlen(key);
    return std::strncmp(arg, key, length) == 0 ? arg + length : nullptr;
}

void SplitUsers(const char* list, std::vector<std::string>* users)
{
    std::string current;
    for (const char* p = list;; ++p) {
        if (*p == ';' || *p == '\0') {
            if (!current.empty()) {
                users->push_back(current);
            }
            current.clear();
            if (*p == '\0') {
                return;
            }
        } else {
            current.push_back(*p);
        }
    }
}

/// Reads a 0/1 switch; other integers mean "off" but are reported.
void ParseSwitch(const char* arg, const char* value, bool* setting, ModuleOptions* options)
{
    int number = 0;
    if (!ParseInt(value, &number)) {
        options->problems.push_back("malformed argument " + Quote(arg) + " ignored");
        return;
    }
    *setting = number == 1;
    if (number != 0 && number != 1) {
        options->problems.push_back("argument " + Quote(arg) + " is neither 0 nor 1; taken as 0");
    }
}

void ParseOne(const char* arg, ModuleOptions* options)
{
    int number = 0;
    if (const char* value = ValueOf(arg, "refresh_time=")) {
        if (ParseInt(value, &number)) {
            options->refreshTime = number;
        } else {
            options->problems.push_back("malformed argument " + Quote(arg) + " ignored");
        }
    } else if (const char* echo = ValueOf(arg, "echo=")) {
        ParseSwitch(arg, echo, &options->echoCode, options);
    } else if (const char* local = ValueOf(arg, "local=")) {
        ParseSwitch(arg, local, &options->localMode, options);
    } else if (const char* users = ValueOf(arg, "exclude_user_list=")) {
        SplitUsers(users, &options->excludedUsers);
    } else if (const char* timeout = ValueOf(arg, "timeout_ms=")) {
        if (ParseInt(timeout, &number) && number >= kMinReplyTimeoutMs && number <= kMaxReplyTimeoutMs) {
            options->replyTimeoutMs = number;
        } else {
            options->problems.push_back("argument " + Quote(arg) + " is not a time-out between " +
                                        std::to_string(kMinReplyTimeoutMs) + " and " +
                                        std::to_string(kMaxReplyTimeoutMs) + " ms; ignored");
        }
    } else {
        options->problems.push_back("unknown argument " + Quote(arg) + " ignored");
    }
}

} // namespace

bool ModuleOptions::IsExcluded(const std::string& user) const
{
    for (const std::string& excluded : excludedUsers) {
        if (excluded == user) {
            return true;
        }
    }
    return false;
}

ModuleOptions ParseModuleOptions(int argc, const char* const* argv)
{
    ModuleOptions options;
    if (argv == nullptr) {
        return options;
    }
    for (int i = 0; i < argc; ++i) {
        if (argv[i] != nullptr) {
            ParseOne(argv[i], &options);
        }
    }
    return options;
}

} // namespace brackmoor::pam
