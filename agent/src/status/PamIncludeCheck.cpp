#include "PamIncludeCheck.h"

#include <string>
#include <vector>

#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "/etc/pam.d/brackmoor-auth";
const std::string kModuleFile = "pam_brackmoor.so";

bool NamesModule(const std::string& field)
{
    return field == kModuleFile ||
           (field.size() > kModuleFile.size() && field.compare(field.size() - kModuleFile.size() - 1,
                                                               std::string::npos, "/" + kModuleFile) == 0);
}

} // namespace

CheckResults PamIncludeCheck::Inspect(const StatusPaths& paths, bool serviceSwitched, std::string& arguments)
{
    arguments.clear();
    std::vector<std::string> lines;
    if (!TextFile::ReadLines(paths.pamInclude, lines)) {
        if (serviceSwitched) {
            return {{CheckLevel::Fail, kSubject,
                     "missing, although /etc/pam.d/sshd includes it: sshd's PAM stack is broken"}};
        }
        return {{CheckLevel::Fail, kSubject, "missing"}};
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string line = TextFile::Trimmed(lines[i]);
        if (line.compare(0, 4, "auth") != 0) {
            continue;
        }
        const std::vector<std::string> fields = TextFile::Fields(line);
        for (std::size_t f = 1; f < fields.size(); ++f) {
            if (!NamesModule(fields[f])) {
                continue;
            }
            for (std::size_t a = f + 1; a < fields.size(); ++a) {
                arguments += (arguments.empty() ? "" : " ") + fields[a];
            }
            return {{CheckLevel::Ok, kSubject,
                     "calls pam_brackmoor.so (line " + std::to_string(i + 1) + ")" +
                         (arguments.empty() ? std::string() : ": " + arguments)}};
        }
    }
    return {{CheckLevel::Fail, kSubject, "present but has no auth line calling pam_brackmoor.so"}};
}

} // namespace Agent
