// Framework::Module with several tasks. A module with one task, loaded the
// way the agent loads it, is proven by the two-factor module's suites; what
// only shows with several is here: which tasks a policy starts, restarts and
// stops, and that every Init is paired with an UnInit. Messages to tasks are
// no path of the agent's; the queue under them has its own suites.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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

    std::atomic<int> inits{0}, uninits{0};
    Framework::FeaturePolicy* seenPolicy = nullptr;
    const int result;
};

/// The policy callback of a module whose document is a comma-separated list
/// of task names; "reject" is refused. Counts the policies the module destroys.
struct PolicyMaker {
    struct ListPolicy : Framework::FeaturePolicy {
        ListPolicy(const std::string& feature, int& counter) : FeaturePolicy(feature), destroyed(counter) {}
        ~ListPolicy() override { ++destroyed; }
        bool Parse(const std::string&) override { return true; }
        int& destroyed;
    };

    Framework::Policy* Make(const std::string& feature, const std::string& content, Framework::Policy*& current)
    {
        if (current != nullptr) {
            current->expired = true;  // the framework un-marks it when this one is refused
        }
        auto* policy = content == "reject" ? nullptr : new ListPolicy(feature, destroyed);
        std::istringstream names(content);
        for (std::string task; policy != nullptr && std::getline(names, task, ',');) {
            policy->Add(new Framework::TaskPolicy(task));
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
    EXPECT_FALSE(module.IsTaskRunning("gamma")) << "a failed Init runs nothing";
    EXPECT_EQ(beta->inits, 0);

    Framework::Policy* second = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "beta,alpha", second), 0);
    EXPECT_EQ(maker.destroyed, 1) << "the replaced policy is released";
    ASSERT_TRUE(running("alpha") && running("beta"));
    EXPECT_EQ(alpha->inits, 2);
    EXPECT_EQ(alpha->seenPolicy, second);
    EXPECT_EQ(alpha->AppliedPolicySequence(), 2u);
    EXPECT_EQ(failing->uninits, 1) << "stopped: the new policy does not name it";

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
    EXPECT_EQ(maker.destroyed, 2) << "the replaced and the last policy";
    EXPECT_EQ(module.RefreshPolicy("7", "feature", "alpha", current), -1) << "callbacks are gone";
}

} // namespace
