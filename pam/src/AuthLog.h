#pragma once

#include <security/pam_modules.h>
#include <string>

namespace brackmoor::pam {

/// The module's decisions in the system log (authpriv facility, through
/// pam_syslog), each line naming the user and the remote host, so that an
/// administrator can follow every login. Codes and secrets are never passed
/// here; user-supplied names are rendered printable so they cannot forge lines.
class AuthLog {
public:
    AuthLog(pam_handle_t* pamh, const char* user, const char* remoteHost);

    /// The second factor was passed; `how` names the method.
    void Accepted(const std::string& how);
    /// The user failed a step of the second factor; the login may go on.
    void Rejected(const std::string& reason);
    /// The login is refused for good.
    void Refused(const std::string& reason);
    /// The second factor could not be checked at all; the login is refused.
    void Unavailable(const std::string& reason);
    /// The user is exempt from the second factor.
    void Excluded();
    /// A configuration remark that does not change the decision.
    void Notice(const std::string& text);
    /// A decision an administrator should notice, worded in full by the caller.
    void Warning(const std::string& text);

private:
    void Write(int priority, const std::string& text);

    pam_handle_t* pamh_;
    std::string who_;
};

/// A printable rendering of untrusted text for the log.
std::string Printable(const char* text);

} // namespace brackmoor::pam
