#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Framework/Message.h"
#include "Framework/Task.h"

namespace {

/// Keeps the payloads it handles; takes type 99 synchronously.
class CollectingTask : public Framework::Task {
public:
    CollectingTask() : Framework::Task("collector", "feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 4) {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& msg) override { return msg->type == 99; }
    int HandleMsg(const Framework::Message* msg) override
    {
        handled.push_back(msg->payload);
        return 0;
    }

    std::vector<std::string> handled;
};

std::shared_ptr<Framework::Message> Msg(unsigned long type, const std::string& payload)
{
    return std::make_shared<Framework::Message>(type, "test", payload);
}

TEST(TaskMessages, QueueIsBoundedAndDrainedInOrderInBatches)
{
    auto* task = new CollectingTask();
    for (const char* text : {"a", "b", "c", "d"}) {
        auto msg = Msg(1, text);
        EXPECT_EQ(task->EnqueueMsg(msg), 0);
    }
    auto overflow = Msg(1, "overflow");
    EXPECT_EQ(task->EnqueueMsg(overflow), -1);
    auto intercepted = Msg(99, "sync");
    EXPECT_EQ(task->EnqueueMsg(intercepted), 0) << "taken by InterceptMsg even with a full queue";
    std::shared_ptr<Framework::Message> none;
    EXPECT_EQ(task->EnqueueMsg(none), -1);

    EXPECT_EQ(task->BulkConsumeMsg(0), 0);
    EXPECT_EQ(task->BulkConsumeMsg(3), 3);
    EXPECT_EQ(task->BulkConsumeMsg(128), 1);
    EXPECT_EQ(task->BulkConsumeMsg(128), 0);
    EXPECT_EQ(task->handled, (std::vector<std::string>{"a", "b", "c", "d"}));
    task->release();
}

TEST(TaskMessages, ProductorRoutesByTypeToSubscribedTasks)
{
    auto* first = new CollectingTask();
    auto* second = new CollectingTask();
    Framework::MessageProductor productor;
    productor.Subscribe(5, "first", first);
    productor.Subscribe(5, "second", second);
    productor.Subscribe(6, "second", second);
    EXPECT_EQ(productor.Publish(Msg(5, "both")), 2);
    EXPECT_EQ(productor.Publish(Msg(6, "one")), 1);
    productor.Unsubscribe(5, "first");
    EXPECT_EQ(productor.Publish(Msg(5, "again")), 1);
    first->BulkConsumeMsg(10);
    second->BulkConsumeMsg(10);
    EXPECT_EQ(first->handled, (std::vector<std::string>{"both"}));
    EXPECT_EQ(second->handled, (std::vector<std::string>{"both", "one", "again"}));
    first->release();
    second->release();
}

} // namespace
