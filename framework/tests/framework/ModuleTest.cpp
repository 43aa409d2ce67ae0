#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Framework/Module.h"
#include "RecordingTask.h"

using namespace FrameworkTest;

namespace {

bool WaitUntil(const std::atomic<bool>& flag, bool wanted)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (flag.load() != wanted) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        module.RegisterPolicyCallback("7", new Framework::PolicyCallback<PolicyMaker>(
                                               &maker, &PolicyMaker::Make));
        alpha = new RecordingTask("alpha");
        beta = new RecordingTask("beta");
        alpha->duplicate();  // keep the tasks inspectable after the module releases them
        beta->duplicate();
        module.RegisterTask(alpha, false);
        module.RegisterTask(beta, false);
        ASSERT_EQ(module.Init(), 0);
    }

    void TearDown() override
    {
        module.UnInit();
        alpha->release();
        beta->release();
    }

    Framework::Module module{"test_module"};
    PolicyMaker maker;
    RecordingTask* alpha = nullptr;
    RecordingTask* beta = nullptr;
};

TEST_F(ModuleTest, UnknownCallbackIsRefusedWithoutTouchingTasks)
{
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("8", "feature", "alpha", current), -1);
    EXPECT_EQ(current, nullptr);
    EXPECT_EQ(maker.calls, 0);
    EXPECT_EQ(alpha->inits, 0);
}

TEST_F(ModuleTest, AcceptedPolicyStartsTheTasksItNames)
{
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha", current), 0);
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(current->name, "feature");
    EXPECT_FALSE(current->expired);
    EXPECT_TRUE(WaitUntil(alpha->running, true));
    EXPECT_EQ(alpha->inits, 1);
    EXPECT_EQ(alpha->seenPolicy, current);
    EXPECT_EQ(beta->inits, 0);
    EXPECT_TRUE(module.IsTaskRunning("alpha"));
    EXPECT_FALSE(module.IsTaskRunning("beta"));
}

TEST_F(ModuleTest, NewPolicyReplacesOldAndRestartsRunningTask)
{
    Framework::Policy* first = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha", first), 0);
    ASSERT_TRUE(WaitUntil(alpha->running, true));

    Framework::Policy* second = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha,beta", second), 0);
    EXPECT_NE(second, first);
    EXPECT_EQ(maker.destroyed, 1) << "the replaced policy is released";
    EXPECT_EQ(alpha->uninits, 1);
    EXPECT_EQ(alpha->inits, 2);
    EXPECT_EQ(alpha->seenPolicy, second);
    EXPECT_TRUE(WaitUntil(alpha->running, true));
    EXPECT_TRUE(WaitUntil(beta->running, true));
    EXPECT_EQ(alpha->AppliedPolicySequence(), 2u);
}

TEST_F(ModuleTest, RejectedDocumentKeepsPolicyAndTasks)
{
    Framework::Policy* first = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha", first), 0);
    ASSERT_TRUE(WaitUntil(alpha->running, true));

    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("7", "feature", "reject", current), -2);
    EXPECT_EQ(current, first);
    EXPECT_FALSE(first->expired) << "the policy in force stays in force";
    EXPECT_EQ(alpha->inits, 1);
    EXPECT_EQ(alpha->uninits, 0);
    EXPECT_TRUE(alpha->running);
}

TEST_F(ModuleTest, TaskNoLongerNamedIsStopped)
{
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha,beta", current), 0);
    ASSERT_TRUE(WaitUntil(beta->running, true));
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha", current), 0);
    EXPECT_FALSE(beta->running);
    EXPECT_EQ(beta->uninits, 1);
    EXPECT_EQ(beta->inits, 1);
}

TEST_F(ModuleTest, FailedInitRunsNothingButIsPairedWithUnInit)
{
    auto* failing = new RecordingTask("gamma", -1);
    failing->duplicate();
    module.RegisterTask(failing, false);
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "gamma", current), 0);
    EXPECT_EQ(failing->inits, 1);
    EXPECT_EQ(failing->runs, 0);
    EXPECT_FALSE(module.IsTaskRunning("gamma"));
    EXPECT_EQ(module.UnRegisterTask("gamma"), 1);
    EXPECT_EQ(failing->uninits, 1);
    failing->release();
}

TEST_F(ModuleTest, UnRegisterTaskStopsItAndReportsRemoval)
{
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha", current), 0);
    ASSERT_TRUE(WaitUntil(alpha->running, true));
    EXPECT_EQ(module.UnRegisterTask("alpha"), 1);
    EXPECT_FALSE(alpha->running);
    EXPECT_EQ(alpha->uninits, 1);
    EXPECT_EQ(module.UnRegisterTask("alpha"), 0);
    EXPECT_EQ(module.UnRegisterTask("nobody"), 0);
}

TEST_F(ModuleTest, UnInitStopsEverythingAndReleasesPolicies)
{
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module.RefreshPolicy("7", "feature", "alpha,beta", current), 0);
    ASSERT_TRUE(WaitUntil(beta->running, true));
    module.UnInit();
    EXPECT_FALSE(alpha->running);
    EXPECT_FALSE(beta->running);
    EXPECT_EQ(alpha->uninits, 1);
    EXPECT_EQ(beta->uninits, 1);
    EXPECT_EQ(maker.destroyed, 1);
    EXPECT_EQ(module.RefreshPolicy("7", "feature", "alpha", current), -1) << "callbacks are gone";
}

TEST(ModuleAutoStart, AutoStartTaskRunsWithoutPolicy)
{
    Framework::Module module("auto");
    auto* task = new RecordingTask("resident");
    task->duplicate();
    module.RegisterTask(task, true);
    EXPECT_EQ(task->inits, 0) << "not before the module is initialised";
    ASSERT_EQ(module.Init(), 0);
    EXPECT_TRUE(WaitUntil(task->running, true));
    EXPECT_EQ(task->seenPolicy, nullptr);
    module.UnInit();
    EXPECT_EQ(task->uninits, 1);
    task->release();
}

TEST(ModuleCallbacks, NullCallbackIsHeldButNeverInvoked)
{
    Framework::Module module("nulls");
    module.RegisterPolicyCallback("10001", nullptr);
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module.RefreshPolicy("10001", "feature", "x", current), -1);
    module.UnRegisterPolicyCallback("10001");
    module.UnInit();
}

} // namespace
