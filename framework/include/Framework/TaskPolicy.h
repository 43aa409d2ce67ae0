#pragma once

#include <string>

#include "Framework/Policy.h"

namespace Framework {

class FeaturePolicy;
class Task;

/// Child of a feature policy naming one task that the feature drives. The
/// framework starts (or restarts) the named task when the feature policy is
/// accepted.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& taskName) : Policy(taskName) { type = POLICY_TYPE_TASK; }

    bool Parse(const std::string& content) override
    {
        (void)content;
        return true;
    }

    /// Records `target` as the feature policy this child belongs to.
    void Dispatch(Policy* target) override;

    FeaturePolicy* parent = nullptr;  ///< owning feature policy, set by Dispatch
    Task* task = nullptr;             ///< task the framework bound to this child
    void* context = nullptr;          ///< free for the task's own use
};

} // namespace Framework
