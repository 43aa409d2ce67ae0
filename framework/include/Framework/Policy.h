#pragma once

#include <string>

namespace Framework {

/// Polymorphic root of every policy the agent hands to its modules.
///
/// A policy is built by a module's policy callback from a pushed document and,
/// once accepted, owned by the framework (Framework::Module keeps one current
/// policy per feature). `expired` is set when a policy must no longer be used:
/// the module marks the policy it is replacing, the framework marks the one it
/// releases.
class Policy {
public:
    explicit Policy(const std::string& policyName = std::string()) : name(policyName) {}
    virtual ~Policy() = default;

    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    /// Reads a policy document; true when it was accepted.
    virtual bool Parse(const std::string& content) = 0;

    /// Hands this policy to `target` (feature policies pass themselves on to
    /// their task children).
    virtual void Dispatch(Policy* target) = 0;

    /// Whether a document identified by (version, id) differs from this policy.
    virtual bool PolicyChanged(const std::string& version, const std::string& id)
    {
        (void)version;
        (void)id;
        return false;
    }

    std::string name;   ///< feature name for feature policies, task name for task policies
    int type = 0;       ///< framework's kind tag, see PolicyType
    bool expired = false;
};

/// Values of Policy::type.
enum PolicyType {
    POLICY_TYPE_NONE = 0,       ///< not set
    POLICY_TYPE_FEATURE = 1,    ///< a FeaturePolicy
    POLICY_TYPE_TASK = 2,       ///< a TaskPolicy
};

} // namespace Framework
