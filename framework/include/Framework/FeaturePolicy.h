#pragma once

#include <string>

#include "Framework/CompositePolicy.h"

namespace Framework {

class Task;

/// The policy of one feature, as a module's callback builds it. Its TaskPolicy
/// children name the tasks the feature drives.
class FeaturePolicy : public CompositePolicy {
public:
    explicit FeaturePolicy(const std::string& featureName = std::string());
    ~FeaturePolicy() override;

    /// Passes this policy on to every TaskPolicy child (each child records
    /// this feature policy as its parent). `target` is the policy being
    /// replaced, or null; it is not touched.
    void Dispatch(Policy* target) override;

    /// True when `version` differs from policyVersion or `id` from policyId.
    bool PolicyChanged(const std::string& version, const std::string& id) override;

    std::string policyId;       ///< identity of the pushed document (set by the framework)
    std::string policyVersion;  ///< revision of the pushed document (set by the framework)
    int sequence = 0;           ///< delivery number the framework gave this policy
};

} // namespace Framework
