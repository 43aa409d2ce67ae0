#pragma once

#include <security/pam_appl.h>
#include <string>
#include <vector>

namespace brackmoor::pam::test {

/// The prompt that carries a refusal to the user.
constexpr char kClosingPrompt[] = "Press Enter to close this login attempt: ";
constexpr char kTooManyTries[] = "Too many failed attempts; login refused.";
/// Remote host set on every transaction, as sshd sets the client's address.
constexpr char kRemoteHost[] = "203.0.113.7";

/// The user at the other end of a PAM conversation, answering prompts from a
/// script in order. Running out of answers makes the conversation fail as a
/// dropped connection would.
class ScriptedUser {
public:
    explicit ScriptedUser(std::vector<std::string> answers) : answers_(std::move(answers)) {}

    /// Every message in order as "<kind> <text>", the kind being "?" for a
    /// prompt shown as typed, "*" for a hidden one, "i" for information and
    /// "!" for an error.
    const std::vector<std::string>& Seen() const { return seen_; }

    /// The pam_conv callback; `self` is the ScriptedUser.
    static int Converse(int count, const pam_message** messages, pam_response** responses, void* self);

private:
    std::vector<std::string> answers_;
    std::size_t nextAnswer_ = 0;
    std::vector<std::string> seen_;
};

/// Runs pam_authenticate for `user` in a service whose only auth line is
/// "auth required <built module> <arguments>", from a private configuration
/// directory, and returns the result. The log is emptied first, so that what
/// TakeSyslog() returns afterwards is this login's.
int Authenticate(const std::string& arguments, const std::string& user, ScriptedUser& script);

/// Runs pamtester (libpam's own terminal conversation) for `user` against the
/// service /etc/pam.d/brackmoor-stack made of `stack`, with `input` as what
/// the user types; its exit status, or 77 when pamtester cannot load the
/// module (sanitized builds) or is missing.
int Pamtester(const std::string& stack, const std::string& user, const std::string& input);

/// How a login must end.
struct Outcome {
    int result;
    int questions;       ///< prompts that asked for something: all but the one closing a refusal
    const char* warning; ///< an error shown on the way, or nullptr
    const char* refusal; ///< the error shown with the closing prompt; nullptr: no closing prompt
    const char* logged;  ///< part of the decision's log line, which names the user and the remote host
};

/// Checks the result, what `user` saw and the log of `name`'s login, which
/// must hold none of `secrets`.
void ExpectOutcome(const Outcome& expected, int result, const ScriptedUser& user, const std::string& name,
                   const std::vector<std::string>& secrets);

/// The system log's lines since the last call, caught at a private /dev/log
/// (the sandbox's namespaces) before the first test runs.
std::vector<std::string> TakeSyslog();
/// True when one of `lines` holds `text`.
bool Holds(const std::vector<std::string>& lines, const std::string& text);

} // namespace brackmoor::pam::test
