#include "ServiceFactor.h"

#include "AgentReply.h"
#include "Attempts.h"
#include "CodeCompare.h"
#include "KernelRandom.h"
#include "Prompts.h"

#include <brackmoor/Contact.h>
#include <cstring>

namespace brackmoor::pam {
namespace {

/// The agent reads at most 255 bytes of a request.
constexpr std::size_t kMaxRequest = 255;
/// Login references are six digits and must fit the agent's signed 32-bit atoi.
constexpr std::uint32_t kLowestReference = 100000;
constexpr std::uint32_t kHighestReference = 999999;

/// A contact the verification service could have registered: a valid phone
/// number or mail address, and one the request format can carry (the agent
/// splits requests on ':').
bool CouldBeRegistered(const std::string& contact)
{
    return (IsValidPhone(contact) || IsValidMail(contact)) && contact.find(':') == std::string::npos &&
           contact.size() + 2 <= kMaxRequest;
}

} // namespace

int ServiceFactor::Run()
{
    const int contact = AskContact();
    return contact == PAM_SUCCESS ? AskCode() : contact;
}

int ServiceFactor::AskContact()
{
    SecretString typed;
    for (int attempt = 1; attempt <= kMaxTries; ++attempt) {
        const AnswerStatus answered = user_.Ask(prompts::kContact, true, &typed);
        if (answered != AnswerStatus::Answered) {
            return NoAnswer(answered, "contact");
        }
        bool listed = false;
        const int checked = CheckContact(NormalizeContact(typed.Text()), &listed);
        if (checked != PAM_SUCCESS) {
            return checked;
        }
        if (listed) {
            return PAM_SUCCESS;
        }
        user_.Warn(prompts::kNotRegistered);
        log_.Rejected("contact not registered (" + AttemptText(attempt) + ")");
    }
    user_.Refuse(prompts::kTooManyTries);
    log_.Refused(std::to_string(kMaxTries) + " unregistered contacts");
    return PAM_MAXTRIES;
}

int ServiceFactor::CheckContact(const std::string& contact, bool* listed)
{
    *listed = false;
    if (!CouldBeRegistered(contact)) {
        return PAM_SUCCESS;
    }
    SecretString reply;
    const AskStatus status = agent_.Ask("1:" + contact, &reply);
    if (status != AskStatus::Answered) {
        return AgentFailed(status, "contact check");
    }
    switch (InterpretContactReply(ParseReplyNumber(reply.Text().data(), reply.Text().size()))) {
    case ContactVerdict::Listed:
        *listed = true;
        return PAM_SUCCESS;
    case ContactVerdict::NotListed:
        return PAM_SUCCESS;
    case ContactVerdict::Error:
        break;
    }
    user_.Refuse(prompts::kServiceUnavailable);
    log_.Unavailable("the agent could not check the contact");
    return PAM_AUTHINFO_UNAVAIL;
}

int ServiceFactor::AskCode()
{
    const std::optional<std::uint32_t> reference = RandomInRange(kLowestReference, kHighestReference);
    if (!reference) {
        user_.Refuse(prompts::kServiceUnavailable);
        log_.Unavailable("the kernel's random source failed");
        return PAM_SYSTEM_ERR;
    }
    user_.Tell(prompts::kLoginReference + std::to_string(*reference));

    SecretString reply;
    const AskStatus status = agent_.Ask("2:" + std::to_string(*reference), &reply);
    if (status != AskStatus::Answered) {
        return AgentFailed(status, "code request");
    }
    const std::optional<std::uint32_t> issued =
        InterpretCodeReply(ParseReplyNumber(reply.Text().data(), reply.Text().size()));
    if (!issued) {
        user_.Refuse(prompts::kNoCode);
        log_.Unavailable("the agent could not obtain a verification code");
        return PAM_AUTHINFO_UNAVAIL;
    }
    return CompareTypedCodes(*reference, *issued);
}

int ServiceFactor::CompareTypedCodes(std::uint32_t reference, std::uint32_t issued)
{
    const std::string prompt = prompts::kCodeForReference + std::to_string(reference) + ": ";
    SecretString typed;
    for (int attempt = 1; attempt <= kMaxTries; ++attempt) {
        const AnswerStatus answered = user_.Ask(prompt, options_.echoCode, &typed);
        if (answered != AnswerStatus::Answered) {
            return NoAnswer(answered, "verification code");
        }
        if (TypedCodeMatches(typed.Text(), issued)) {
            log_.Accepted("verification code for login reference " + std::to_string(reference));
            return PAM_SUCCESS;
        }
        user_.Warn(prompts::kWrongCode);
        log_.Rejected("wrong verification code (" + AttemptText(attempt) + ")");
    }
    user_.Refuse(prompts::kTooManyTries);
    log_.Refused(std::to_string(kMaxTries) + " wrong verification codes");
    return PAM_MAXTRIES;
}

int ServiceFactor::AgentFailed(AskStatus status, const char* step)
{
    user_.Refuse(prompts::kServiceUnavailable);
    std::string reason = std::string("no answer to the ") + step + ": ";
    switch (status) {
    case AskStatus::NoServer:
        reason += "the agent is not running";
        break;
    case AskStatus::TimedOut:
        reason += "no reply within " + std::to_string(options_.replyTimeoutMs) + " ms";
        break;
    case AskStatus::Failed:
    case AskStatus::Answered:
        reason += std::string("socket error: ") + std::strerror(agent_.LastError());
        break;
    }
    if (agent_.UntrustedReplies() > 0) {
        reason += "; ignored replies not sent by the agent as root: " +
                  std::to_string(agent_.UntrustedReplies()) + " (last sender uid " +
                  std::to_string(static_cast<long>(agent_.LastUntrustedUid())) + ")";
    }
    log_.Unavailable(reason);
    return status == AskStatus::Failed ? PAM_SYSTEM_ERR : PAM_AUTHINFO_UNAVAIL;
}

int ServiceFactor::NoAnswer(AnswerStatus status, const char* step)
{
    if (status == AnswerStatus::Empty) {
        log_.Refused(std::string("empty answer to the ") + step + " prompt");
        return PAM_AUTH_ERR;
    }
    log_.Refused(std::string("conversation failed at the ") + step + " prompt");
    return PAM_CONV_ERR;
}

} // namespace brackmoor::pam
