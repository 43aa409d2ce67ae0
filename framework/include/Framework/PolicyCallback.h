#pragma once

#include <string>

#include "Framework/Policy.h"

namespace Framework {

/// A module's entry for pushed policy documents, registered under an id with
/// Module::RegisterPolicyCallback. The framework owns registered callbacks.
class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;

    /// Builds the policy for `featureName` from `content`; returns the new
    /// policy (ownership passes to the caller) or null. `current` is the
    /// policy the framework holds for the feature, or null.
    virtual Policy* invoke(const std::string& featureName, const std::string& content,
                           Policy*& current) const = 0;

    bool enabled = false;  ///< framework bookkeeping: set while the callback is registered
};

/// Binds a policy callback to a member function of T.
template <class T>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Method = Policy* (T::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(T* object, Method method) : target(object), handler(method) {}

    Policy* invoke(const std::string& featureName, const std::string& content,
                   Policy*& current) const override
    {
        return (target->*handler)(featureName, content, current);
    }

private:
    T* target;
    Method handler;
};

} // namespace Framework
