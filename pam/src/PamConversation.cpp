#include "PamConversation.h"

#include <cstring>
#include <security/pam_ext.h>
#include <stdlib.h>

namespace brackmoor::pam {
namespace {

bool IsBlankOnly(const std::string& text)
{
    return text.find_first_not_of(" \t\r\n\v\f") == std::string::npos;
}

} // namespace

AnswerStatus PamConversation::Ask(const std::string& prompt, bool echo, SecretString* answer)
{
    answer->Wipe();
    char* response = nullptr;
    const int style = echo ? PAM_PROMPT_ECHO_ON : PAM_PROMPT_ECHO_OFF;
    const int result = pam_prompt(pamh_, style, &response, "%s", prompt.c_str());
    if (result != PAM_SUCCESS || response == nullptr) {
        if (response != nullptr) {
            WipeBytes(response, std::strlen(response));
            free(response);
        }
        return AnswerStatus::Failed;
    }
    const std::size_t length = std::strlen(response);
    answer->Assign(response, length);
    WipeBytes(response, length);
    free(response);
    return IsBlankOnly(answer->Text()) ? AnswerStatus::Empty : AnswerStatus::Answered;
}

void PamConversation::Tell(const std::string& text)
{
    if (!silent_) {
        pam_info(pamh_, "%s", text.c_str());
    }
}

void PamConversation::Warn(const std::string& text)
{
    if (!silent_) {
        pam_error(pamh_, "%s", text.c_str());
    }
}

} // namespace brackmoor::pam
