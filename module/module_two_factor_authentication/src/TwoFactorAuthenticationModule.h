#pragma once

#include <string>

#include "Framework/Module.h"

namespace Engine {

/// The plug-in: registers the policy callback "10001" and the module's one
/// task with the framework, and turns pushed documents into policies.
/// It holds no state of its own; the framework owns the callback, the task
/// and every accepted policy.
class TwoFactorAuthenticationModule : public Framework::Module {
public:
    TwoFactorAuthenticationModule();
    ~TwoFactorAuthenticationModule() override;

    /// Registers the callback and the task; -1 when the task cannot be
    /// created, otherwise the framework's result.
    int Init() override;
    /// Removes the callback and the task (stopping it), then the framework part.
    void UnInit() override;

    /// Builds the policy for a pushed document; the new policy (the caller
    /// owns it) or null. `current` is marked expired in every case.
    Framework::Policy* RefreshFeaturePolicy(const std::string& featureName, const std::string& content,
                                            Framework::Policy*& current);
};

} // namespace Engine

extern "C" {
/// The agent's entry: a new module, owned and deleted by the caller.
__attribute__((visibility("default"))) Framework::Module* CreateModule();
}
