// Framework::Module with several tasks. A module with one task, loaded the
// way the agent loads it, is proven by the two-factor module's suites; what
// only shows with several is here: which tasks a policy starts, restarts and
// stops, that every Init is paired with an UnInit, and messages sent to a
// running task from another thread.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <sstream>

#include "Framework/Module.h"
#include "Framework/PolicyCallback.h"
#include "Framework/TaskPolicy.h"
#include "TestSupport/WaitFor.h"

namespace {

class RecordingTask : public Framework::Task {
public:
    RecordingTask(const std::string& name, int initResult)
        : Framework::Task(name, "feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, 16), result(initResult)
    {
        duplicate();  // stays inspectable after the module releases it
    }
    int Init() override
    {
        ++inits;
        seenPolicy = CurrentPolicy();
        return result;
    }
    void UnInit() override { ++uninits; }
    int Run() override
    {
        ++runs;
        return Framework::Task::Run();
    }
    bool InterceptMsg(std::shared_ptr<Framework::Message>& msg) override { return msg->type == 99; }
    int HandleMsg(const Framework::Message* msg) override
    {
        std::lock_guard<std::mutex> guard(lock);
        handled += msg->payload;
        return 0;
    }
    std::string Handled()
    {
        std::lock_guard<std::mutex> guard(lock);
        return handled;
    }

    std::atomic<int> inits{0}, uninits{0}, runs{0};
    Framework::FeaturePolicy* seenPolicy = nullptr;
    const int result;
    std::mutex lock;
    std::string handled;
};

int Send(RecordingTask* task, unsigned long type, const std::string& payload)
{
    auto msg = payload.empty() ? nullptr : std::make_shared<Framework::Message>(type, "test", payload);
    return task->EnqueueMsg(msg);
}

/// The policy callback of a module whose document is a comma-separated list
/// of task names; "reject" is refused. Counts the policies it destroys.
struct PolicyMaker {
    struct ListPolicy : Framework::FeaturePolicy {
        ListPolicy(const std::string& feature, int& counter) : FeaturePolicy(feature), destroyed(counter) {}
        ~ListPolicy() override { ++destroyed; }
        bool Parse(const std::string& content) override
        {
            std::istringstream names(content);
            for (std::string task; std::getline(names, task, ',');) {
                Add(new Framework::TaskPolicy(task));
            }
            return content != "reject";
        }
        int& destroyed;
    };

    Framework::Policy* Make(const std::string& feature, const std::string& content, Framework::Policy*& current)
    {
        if (current != nullptr) {
            current->expired = true;  // the framework un-marks it when this one is refused
        }
        auto* policy = new ListPolicy(feature, destroyed);
        if (!policy->Parse(content)) {
            delete policy;
            return nullptr;
        }
        return policy;
    }

    int destroyed = 0;
};

TEST(ModuleTest, APolicyRestartsTheTasksItNamesAndStopsTheOnesTheLastOneDrove)
{
    PolicyMaker maker;
    auto* alpha = new RecordingTask("alpha", 0);
    auto* beta = new RecordingTask("beta", 0);
    auto* failing = new RecordingTask("gamma", -1);
    Framework::Module module("test_module");
    module.RegisterPolicyCallback("7", new Framework::PolicyCallback<PolicyMaker>(&maker, &PolicyMaker::Make));
    module.RegisterPolicyCallback("8", nullptr);
    for (RecordingTask* task : {alpha, beta, failing}) {
        module.RegisterTask(task, false);
    }
    ASSERT_EQ(module.Init(), 0);
    auto running = [&module](const char* name) {
        return TestSupport::WaitFor([&] { return module.IsTaskRunning(name); }, std::chrono::seconds(5));
    };

    Framework::Policy* first = nullptr;
    EXPECT_EQ(module.RefreshPolicy("8", "feature", "alpha", first), -1) << "a null callback is never invoked";
    EXPECT_EQ(module.RefreshPolicy("9", "feature", "alpha", first), -1) << "unknown callback";
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha,gamma", first), 0);
    ASSERT_TRUE(running("alpha"));
    EXPECT_EQ(failing->inits, 1);
    EXPECT_EQ(failing->runs, 0) << "a failed Init runs nothing";
    EXPECT_EQ(beta->inits, 0);

    Framework::Policy* second = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "beta,alpha", second), 0);
    EXPECT_EQ(maker.destroyed, 1) << "the replaced policy is released";
    ASSERT_TRUE(running("alpha") && running("beta"));
    EXPECT_EQ(alpha->inits, 2);
    EXPECT_EQ(alpha->seenPolicy, second);
    EXPECT_EQ(alpha->AppliedPolicySequence(), 2u);
    EXPECT_EQ(failing->uninits, 1) << "stopped: the new policy does not name it";

    // The running task drains its queue on its own thread, in order; the
    // stopped one's queue of 16 fills up, though what it intercepts still goes.
    EXPECT_EQ(Send(alpha, 1, "a") + Send(alpha, 1, "b") + Send(alpha, 1, "c"), 0);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return alpha->Handled() == "abc"; }, std::chrono::seconds(5)));
    EXPECT_EQ(Send(alpha, 1, ""), -1) << "no message";
    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(Send(failing, 1, "x"), 0);
    }
    EXPECT_EQ(Send(failing, 1, "x"), -1);
    EXPECT_EQ(Send(failing, 99, "x"), 0);

    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("7", "feature", "reject", current), -2);
    EXPECT_EQ(current, second);
    EXPECT_FALSE(second->expired) << "the policy in force stays in force";
    EXPECT_EQ(alpha->inits, 2);
    EXPECT_TRUE(module.IsTaskRunning("alpha"));

    EXPECT_EQ(module.UnRegisterTask("beta"), 1);
    EXPECT_EQ(module.UnRegisterTask("beta"), 0);
    module.UnInit();
    for (RecordingTask* task : {alpha, beta, failing}) {
        EXPECT_EQ(task->uninits, task->inits) << task->name();
        task->release();
    }
    EXPECT_EQ(maker.destroyed, 3) << "the replaced, the refused and the last policy";
    EXPECT_EQ(module.RefreshPolicy("7", "feature", "alpha", current), -1) << "callbacks are gone";
}

} // namespace
