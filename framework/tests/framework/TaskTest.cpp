#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RecordingTask.h"

namespace {

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

TEST(TaskMessages, QueuedMessagesAreHandledInOrderInBatches)
{
    auto* task = new CollectingTask();
    for (const char* text : {"a", "b", "c"}) {
        auto msg = Msg(1, text);
        EXPECT_EQ(task->EnqueueMsg(msg), 0);
    }
    EXPECT_EQ(task->BulkConsumeMsg(2), 2);
    EXPECT_EQ(task->BulkConsumeMsg(128), 1);
    EXPECT_EQ(task->BulkConsumeMsg(128), 0);
    EXPECT_EQ(task->handled, (std::vector<std::string>{"a", "b", "c"}));
    task->release();
}

TEST(TaskMessages, FullQueueRefusesAndInterceptedMessagesSkipTheQueue)
{
    auto* task = new CollectingTask();
    for (int i = 0; i < 4; ++i) {
        auto msg = Msg(1, std::to_string(i));
        ASSERT_EQ(task->EnqueueMsg(msg), 0);
    }
    auto overflow = Msg(1, "overflow");
    EXPECT_EQ(task->EnqueueMsg(overflow), -1);
    auto intercepted = Msg(99, "sync");
    EXPECT_EQ(task->EnqueueMsg(intercepted), 0) << "taken by InterceptMsg even with a full queue";
    std::shared_ptr<Framework::Message> none;
    EXPECT_EQ(task->EnqueueMsg(none), -1);
    EXPECT_EQ(task->BulkConsumeMsg(0), 0);
    EXPECT_EQ(task->BulkConsumeMsg(10), 4);
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

TEST(TaskRun, DefaultRunReturnsAfterCancel)
{
    auto* task = new FrameworkTest::RecordingTask("runner");
    std::thread thread([task] { task->run(); });
    while (!task->running) {
        std::this_thread::yield();
    }
    task->cancel();
    thread.join();
    EXPECT_FALSE(task->running);
    EXPECT_EQ(task->state(), Poco::Task::TASK_FINISHED);
    task->release();
}

TEST(TaskPolicyAccess, CurrentPolicyIsNullBeforeAnyDelivery)
{
    auto* task = new FrameworkTest::RecordingTask("reader");
    EXPECT_EQ(task->CurrentPolicy(), nullptr);
    EXPECT_EQ(task->PolicyReads(), 1u);
    EXPECT_EQ(task->Type(), Framework::TaskCondition::TASK_TYPE_RESIDENT);
    EXPECT_EQ(task->FeatureName(), "feature");
    task->release();
}

TEST(PolicyTree, CompositeOwnsChildrenAndFeatureDispatchSetsParents)
{
    int destroyed = 0;
    auto* feature = new FrameworkTest::ListPolicy("feature", &destroyed);
    ASSERT_TRUE(feature->Parse("a,b,a"));
    ASSERT_EQ(feature->Children().size(), 2u) << "a child of the same name replaces the earlier one";
    feature->Dispatch(nullptr);
    for (const auto& child : feature->Children()) {
        auto* taskPolicy = dynamic_cast<Framework::TaskPolicy*>(child.second);
        ASSERT_NE(taskPolicy, nullptr);
        EXPECT_EQ(taskPolicy->parent, feature);
        EXPECT_EQ(taskPolicy->type, Framework::POLICY_TYPE_TASK);
    }
    feature->policyId = "id";
    feature->policyVersion = "v1";
    EXPECT_FALSE(feature->PolicyChanged("v1", "id"));
    EXPECT_TRUE(feature->PolicyChanged("v2", "id"));
    EXPECT_TRUE(feature->PolicyChanged("v1", "other"));
    delete feature;
    EXPECT_EQ(destroyed, 1);
}

} // namespace
