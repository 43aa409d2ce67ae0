#include "TwoFactorAuthenticationPolicy.h"

#include <new>

#include "Framework/TaskPolicy.h"
#include "TwoFactorAuthenticationPolicyDocument.h"
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
    PolicySettings settings;
    unsigned int badIndex = 0;
    const PolicyFault fault = ReadPolicyDocument(content, settings, badIndex);
    refreshTime = settings.refreshTime;
    echo = settings.echo;
    local = settings.local;
    switch (fault) {
    case PolicyFault::NotJson:
        TFA_LOG_ERROR("Parse feature(%s) policy(%s) failed.", name, content);
        return false;
    case PolicyFault::NoContent:
        TFA_LOG_ERROR("Parse feature(%s) policy(%s) content failed.", name, content);
        return false;
    case PolicyFault::NoUserList:
        TFA_LOG_ERROR("Parse task(%s) policy(%s) exclude user list failed.", name, content);
        return false;
    case PolicyFault::InvalidUser:
        TFA_LOG_ERROR("Parse task(%s) policy(%s) exclude user(%u) invalid.", name, content, badIndex);
        return false;
    case PolicyFault::LineTooLong:
        TFA_LOG_ERROR("Parse task(%s) policy(%s) exclude user list too long.", name, content);
        return false;
    case PolicyFault::None:
        break;
    }
    excludeUserList = settings.excludeUserList;

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
