#pragma once

#include "SecretString.h"
#include "brackmoor/UniqueFd.h"

#include <string>
#include <sys/types.h>

namespace brackmoor::pam {

/// Outcome of one question to the agent.
enum class AskStatus {
    Answered, ///< a reply came from the agent's address and from a root process
    NoServer, ///< nothing is bound to the agent's name: the agent is not running
    TimedOut, ///< no trusted reply within the time-out
    Failed,   ///< the module's own socket could not be set up or used
};

/// The module's side of the agent's datagram protocol: one request
/// ("<type>:<value>") and one reply (a decimal number and a NUL) per question,
/// over the abstract Unix socket "\0PAM_BRACKMOOR_IPC_SERVER\0" (26 bytes of
/// sun_path, address length 28).
///
/// Every login gets its own socket, auto-bound by the kernel to a unique
/// abstract address so that the agent has somewhere to answer. A reply is
/// trusted only when the kernel reports (SCM_CREDENTIALS) that its sender runs
/// as root and it comes from the agent's address: while the agent is down any
/// local user could bind that name and answer "listed" with a code of their
/// own choosing, so such replies are dropped as if they had never arrived.
class AgentClient {
public:
    explicit AgentClient(int timeoutMs) : timeoutMs_(timeoutMs) {}

    /// Sends one request and waits at most the time-out for the trusted reply,
    /// which is returned in `reply` as received (NUL included). A reply may
    /// be a verification code, hence the wiped buffer.
    AskStatus Ask(const std::string& request, SecretString* reply);

    /// Replies dropped because their sender was not root, for the log.
    int UntrustedReplies() const { return untrustedReplies_; }
    /// The uid of the last dropped sender (meaningful when any was dropped).
    uid_t LastUntrustedUid() const { return lastUntrustedUid_; }
    /// errno of the failure behind Failed or NoServer.
    int LastError() const { return lastError_; }

private:
    bool Open();
    /// False with the reason in `failure` when the request could not be sent.
    bool Send(const std::string& request, AskStatus* failure);
    AskStatus Receive(long long deadlineMs, SecretString* reply);
    /// Reads one pending datagram; true when it is a trusted reply.
    bool ReadOne(SecretString* reply);

    int timeoutMs_;
    UniqueFd socket_;
    int untrustedReplies_ = 0;
    uid_t lastUntrustedUid_ = 0;
    int lastError_ = 0;
};

} // namespace brackmoor::pam
