#include "PamConversation.h"

#include "Prompts.h"

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

void PamConversation::Refuse(const std::string& text)
{
    if (silent_) {
        return;
    }
    const void* item = nullptr;
    if (pam_get_item(pamh_, PAM_CONV, &item) != PAM_SUCCESS || item == nullptr) {
        return;
    }
    const auto* conv = static_cast<const pam_conv*>(item);
    if (conv->conv == nullptr) {
        return;
    }
    // pam_prompt carries one message only: the pair is built by hand.
    const pam_message error{PAM_ERROR_MSG, text.c_str()};
    const pam_message close{PAM_PROMPT_ECHO_ON, prompts::kCloseRefusedLogin};
    const pam_message* messages[] = {&error, &close};
    pam_response* responses = nullptr;
    if (conv->conv(2, messages, &responses, conv->appdata_ptr) != PAM_SUCCESS || responses == nullptr) {
        return;
    }
    for (int i = 0; i < 2; ++i) {
        if (responses[i].resp != nullptr) {
            WipeBytes(responses[i].resp, std::strlen(responses[i].resp));
            free(responses[i].resp);
        }
    }
    free(responses);
}

} // namespace brackmoor::pam
