#pragma once

#include <security/pam_appl.h>
#include <string>
#include <vector>

namespace brackmoor::pam::test {

constexpr char kTooManyTries[] = "Too many failed attempts; login refused.";

/// The user at the other end of a PAM conversation, answering prompts from
/// `answers` in order. Running out of answers makes the conversation fail as
/// a dropped connection would. `seen` holds every message in order as
/// "<kind> <text>", the kind being "?" for a prompt shown as typed, "*" for a
/// hidden one, "i" for information and "!" for an error.
struct ScriptedUser {
    explicit ScriptedUser(std::vector<std::string> script) : answers(std::move(script)) {}
    std::vector<std::string> answers;
    std::size_t nextAnswer = 0;
    std::vector<std::string> seen;

    /// The pam_conv callback; `self` is the ScriptedUser.
    static int Converse(int count, const pam_message** messages, pam_response** responses, void* self);
};

/// Runs pam_authenticate for `user` in a private service whose only auth line is "auth required
/// <built module> <arguments>" and returns the result. The log is emptied first, so that what
/// TakeSyslog() returns afterwards is this login's.
int Authenticate(const std::string& arguments, const std::string& user, ScriptedUser& script);

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

} // namespace brackmoor::pam::test
