#include "TwoFactorAuthenticationPolicyDocument.h"

#include <json/json.h>

#include "SDK/JsonUtils.h"
#include "SDK/StrUtils.h"
#include "TwoFactorAuthenticationPamLine.h"

namespace Engine {

PolicyFault ReadPolicyDocument(const std::string& text, PolicySettings& settings, unsigned int& badIndex)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0) {
        return PolicyFault::NotJson;
    }
    Json::Value content;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", content)) {
        return PolicyFault::NoContent;
    }
    // No range checks: a zero or negative refresh time is kept as given.
    settings.refreshTime = SDK::JsonUtils::GetIntValue(content, "refresh_time", 300);
    settings.echo = SDK::JsonUtils::GetIntValue(content, "echo", 1);
    settings.local = SDK::JsonUtils::GetIntValue(content, "local", 1);

    Json::Value users;
    if (!SDK::JsonUtils::GetArrayValue(content, "exclude_user_list", users)) {
        return PolicyFault::NoUserList;
    }
    for (Json::ArrayIndex i = 0; i < users.size(); ++i) {
        if (!users[i].isString()) {
            continue;
        }
        std::string user = users[i].asString();
        SDK::StrUtils::Trim(user);
        if (user.empty()) {
            continue;
        }
        // Each name becomes part of a PAM module argument: one that could end
        // the argument, split the list or the line would exclude users nobody
        // named, or add lines of its own to the auth stack.
        if (!PamLine::IsValidUserName(user)) {
            badIndex = i;
            return PolicyFault::InvalidUser;
        }
        settings.excludeUserList.push_back(user);
    }
    // A module line longer than PAM reads is cut, and its rest read as a
    // line of its own: every user would be refused.
    const std::string arguments = PamLine::FormatArguments(settings.refreshTime, settings.echo, settings.local,
                                                           settings.excludeUserList);
    return PamLine::FitsPamLine(arguments) ? PolicyFault::None : PolicyFault::LineTooLong;
}

} // namespace Engine
