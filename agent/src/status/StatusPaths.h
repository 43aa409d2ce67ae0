#pragma once

#include <string>
#include <vector>

namespace Agent {

/// The system paths the status command reads, all under one root ("" for
/// the real system; tests point it at a prepared tree).
struct StatusPaths {
    explicit StatusPaths(const std::string& rootDir)
        : root(rootDir),
          sshdConfig(rootDir + "/etc/ssh/sshd_config"),
          pamSshd(rootDir + "/etc/pam.d/sshd"),
          pamInclude(rootDir + "/etc/pam.d/brackmoor-auth"),
          moduleDirs{rootDir + "/lib/x86_64-linux-gnu/security/", rootDir + "/lib/i386-linux-gnu/security/",
                     rootDir + "/lib64/security/", rootDir + "/lib/security/",
                     rootDir + "/lib/aarch64-linux-gnu/security/"}
    {
    }

    /// `path` (absolute on the real system) under the root.
    std::string Under(const std::string& path) const { return root + path; }

    std::string root;
    std::string sshdConfig;
    std::string pamSshd;
    std::string pamInclude;
    std::vector<std::string> moduleDirs;  ///< where the agent installs pam_brackmoor.so, each ending with "/"
};

} // namespace Agent
