#include "ModuleCopiesCheck.h"

#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "pam_brackmoor.so";

} // namespace

CheckResults ModuleCopiesCheck::Inspect(const StatusPaths& paths)
{
    CheckResults results;
    int copies = 0;
    int pamDirs = 0;
    for (const std::string& dir : paths.moduleDirs) {
        if (!TextFile::Exists(dir)) {
            continue;
        }
        const bool present = TextFile::Exists(dir + "pam_brackmoor.so");
        const bool pamLoadsHere = TextFile::Exists(dir + "pam_unix.so");
        copies += present ? 1 : 0;
        pamDirs += pamLoadsHere ? 1 : 0;
        if (present) {
            results.push_back({CheckLevel::Ok, kSubject, "installed in " + dir});
        } else if (pamLoadsHere) {
            results.push_back({CheckLevel::Fail, kSubject,
                               "missing from " + dir + ", where PAM loads its modules from"});
        } else {
            results.push_back({CheckLevel::Warning, kSubject, "missing from " + dir});
        }
    }
    if (copies == 0 && pamDirs == 0) {
        results.push_back({CheckLevel::Fail, kSubject, "not installed in any system PAM module directory"});
    }
    return results;
}

} // namespace Agent
