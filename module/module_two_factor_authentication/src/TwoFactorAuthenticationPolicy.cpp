#include "TwoFactorAuthenticationPolicy.h"

#include <new>

#include "Framework/TaskPolicy.h"
#include "SDK/JsonUtils.h"
#include "SDK/StrUtils.h"
#include "TwoFactorAuthenticationPamLine.h"
#include "TwoFactorAuthenticationLog.h"
#include "TwoFactorAuthenticationNames.h"

namespace Engine {

TwoFactorAuthenticationPolicy::TwoFactorAuthenticationPolicy(const std::string& policyName)
    : Framework::FeaturePolicy(policyName)
{
}

TwoFactorAuthenticationPolicy::~TwoFactorAuthenticationPolicy()
{
    excludeUserList.clear();
}

bool TwoFactorAuthenticationPolicy::Parse(const std::string& content)
{
    // Every message quotes the whole document so that a rejected one can be read in the log.
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), root) != 0) {
        TFA_LOG_ERROR("Parse feature(%s) policy(%s) failed.", name, content);
        return false;
    }
    Json::Value settings;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", settings)) {
        TFA_LOG_ERROR("Parse feature(%s) policy(%s) content failed.", name, content);
        return false;
    }
    // No range checks: a zero or negative refresh time is kept as given.
    refreshTime = SDK::JsonUtils::GetIntValue(settings, "refresh_time", 300);
    echo = SDK::JsonUtils::GetIntValue(settings, "echo", 1);
    local = SDK::JsonUtils::GetIntValue(settings, "local", 1);

    Json::Value users;
    if (!SDK::JsonUtils::GetArrayValue(settings, "exclude_user_list", users)) {
        TFA_LOG_ERROR("Parse task(%s) policy(%s) exclude user list failed.", name, content);
        return false;
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
            TFA_LOG_ERROR("Parse task(%s) policy(%s) exclude user(%u) invalid.", name, content, i);
            return false;
        }
        excludeUserList.push_back(user);
    }
    // A module line longer than PAM reads is cut, and its rest read as a
    // line of its own: every user would be refused.
    if (!PamLine::FitsPamLine(PamLine::FormatArguments(refreshTime, echo, local, excludeUserList))) {
        TFA_LOG_ERROR("Parse task(%s) policy(%s) exclude user list too long.", name, content);
        return false;
    }

    Framework::TaskPolicy* taskPolicy = new (std::nothrow) Framework::TaskPolicy(two_factor_authentication_task);
    if (taskPolicy == nullptr) {
        TFA_LOG_ERROR("New task(%s) policy failed.", two_factor_authentication_task);
        return false;
    }
    Add(taskPolicy);

    TFA_LOG_INFO("Parse feature(%s) policy(%s) success.", name, content);
    return true;
}

} // namespace Engine
