#include "PamServiceCheck.h"

#include <string>
#include <vector>

#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "/etc/pam.d/sshd";
const char* const kIncludeName = "brackmoor-auth";

bool IsSystemStack(const std::string& field)
{
    return field == "password-auth" || field == "common-auth";
}

/// A line the agent's switch works on: an auth line or an "@" directive
/// that names an "-auth" stack after its first two characters.
bool IsIncludeLine(const std::string& line)
{
    const std::string::size_type dash = line.find("-auth");
    return dash != std::string::npos && dash >= 2 && (line[0] == '@' || line.compare(0, 4, "auth") == 0);
}

std::string LastField(const std::string& line)
{
    const std::vector<std::string> fields = TextFile::Fields(line);
    return fields.empty() ? std::string() : fields.back();
}

/// Line numbers (from 1) of what the switch looks for; 0 when absent.
struct ServiceLines {
    int brackmoor = 0;       ///< the active include of brackmoor-auth
    int original = 0;        ///< a commented include of the system stack
    int linkable = 0;        ///< an active include of the system stack
    int other = 0;           ///< an active include of some other stack, which the agent refuses
    std::string otherStack;
};

ServiceLines Scan(const std::vector<std::string>& lines)
{
    ServiceLines found;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const int number = static_cast<int>(i) + 1;
        const std::string line = TextFile::Trimmed(lines[i]);
        if (line.empty()) {
            continue;
        }
        if (line[0] == '#') {
            const std::string body = line.substr(1);
            if (found.original == 0 && IsIncludeLine(body) && IsSystemStack(LastField(body))) {
                found.original = number;
            }
            continue;
        }
        if (!IsIncludeLine(line)) {
            continue;
        }
        const std::string stack = LastField(line);
        if (stack == kIncludeName) {
            found.brackmoor = found.brackmoor == 0 ? number : found.brackmoor;
        } else if (IsSystemStack(stack)) {
            found.linkable = found.linkable == 0 ? number : found.linkable;
        } else if (found.other == 0) {
            found.other = number;
            found.otherStack = stack;
        }
    }
    return found;
}

std::string At(int line)
{
    return "line " + std::to_string(line);
}

} // namespace

CheckResults PamServiceCheck::Inspect(const StatusPaths& paths, bool& switched)
{
    switched = false;
    std::vector<std::string> lines;
    if (!TextFile::ReadLines(paths.pamSshd, lines)) {
        return {{CheckLevel::Fail, kSubject, paths.pamSshd + " cannot be read"}};
    }
    const ServiceLines found = Scan(lines);
    CheckResults results;
    if (found.brackmoor != 0) {
        switched = true;
        results.push_back({CheckLevel::Ok, kSubject, "includes brackmoor-auth (" + At(found.brackmoor) + ")"});
        if (found.original == 0) {
            results.push_back({CheckLevel::Warning, kSubject,
                               "no commented include of password-auth or common-auth is kept: switching off "
                               "cannot restore the system's auth stack"});
        }
        if (found.linkable != 0 && found.linkable < found.brackmoor) {
            results.push_back({CheckLevel::Warning, kSubject,
                               "the system's auth stack is still included before brackmoor-auth (" +
                                   At(found.linkable) + ")"});
        }
        return results;
    }
    if (found.linkable != 0) {
        results.push_back({CheckLevel::Fail, kSubject,
                           "not switched: " + At(found.linkable) + " still includes the system's auth stack"});
    } else if (found.other != 0) {
        results.push_back({CheckLevel::Fail, kSubject,
                           "not switched: " + At(found.other) + " includes " + found.otherStack +
                               ", which the agent does not switch"});
    } else {
        results.push_back({CheckLevel::Fail, kSubject,
                           "has no include line of password-auth or common-auth that could be linked: switching "
                           "on succeeds without linking anything"});
    }
    return results;
}

} // namespace Agent
