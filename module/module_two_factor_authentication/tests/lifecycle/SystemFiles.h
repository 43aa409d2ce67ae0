#pragma once

#include <string>

#include "TestSupport/TempDir.h"

namespace TfaTest {

/// The files the task switches, laid out as a Debian-style server ships them
/// (sshd_config with KbdInteractiveAuthentication no and an Include line,
/// "@include common-auth" in sshd's PAM service file, pam_unix with a
/// bracketed control), and an agent installation with the PAM module and a
/// stand-in restart script that only counts its runs. Only for use inside
/// the sandbox: it writes /etc and the system PAM module directory.
class SystemFiles {
public:
    static constexpr const char* kSshdConfig = "/etc/ssh/sshd_config";
    static constexpr const char* kPamSshd = "/etc/pam.d/sshd";
    static constexpr const char* kCommonAuth = "/etc/pam.d/common-auth";
    static constexpr const char* kInclude = "/etc/pam.d/brackmoor-auth";
    static constexpr const char* kModuleCopy = "/lib/x86_64-linux-gnu/security/pam_brackmoor.so";

    /// Writes the files and points the agent's installation path at the stand-in.
    SystemFiles();

    /// Empty when everything was written; otherwise what failed.
    const std::string& Error() const { return error; }

    static std::string SshdConfigOriginal();
    /// What switching on and off again leaves: the keyword at "no" with its
    /// commented counterpart below it.
    static std::string SshdConfigAfterCycle();
    static std::string PamSshdOriginal();

    /// How often the restart script has run.
    int Restarts() const;

private:
    TestSupport::TempDir installation;
    std::string error;
};

/// The policy document the agent pushes, with the given `local`.
std::string PolicyDocument(int local);

bool FileExists(const std::string& path);

} // namespace TfaTest
