#pragma once

#include "CheckResult.h"
#include "StatusPaths.h"

namespace Agent {

/// sshd's PAM service file: whether it includes "brackmoor-auth" (switched)
/// and keeps the commented original include that switching off restores.
/// When it is not switched it says whether the agent could switch it at
/// all: a file without an include line of "password-auth" or "common-auth"
/// lets switching on succeed while linking nothing.
class PamServiceCheck {
public:
    /// `switched` tells the later checks whether sshd's stack includes the
    /// include file.
    static CheckResults Inspect(const StatusPaths& paths, bool& switched);
};

} // namespace Agent
