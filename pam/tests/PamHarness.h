#pragma once

#include <security/pam_appl.h>
#include <string>
#include <vector>

namespace brackmoor::pam::test {

/// One message the module sent through the conversation.
struct Message {
    int style; ///< PAM_PROMPT_ECHO_ON/OFF, PAM_TEXT_INFO or PAM_ERROR_MSG
    std::string text;
};

/// The user at the other end of a PAM conversation, answering prompts from a
/// script in order. Running out of answers, or reaching `failAtPrompt`
/// (0-based), makes the conversation fail as a dropped connection would.
class ScriptedUser {
public:
    explicit ScriptedUser(std::vector<std::string> answers, int failAtPrompt = -1)
        : answers_(std::move(answers)), failAtPrompt_(failAtPrompt)
    {
    }

    const std::vector<Message>& Seen() const { return seen_; }
    /// The prompts (not the messages), in order.
    std::vector<Message> Prompts() const;
    /// The prompts that asked for something: all but the one closing a refusal.
    std::vector<Message> Questions() const;
    /// True when any prompt or message contained `fragment`.
    bool Saw(const std::string& fragment) const;

    /// The pam_conv callback; `self` is the ScriptedUser.
    static int Converse(int count, const pam_message** messages, pam_response** responses, void* self);

private:
    std::vector<std::string> answers_;
    int failAtPrompt_;
    std::size_t nextAnswer_ = 0;
    int prompts_ = 0;
    std::vector<Message> seen_;
};

/// The prompt that carries a refusal to the user.
constexpr char kClosingPrompt[] = "Press Enter to close this login attempt: ";

/// Remote host set on every transaction, as sshd sets the client's address.
constexpr char kRemoteHost[] = "203.0.113.7";

/// Runs pam_authenticate for `user` in a service whose only auth line is
/// "auth required <built module> <arguments>", from a private configuration
/// directory; returns the result.
int Authenticate(const std::string& arguments, const std::string& user, ScriptedUser& script);

} // namespace brackmoor::pam::test
