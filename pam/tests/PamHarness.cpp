#include "PamHarness.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdlib.h>

namespace brackmoor::pam::test {
namespace {

constexpr char kService[] = "brackmoor-test";

const std::string& ConfigDirectory()
{
    static const std::string directory = [] {
        char pattern[] = "/tmp/brackmoor-pam-conf.XXXXXX";
        const char* made = mkdtemp(pattern);
        const std::string path = made != nullptr ? made : "/nonexistent";
        // libpam reads "other" as the fallback service; without it, it logs a complaint.
        std::ofstream(path + "/other") << "auth required pam_deny.so\n";
        return path;
    }();
    return directory;
}

} // namespace

std::vector<Message> ScriptedUser::Prompts() const
{
    std::vector<Message> prompts;
    for (const Message& m : seen_) {
        if (m.style == PAM_PROMPT_ECHO_ON || m.style == PAM_PROMPT_ECHO_OFF) {
            prompts.push_back(m);
        }
    }
    return prompts;
}

std::vector<Message> ScriptedUser::Questions() const
{
    std::vector<Message> questions = Prompts();
    if (!questions.empty() && questions.back().text == kClosingPrompt) {
        questions.pop_back();
    }
    return questions;
}

bool ScriptedUser::Saw(const std::string& fragment) const
{
    for (const Message& m : seen_) {
        if (m.text.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

int ScriptedUser::Converse(int count, const pam_message** messages, pam_response** responses, void* self)
{
    ScriptedUser& user = *static_cast<ScriptedUser*>(self);
    auto* replies = static_cast<pam_response*>(calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    for (int i = 0; i < count; ++i) {
        const pam_message& m = *messages[i];
        user.seen_.push_back({m.msg_style, m.msg != nullptr ? m.msg : ""});
        if (m.msg_style != PAM_PROMPT_ECHO_ON && m.msg_style != PAM_PROMPT_ECHO_OFF) {
            continue;
        }
        if (user.prompts_++ == user.failAtPrompt_ || user.nextAnswer_ == user.answers_.size()) {
            for (int j = 0; j < i; ++j) {
                free(replies[j].resp);
            }
            free(replies);
            return PAM_CONV_ERR;
        }
        replies[i].resp = strdup(user.answers_[user.nextAnswer_++].c_str());
    }
    *responses = replies;
    return PAM_SUCCESS;
}

int Authenticate(const std::string& arguments, const std::string& user, ScriptedUser& script)
{
    {
        std::ofstream service(ConfigDirectory() + "/" + kService, std::ios::trunc);
        service << "auth required " << BRACKMOOR_PAM_MODULE_PATH << " " << arguments << "\n";
    }
    const pam_conv conversation{&ScriptedUser::Converse, &script};
    pam_handle_t* pamh = nullptr;
    int result = pam_start_confdir(kService, user.c_str(), &conversation, ConfigDirectory().c_str(), &pamh);
    if (result != PAM_SUCCESS) {
        return result;
    }
    pam_set_item(pamh, PAM_RHOST, kRemoteHost);
    result = pam_authenticate(pamh, 0);
    pam_end(pamh, result);
    return result;
}

} // namespace brackmoor::pam::test
