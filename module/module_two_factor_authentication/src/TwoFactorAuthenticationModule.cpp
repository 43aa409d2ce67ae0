#include "TwoFactorAuthenticationModule.h"

#include <new>

#include "TwoFactorAuthenticationLog.h"
#include "TwoFactorAuthenticationNames.h"
#include "TwoFactorAuthenticationPolicy.h"
#include "TwoFactorAuthenticationTask.h"

namespace Engine {

TwoFactorAuthenticationModule::TwoFactorAuthenticationModule()
    : Framework::Module(two_factor_authentication_module)
{
}

TwoFactorAuthenticationModule::~TwoFactorAuthenticationModule() = default;

int TwoFactorAuthenticationModule::Init()
{
    TFA_LOG_INFO("Init module(%s).", two_factor_authentication_module);

    // A failed allocation registers a null callback; the framework ignores it.
    auto* callback = new (std::nothrow) Framework::PolicyCallback<TwoFactorAuthenticationModule>(
        this, &TwoFactorAuthenticationModule::RefreshFeaturePolicy);
    RegisterPolicyCallback(two_factor_authentication_policy_callback_id, callback);

    auto* task = new (std::nothrow) TwoFactorAuthenticationTask();
    if (task == nullptr) {
        TFA_LOG_ERROR("New task(%s) failed.", two_factor_authentication_task);
        return -1;
    }
    RegisterTask(task, false);
    TFA_LOG_INFO("Register task(%s).", two_factor_authentication_task);
    return Framework::Module::Init();
}

void TwoFactorAuthenticationModule::UnInit()
{
    UnRegisterPolicyCallback(two_factor_authentication_policy_callback_id);
    if (UnRegisterTask(two_factor_authentication_task) != 0) {
        TFA_LOG_INFO("UnRegister task(%s).", two_factor_authentication_task);
    }
    Framework::Module::UnInit();
    TFA_LOG_INFO("UnInit module(%s).", two_factor_authentication_module);
}

Framework::Policy* TwoFactorAuthenticationModule::RefreshFeaturePolicy(const std::string& featureName,
                                                                       const std::string& content,
                                                                       Framework::Policy*& current)
{
    TFA_LOG_INFO("Refresh feature(%s) policy.", featureName);

    Framework::Policy* result = nullptr;
    if (featureName != two_factor_authentication_feature) {
        TFA_LOG_ERROR("Expected feature name(%s), actual feature name(%s), refresh policy failed.",
                      two_factor_authentication_feature, featureName);
    } else {
        auto* policy = new (std::nothrow) TwoFactorAuthenticationPolicy(two_factor_authentication_feature);
        if (policy == nullptr) {
            TFA_LOG_ERROR("New feature(%s) policy failed.", two_factor_authentication_feature);
        } else if (!policy->Parse(content)) {
            TFA_LOG_ERROR("Parse feature(%s) policy failed.", two_factor_authentication_feature);
            policy->expired = true;
            delete policy;
        } else {
            result = policy;
        }
    }

    // Whatever came of the document, the policy held so far is superseded.
    if (current != nullptr) {
        current->expired = true;
    }
    return result;
}

} // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    return new Engine::TwoFactorAuthenticationModule();
}
