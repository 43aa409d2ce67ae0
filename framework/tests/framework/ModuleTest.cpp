#include <gtest/gtest.h>

#include <chrono>

#include "Framework/Module.h"
#include "RecordingTask.h"
#include "TestSupport/WaitFor.h"

using namespace FrameworkTest;

namespace {

bool BecomesRunning(const RecordingTask* task)
{
    return TestSupport::WaitFor([task] { return task->running.load(); }, std::chrono::seconds(5));
}

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        module.RegisterPolicyCallback("7", new Framework::PolicyCallback<PolicyMaker>(&maker, &PolicyMaker::Make));
        for (RecordingTask* task : {alpha, beta}) {
            task->duplicate();  // keep the tasks inspectable after the module releases them
            module.RegisterTask(task, false);
        }
        ASSERT_EQ(module.Init(), 0);
    }

    void TearDown() override
    {
        module.UnInit();
        alpha->release();
        beta->release();
    }

    int Refresh(const std::string& content, Framework::Policy*& current)
    {
        return module.RefreshPolicy("7", "feature", content, current);
    }

    Framework::Module module{"test_module"};
    PolicyMaker maker;
    RecordingTask* alpha = new RecordingTask("alpha");
    RecordingTask* beta = new RecordingTask("beta");
};

TEST_F(ModuleTest, PolicyGoesToItsCallbackAndStartsTheTasksItNames)
{
    module.RegisterPolicyCallback("8", nullptr);
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("8", "feature", "alpha", current), -1) << "a null callback is never invoked";
    EXPECT_EQ(module.RefreshPolicy("9", "feature", "alpha", current), -1) << "unknown callback";
    EXPECT_EQ(current, nullptr);
    EXPECT_EQ(maker.calls, 0);

    ASSERT_EQ(Refresh("alpha", current), 0);
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(current->name, "feature");
    EXPECT_FALSE(current->expired);
    EXPECT_TRUE(BecomesRunning(alpha));
    EXPECT_EQ(alpha->inits, 1);
    EXPECT_EQ(alpha->seenPolicy, current);
    EXPECT_EQ(beta->inits, 0);
    EXPECT_TRUE(module.IsTaskRunning("alpha"));
    EXPECT_FALSE(module.IsTaskRunning("beta"));
}

TEST_F(ModuleTest, NewPolicyRestartsNamedTasksStopsTheOthersAndUnInitStopsAll)
{
    Framework::Policy* first = nullptr;
    ASSERT_EQ(Refresh("alpha,beta", first), 0);
    ASSERT_TRUE(BecomesRunning(alpha) && BecomesRunning(beta));

    Framework::Policy* second = nullptr;
    ASSERT_EQ(Refresh("alpha", second), 0);
    EXPECT_NE(second, first);
    EXPECT_EQ(maker.destroyed, 1) << "the replaced policy is released";
    EXPECT_EQ(alpha->uninits, 1);
    EXPECT_EQ(alpha->inits, 2);
    EXPECT_EQ(alpha->seenPolicy, second);
    EXPECT_TRUE(BecomesRunning(alpha));
    EXPECT_EQ(alpha->AppliedPolicySequence(), 2u);
    EXPECT_FALSE(beta->running);
    EXPECT_EQ(beta->uninits, 1);
    EXPECT_EQ(beta->inits, 1);

    Framework::Policy* current = nullptr;
    EXPECT_EQ(Refresh("reject", current), -2);
    EXPECT_EQ(current, second);
    EXPECT_FALSE(second->expired) << "the policy in force stays in force";
    EXPECT_EQ(alpha->inits, 2);
    EXPECT_EQ(alpha->uninits, 1);
    EXPECT_TRUE(alpha->running);

    module.UnInit();
    EXPECT_FALSE(alpha->running);
    EXPECT_EQ(alpha->uninits, 2);
    EXPECT_EQ(maker.destroyed, 3) << "the replaced, the rejected and the last policy";
    EXPECT_EQ(Refresh("alpha", current), -1) << "callbacks are gone";
}

TEST_F(ModuleTest, UnRegisterTaskStopsItAndPairsEveryInitWithUnInit)
{
    auto* failing = new RecordingTask("gamma", -1);
    failing->duplicate();
    module.RegisterTask(failing, false);
    Framework::Policy* current = nullptr;
    ASSERT_EQ(Refresh("alpha,gamma", current), 0);
    ASSERT_TRUE(BecomesRunning(alpha));
    EXPECT_EQ(failing->inits, 1);
    EXPECT_EQ(failing->runs, 0) << "a failed Init runs nothing";
    EXPECT_FALSE(module.IsTaskRunning("gamma"));

    EXPECT_EQ(module.UnRegisterTask("alpha"), 1);
    EXPECT_FALSE(alpha->running);
    EXPECT_EQ(alpha->uninits, 1);
    EXPECT_EQ(module.UnRegisterTask("gamma"), 1);
    EXPECT_EQ(failing->uninits, 1);
    EXPECT_EQ(module.UnRegisterTask("alpha"), 0);
    EXPECT_EQ(module.UnRegisterTask("nobody"), 0);
    failing->release();
}

} // namespace
