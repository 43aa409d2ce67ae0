#pragma once

#include "CheckResult.h"
#include "StatusPaths.h"

namespace Agent {

/// The copies of pam_brackmoor.so in the system's PAM module directories.
/// The copy that matters is the one in the directory PAM loads its modules
/// from (the one holding pam_unix.so): without it the include file's line
/// names a module PAM cannot load.
class ModuleCopiesCheck {
public:
    static CheckResults Inspect(const StatusPaths& paths);
};

} // namespace Agent
