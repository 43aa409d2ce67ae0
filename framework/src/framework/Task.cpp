#include "Framework/Task.h"

namespace Framework {

Task::Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
           unsigned int queueCapacity)
    : Poco::Task(name), condition(type), consumer(queueCapacity), featureName(feature)
{
}

Task::~Task() = default;

void Task::runTask()
{
    // From here on a cancel() can no longer be overwritten by Poco::Task::run
    // setting TASK_RUNNING, so the framework may rely on it.
    condition.started.set();
    Run();
}

int Task::Init()
{
    return 0;
}

void Task::UnInit() {}

int Task::Run()
{
    while (!isCancelled()) {
        if (eventWaiter.WaitAndHandleEvent(100, 128) == -1) {
            BulkConsumeMsg(128);
        }
    }
    return 0;
}

int Task::EnqueueMsg(std::shared_ptr<Message>& msg)
{
    if (!msg) {
        return -1;
    }
    if (InterceptMsg(msg)) {
        return 0;
    }
    return consumer.queue.Enqueue(msg) == 1 ? 0 : -1;
}

bool Task::InterceptMsg(std::shared_ptr<Message>& msg)
{
    (void)msg;
    return false;
}

int Task::HandleMsg(const Message* msg)
{
    (void)msg;
    return 0;
}

int Task::BulkConsumeMsg(int max)
{
    if (max <= 0) {
        return 0;
    }
    std::vector<std::shared_ptr<Message>> batch;
    batch.reserve(static_cast<size_t>(max));
    const int taken = consumer.queue.DequeueBulk(batch, max);
    for (const auto& msg : batch) {
        HandleMsg(msg.get());
    }
    return taken;
}

} // namespace Framework
