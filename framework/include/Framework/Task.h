#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <Poco/Task.h>

#include "Framework/Event.h"
#include "Framework/EventWaiter.h"
#include "Framework/FeaturePolicy.h"
#include "Framework/Message.h"
#include "Framework/TaskCondition.h"

namespace Framework {

class Module;

/// Base of every task a module registers with Framework::Module.
///
/// Lifecycle as the framework drives it: when a feature policy naming the
/// task is accepted, the framework stores it for the task, calls Init() on
/// the refreshing thread and, when Init() does not fail, runs Run() on a
/// thread of the task's own (Poco::Task::run -> runTask -> Run). Stopping
/// cancels the Poco::Task, waits for Run() to return and calls UnInit().
/// Every Init() is paired with one UnInit(), whatever Init() returned.
///
/// Messages: any thread may EnqueueMsg(); the task drains its queue on its
/// own thread with BulkConsumeMsg(), which hands each message to HandleMsg().
class Task : public Poco::Task {
public:
    Task(const std::string& name, const std::string& featureName, TaskCondition::TaskType type,
         unsigned int queueCapacity);

    /// Poco::Task entry on the task thread: signals the start hand-shake, then Run().
    void runTask() override;

    /// Prepares the task; 0 on success, negative on failure.
    virtual int Init();
    /// Releases what Init() set up.
    virtual void UnInit();
    /// The task's work on its own thread; returns when cancelled.
    virtual int Run();

    /// Queues `msg` for the task thread unless InterceptMsg() takes it first.
    /// 0 when queued or intercepted, -1 when the queue is full.
    virtual int EnqueueMsg(std::shared_ptr<Message>& msg);
    /// Lets a task take a message synchronously on the sender's thread; true
    /// when it was taken (and is not queued).
    virtual bool InterceptMsg(std::shared_ptr<Message>& msg);
    /// Handles one queued message on the task thread; its result is ignored.
    virtual int HandleMsg(const Message* msg);

    /// Takes up to `max` queued messages and hands each to HandleMsg();
    /// returns how many were handled.
    int BulkConsumeMsg(int max);

    /// The feature policy the framework holds for this task, or null. Marks
    /// the latest delivered policy as applied.
    FeaturePolicy* CurrentPolicy()
    {
        ++policyReads;
        appliedSequence = deliveredSequence.load(std::memory_order_acquire);
        return policy;
    }

    const std::string& FeatureName() const { return featureName; }
    TaskCondition::TaskType Type() const { return condition.type; }
    unsigned long PolicyReads() const { return policyReads; }
    unsigned int AppliedPolicySequence() const { return appliedSequence; }

    /// Public so that a task can be deleted directly; the framework itself
    /// releases tasks through Poco's reference count.
    ~Task() override;

protected:
    EventWaiter eventWaiter;
    Event event;
    TaskCondition condition;
    MessageProductor productor;
    MessageConsumer consumer;

private:
    friend class Module;

    /// Called by the framework: the policy this task is to read at its next Init().
    void SetPolicy(FeaturePolicy* feature, unsigned int sequence)
    {
        policy = feature;
        deliveredSequence.store(sequence, std::memory_order_release);
    }

    std::string featureName;
    FeaturePolicy* policy = nullptr;          // owned by the Module
    unsigned long policyReads = 0;
    unsigned int appliedSequence = 0;
    std::atomic<unsigned int> deliveredSequence{0};
};

} // namespace Framework
