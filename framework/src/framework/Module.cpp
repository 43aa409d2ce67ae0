#include "Framework/Module.h"

#include <exception>
#include <set>

#include <Poco/Logger.h>

#include "Framework/TaskPolicy.h"
#include "SDK/LoggerUtils.h"

namespace Framework {

namespace {

void Log(Poco::Message::Priority priority, const std::string& text)
{
    try {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
        if (logger != nullptr && logger->getLevel() >= priority) {
            logger->log(Poco::Message(logger->name(), text, priority));
        }
    } catch (const std::exception&) {
        // Logging never disturbs the framework.
    }
}

// Task code is foreign to the framework: nothing it throws may escape into the agent.
template <typename Call>
bool Guarded(const std::string& what, Call call)
{
    try {
        call();
        return true;
    } catch (const std::exception& e) {
        Log(Poco::Message::PRIO_ERROR, what + " threw: " + e.what());
    } catch (...) {
        Log(Poco::Message::PRIO_ERROR, what + " threw an unknown exception");
    }
    return false;
}

} // namespace

Module::Module(const std::string& name) : moduleName(name) {}

Module::~Module()
{
    Module::UnInit();
}

int Module::Init()
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    initialised = true;
    for (auto& entry : tasks) {
        if (entry.second.autoStart) {
            StartTask(entry.second);
        }
    }
    return 0;
}

void Module::UnInit()
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    for (auto& entry : tasks) {
        StopTask(entry.second);
    }
    for (auto& entry : tasks) {
        ReleaseTask(entry.second);
    }
    tasks.clear();
    callbacks.clear();
    for (auto& entry : featurePolicies) {
        if (entry.second != nullptr) {
            entry.second->expired = true;
            delete entry.second;
        }
    }
    featurePolicies.clear();
    initialised = false;
}

int Module::RefreshPolicy(const std::string& callbackId, const std::string& featureName,
                          const std::string& content, Policy*& current)
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    auto held = featurePolicies.find(featureName);
    Policy* previous = held == featurePolicies.end() ? nullptr : held->second;
    current = previous;

    auto found = callbacks.find(callbackId);
    if (found == callbacks.end() || !found->second) {
        Log(Poco::Message::PRIO_ERROR, "Module " + moduleName + ": no policy callback " + callbackId + ".");
        return -1;
    }
    Policy* inForce = previous;
    Policy* fresh = nullptr;
    Guarded("Policy callback " + callbackId, [&] { fresh = found->second->invoke(featureName, content, inForce); });
    if (fresh == nullptr) {
        // The held policy stays in force, whatever the callback marked on it.
        if (previous != nullptr) {
            previous->expired = false;
        }
        Log(Poco::Message::PRIO_WARNING, "Module " + moduleName + ": policy of feature " + featureName +
                                             " rejected; the one in force is kept.");
        return -2;
    }

    ++policySequence;
    featurePolicies[featureName] = fresh;
    if (auto* feature = dynamic_cast<FeaturePolicy*>(fresh)) {
        feature->sequence = static_cast<int>(policySequence);
        DispatchFeaturePolicy(feature, previous);
    }
    if (previous != nullptr) {
        previous->expired = true;
        delete previous;
    }
    current = fresh;
    return 0;
}

void Module::DispatchFeaturePolicy(FeaturePolicy* accepted, Policy* previous)
{
    accepted->Dispatch(previous);
    std::set<std::string> named;
    for (auto& child : accepted->Children()) {
        auto* taskPolicy = dynamic_cast<TaskPolicy*>(child.second);
        if (taskPolicy == nullptr) {
            continue;
        }
        auto slot = tasks.find(taskPolicy->name);
        if (slot == tasks.end()) {
            Log(Poco::Message::PRIO_WARNING, "Module " + moduleName + ": policy names unknown task " +
                                                 taskPolicy->name + ".");
            continue;
        }
        taskPolicy->task = slot->second.task;
        named.insert(slot->first);
        StopTask(slot->second);
        slot->second.task->SetPolicy(accepted, policySequence);
        StartTask(slot->second);
    }
    // A task that the replaced policy drove and the new one does not name is stopped.
    for (auto& entry : tasks) {
        Task* task = entry.second.task;
        if (named.count(entry.first) == 0 && previous != nullptr && task->policy == previous) {
            StopTask(entry.second);
            task->SetPolicy(nullptr, policySequence);
        }
    }
}

void Module::RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* cb)
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    if (cb != nullptr) {
        cb->enabled = true;
    }
    callbacks[id].reset(cb);
}

void Module::UnRegisterPolicyCallback(const std::string& id)
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    callbacks.erase(id);
}

void Module::RegisterTask(Task* task, bool autoStart)
{
    if (task == nullptr) {
        return;
    }
    std::lock_guard<std::recursive_mutex> guard(lock);
    UnRegisterTask(task->name());
    TaskSlot& slot = tasks[task->name()];
    slot.task = task;
    slot.autoStart = autoStart;
    if (autoStart && initialised) {
        StartTask(slot);
    }
}

int Module::UnRegisterTask(const std::string& name)
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    auto found = tasks.find(name);
    if (found == tasks.end()) {
        return 0;
    }
    StopTask(found->second);
    ReleaseTask(found->second);
    tasks.erase(found);
    return 1;
}

bool Module::IsTaskRunning(const std::string& name) const
{
    std::lock_guard<std::recursive_mutex> guard(lock);
    auto found = tasks.find(name);
    return found != tasks.end() && found->second.thread.joinable() &&
           found->second.task->state() == Poco::Task::TASK_RUNNING;
}

void Module::StartTask(TaskSlot& slot)
{
    Task* task = slot.task;
    task->reset();
    task->condition.started.reset();
    int result = -1;
    slot.initialised = true;  // UnInit is owed whatever Init returns
    Guarded("Init of task " + task->name(), [&] { result = task->Init(); });
    if (result < 0) {
        Log(Poco::Message::PRIO_ERROR, "Task " + task->name() + " init failed (" + std::to_string(result) +
                                           "); it does not run.");
        return;
    }
    Guarded("Start of task " + task->name(), [&] { slot.thread = std::thread([task] { task->run(); }); });
    if (slot.thread.joinable()) {
        task->condition.started.wait();
    }
}

void Module::StopTask(TaskSlot& slot)
{
    if (slot.thread.joinable()) {
        slot.task->cancel();
        slot.thread.join();
    }
    if (slot.initialised) {
        slot.initialised = false;
        Guarded("UnInit of task " + slot.task->name(), [&] { slot.task->UnInit(); });
    }
}

void Module::ReleaseTask(TaskSlot& slot)
{
    if (slot.task != nullptr) {
        slot.task->release();
        slot.task = nullptr;
    }
}

} // namespace Framework
