#pragma once

#include <map>
#include <string>

#include "Framework/Policy.h"

namespace Framework {

/// A policy that owns child policies, ordered and keyed by their names.
class CompositePolicy : public Policy {
public:
    explicit CompositePolicy(const std::string& policyName = std::string()) : Policy(policyName) {}
    ~CompositePolicy() override;

    /// Takes ownership of `child`; a child of the same name is replaced and
    /// released. A null child is ignored.
    void Add(Policy* child);

    /// Children by name; the composite keeps ownership.
    const std::map<std::string, Policy*>& Children() const { return children; }

protected:
    std::map<std::string, Policy*> children;
};

} // namespace Framework
