#pragma once

#include <string>
#include <vector>

namespace brackmoor::pam::test {

/// Catches what the module writes to the system log, so that tests can check
/// each decision is logged and no code ever is. Inside the sandbox's private
/// mount and network namespaces it lays an overlay over /dev, binds a
/// datagram socket at /dev/log there and raises the namespace's datagram
/// queue limit (a full queue would block the module's syslog()); nothing
/// outside the sandbox changes.
class SyslogCapture {
public:
    /// The process-wide capture; set up on first use.
    static SyslogCapture& Instance();

    /// False when the sandbox does not allow the overlay (log checks then skip).
    bool Available() const { return socket_ >= 0; }

    /// Log lines received since the last call.
    std::vector<std::string> Take();

private:
    SyslogCapture();
    int socket_ = -1;
};

} // namespace brackmoor::pam::test
