#include "Framework/FeaturePolicy.h"

#include "Framework/TaskPolicy.h"

namespace Framework {

FeaturePolicy::FeaturePolicy(const std::string& featureName) : CompositePolicy(featureName)
{
    type = POLICY_TYPE_FEATURE;
}

FeaturePolicy::~FeaturePolicy()
{
    policyId.clear();
    policyVersion.clear();
}

void FeaturePolicy::Dispatch(Policy* target)
{
    (void)target;
    for (auto& entry : children) {
        entry.second->Dispatch(this);
    }
}

bool FeaturePolicy::PolicyChanged(const std::string& version, const std::string& id)
{
    return version != policyVersion || id != policyId;
}

void TaskPolicy::Dispatch(Policy* target)
{
    parent = dynamic_cast<FeaturePolicy*>(target);
}

} // namespace Framework
