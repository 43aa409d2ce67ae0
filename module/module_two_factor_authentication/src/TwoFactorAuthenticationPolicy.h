#pragma once

#include <string>
#include <vector>

#include "Framework/FeaturePolicy.h"

namespace Engine {

/// The feature's settings as the agent pushes them:
///   {"content": {"refresh_time": 300, "echo": 1, "local": 1, "exclude_user_list": ["root"]}}
/// "content" and "exclude_user_list" are required; missing or non-integer
/// numbers take their defaults. A parsed policy has one TaskPolicy child
/// naming the module's task.
class TwoFactorAuthenticationPolicy : public Framework::FeaturePolicy {
public:
    explicit TwoFactorAuthenticationPolicy(const std::string& policyName);
    ~TwoFactorAuthenticationPolicy() override;

    /// Reads `content`; true when accepted. Called once, on a fresh object.
    bool Parse(const std::string& content) override;

    int GetRefreshTime() const { return refreshTime; }
    int GetEcho() const { return echo; }
    int GetLocal() const { return local; }
    /// A copy of the excluded users, in document order.
    std::vector<std::string> GetExcludeUserList() const { return excludeUserList; }

private:
    int refreshTime = 300;  ///< seconds a fetched contact list stays fresh
    int echo = 1;           ///< 1: the PAM module echoes the typed code
    int local = 1;          ///< 1: codes are checked on the host, no IPC server
    std::vector<std::string> excludeUserList;  ///< users without a second factor
};

} // namespace Engine
