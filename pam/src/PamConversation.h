#pragma once

#include "SecretString.h"

#include <security/pam_modules.h>
#include <string>

namespace brackmoor::pam {

/// Outcome of one question to the user.
enum class AnswerStatus {
    Answered, ///< the user typed something other than blanks
    Empty,    ///< the answer was empty or blanks only
    Failed,   ///< no conversation, or it failed or was cancelled
};

/// The user's side of a login: questions and messages through the
/// application's PAM conversation (sshd's keyboard-interactive exchange,
/// pamtester's terminal). Answers are wiped after use.
class PamConversation {
public:
    PamConversation(pam_handle_t* pamh, bool silent) : pamh_(pamh), silent_(silent) {}

    /// Asks one question; `echo` decides whether the answer is shown while typed.
    AnswerStatus Ask(const std::string& prompt, bool echo, SecretString* answer);

    /// An informational line (not shown when the application asked for silence).
    void Tell(const std::string& text);

    /// An error line (not shown when the application asked for silence).
    void Warn(const std::string& text);

    /// The error line that ends a refused login. sshd's keyboard-interactive
    /// exchange delivers messages only together with a prompt and drops those
    /// that precede a failure, so the line goes out with a closing prompt
    /// whose answer (or failure) is ignored.
    void Refuse(const std::string& text);

private:
    pam_handle_t* pamh_;
    bool silent_;
};

} // namespace brackmoor::pam
