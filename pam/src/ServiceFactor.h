#pragma once

#include "AgentClient.h"
#include "AuthLog.h"
#include "ModuleOptions.h"
#include "PamConversation.h"

#include <cstdint>
#include <string>

namespace brackmoor::pam {

/// The second factor through the agent's verification service: the user
/// names a registered phone number or mail address, the service sends a code
/// for a random login reference to it, and the user types that code here.
///
/// Every failure fails closed: an agent that is down, silent beyond the
/// time-out, answering as someone other than root, or reporting an error
/// ends the login with a message, never lets it through.
class ServiceFactor {
public:
    ServiceFactor(const ModuleOptions& options, PamConversation& user, AuthLog& log)
        : options_(options), user_(user), log_(log), agent_(options.replyTimeoutMs)
    {
    }

    /// Runs the whole exchange and returns the PAM result of the login.
    int Run();

private:
    /// PAM_SUCCESS once the user has named a listed contact.
    int AskContact();
    /// The agent's verdict on one normalised contact.
    int CheckContact(const std::string& contact, bool* listed);
    /// Obtains a code for a new login reference and lets the user type it.
    int AskCode();
    int CompareTypedCodes(std::uint32_t reference, std::uint32_t issued);
    /// Logs and reports an agent that could not answer; the PAM result.
    int AgentFailed(AskStatus status, const char* step);
    /// Logs and reports a failed or empty answer; the PAM result.
    int NoAnswer(AnswerStatus status, const char* step);

    const ModuleOptions& options_;
    PamConversation& user_;
    AuthLog& log_;
    AgentClient agent_;
};

} // namespace brackmoor::pam
