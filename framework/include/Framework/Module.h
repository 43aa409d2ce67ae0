#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <Poco/Util/Subsystem.h>

#include "Framework/FeaturePolicy.h"
#include "Framework/PolicyCallback.h"
#include "Framework/Task.h"

namespace Framework {

/// Base of every agent module: owns the module's policy callbacks, its tasks
/// and the current policy of each feature, and drives the tasks.
///
/// The agent creates a module through the library's CreateModule, calls
/// Init(), pushes policy documents with RefreshPolicy(), and finally calls
/// UnInit() and deletes the module. The Poco::Util::Subsystem hooks do
/// nothing: a module's life runs through Init and UnInit only.
///
/// Ownership: registered callbacks, registered tasks and accepted policies
/// belong to the module base from registration on and are released by
/// UnRegister*/UnInit/the destructor.
///
/// Threads: the public operations may be called from any agent thread; they
/// are serialised by one mutex. Each running task has a thread of its own.
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);
    /// Stops and releases whatever UnInit() has not.
    ~Module() override;

    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const char* name() const override { return moduleName.c_str(); }
    void initialize(Poco::Util::Application&) override {}
    void uninitialize() override {}

    /// Starts the module; 0 on success. Tasks registered with autoStart run now.
    virtual int Init();
    /// Stops every task (cancel, wait for Run, UnInit), then releases tasks,
    /// callbacks and policies.
    virtual void UnInit();

    /// Routes a pushed document: the callback registered under `callbackId`
    /// builds the policy for `featureName` from `content`. An accepted policy
    /// becomes the feature's current one (the previous one is marked expired
    /// and released) and is dispatched to the tasks named by its TaskPolicy
    /// children, which are started, or restarted when running (cancel, wait,
    /// UnInit, Init, Run). A task that the previous policy drove and the new
    /// one does not name is stopped.
    ///
    /// On return `current` points at the feature's policy in force (owned by
    /// the module; valid until the next refresh or UnInit), or is null.
    /// Returns 0 when the document was accepted; -1 for an unknown callback
    /// id, -2 when the callback rejected the document. A rejected document
    /// leaves the policy in force and the running tasks as they are: the
    /// callback may have marked the held policy expired, the framework then
    /// clears that mark since the policy stays in force.
    virtual int RefreshPolicy(const std::string& callbackId, const std::string& featureName,
                              const std::string& content, Policy*& current);

    /// Registers `cb` (ownership passes to the module; null is accepted and
    /// ignored by RefreshPolicy). A callback already under `id` is released.
    void RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* cb);
    /// Releases the callback under `id`, if any.
    void UnRegisterPolicyCallback(const std::string& id);

    /// Takes ownership of `task` under its name. With `autoStart` the task is
    /// started without a policy (at once when the module is initialised,
    /// otherwise at Init); without it, when a policy names it. A task of the
    /// same name is stopped and replaced. Null is ignored.
    void RegisterTask(Task* task, bool autoStart);
    /// Stops the named task if it runs (cancel, wait for Run, UnInit) and
    /// releases it; non-zero when a task was removed, 0 when none had that name.
    int UnRegisterTask(const std::string& name);

    /// Whether the named task's Run() is executing on its thread now.
    bool IsTaskRunning(const std::string& name) const;

private:
    struct TaskSlot {
        Task* task = nullptr;  // one Poco reference held
        bool autoStart = false;
        bool initialised = false;  // Init() made, UnInit() owed
        std::thread thread;
    };

    void StartTask(TaskSlot& slot);
    void StopTask(TaskSlot& slot);
    void ReleaseTask(TaskSlot& slot);
    void DispatchFeaturePolicy(FeaturePolicy* accepted, Policy* previous);

    std::string moduleName;
    mutable std::recursive_mutex lock;
    bool initialised = false;
    unsigned int policySequence = 0;
    std::map<std::string, std::unique_ptr<AbstractPolicyCallback>> callbacks;
    std::map<std::string, TaskSlot> tasks;
    std::map<std::string, Policy*> featurePolicies;  // owned
};

} // namespace Framework
