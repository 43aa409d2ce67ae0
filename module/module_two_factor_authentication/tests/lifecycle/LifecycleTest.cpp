// The task driven by the framework as the agent drives it: a pushed policy
// starts it (Init, then Run on its own thread), a new policy restarts it, and
// stopping cancels Run and calls UnInit. Runs in the sandbox on a private
// copy of /etc with Debian-style files.

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FakeVerificationService.h"
#include "Framework/Module.h"
#include "Framework/PolicyCallback.h"
#include "IpcClient.h"
#include "LogCapture.h"
#include "SystemFiles.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"
#include "TwoFactorAuthenticationModule.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::FileExists;
using TfaTest::SystemFiles;
using TestSupport::ReadWholeFile;

namespace {

const std::string kFeature = "two_factor_authentication_feature";
const std::string kTaskName = "two_factor_authentication_task";
const std::string kCallbackId = "10001";
const std::string kContact = "13800000000";

std::string Reply(const std::string& digits)
{
    return digits + std::string(1, '\0');
}

/// The framework with the module's policy parsing and a task that the test
/// can watch (the framework owns it until the module lets it go).
struct Harness {
    Harness()
    {
        module.RegisterPolicyCallback(kCallbackId,
                                      new Framework::PolicyCallback<Engine::TwoFactorAuthenticationModule>(
                                          &parser, &Engine::TwoFactorAuthenticationModule::RefreshFeaturePolicy));
        task = new Engine::TwoFactorAuthenticationTask;
        module.RegisterTask(task, false);
        module.Init();
    }

    /// Pushes the feature policy; the framework starts or restarts the task.
    int Push(int local)
    {
        Framework::Policy* current = nullptr;
        return module.RefreshPolicy(kCallbackId, kFeature, TfaTest::PolicyDocument(local), current);
    }

    Engine::TwoFactorAuthenticationModule parser;  // only its policy parsing is used
    Framework::Module module{"two_factor_authentication_module"};
    Engine::TwoFactorAuthenticationTask* task = nullptr;
};

class LifecycleTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(files.Error(), "");
        ASSERT_TRUE(service.Ok()) << service.Error();
    }

    void TearDown() override
    {
        // The task leaves its socket open on purpose; free the name for the next test.
        if (serverSocket > 0) {
            close(serverSocket);
        }
    }

    void ExpectSwitchedOn(int local)
    {
        EXPECT_NE(ReadWholeFile(SystemFiles::kSshdConfig).find("\nKbdInteractiveAuthentication yes\n"),
                  std::string::npos);
        EXPECT_NE(ReadWholeFile(SystemFiles::kPamSshd).find("\n#@include common-auth\n@include\tbrackmoor-auth\n"),
                  std::string::npos);
        const std::string include = ReadWholeFile(SystemFiles::kInclude);
        EXPECT_NE(include.find("pam_brackmoor.so refresh_time=300 echo=1 local=" + std::to_string(local) +
                               " exclude_user_list=root;backup\n"),
                  std::string::npos)
            << include;
        EXPECT_TRUE(FileExists(SystemFiles::kModuleCopy));
    }

    void ExpectRestored()
    {
        EXPECT_EQ(ReadWholeFile(SystemFiles::kSshdConfig), SystemFiles::SshdConfigAfterCycle());
        EXPECT_EQ(ReadWholeFile(SystemFiles::kPamSshd), SystemFiles::PamSshdOriginal());
        EXPECT_FALSE(FileExists(SystemFiles::kInclude));
        EXPECT_FALSE(FileExists(SystemFiles::kModuleCopy));
    }

    TfaTest::LogCapture log;
    SystemFiles files;
    TfaTest::FakeVerificationService service;
    int serverSocket = -1;
};

TEST_F(LifecycleTest, PlugInWithLocalOneSwitchesOnWithoutSocketAndUnInitRestores)
{
    std::unique_ptr<Framework::Module> module(CreateModule());
    ASSERT_EQ(module->Init(), 0);
    Framework::Policy* current = nullptr;
    ASSERT_EQ(module->RefreshPolicy(kCallbackId, kFeature, TfaTest::PolicyDocument(1), current), 0);

    EXPECT_TRUE(module->IsTaskRunning(kTaskName));
    ExpectSwitchedOn(1);
    EXPECT_EQ(files.Restarts(), 1);
    TfaTest::IpcClient client;
    ASSERT_TRUE(client.Ok()) << client.Error();
    EXPECT_EQ(client.Send("1:" + kContact), ECONNREFUSED);  // nobody serves the name

    module->UnInit();
    ExpectRestored();
    EXPECT_EQ(files.Restarts(), 2);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Task(" + kTaskName + ") run."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Task(" + kTaskName + ") uninit.")) << log.Dump();
}

TEST_F(LifecycleTest, LocalZeroServesThePamModuleFromRun)
{
    Harness h;
    ASSERT_EQ(h.Push(0), 0);
    serverSocket = h.task->socketFd;

    ASSERT_TRUE(h.module.IsTaskRunning(kTaskName)) << log.Dump();
    EXPECT_GT(h.task->socketFd, 0);
    EXPECT_TRUE(h.task->ipcRegistered);
    ExpectSwitchedOn(0);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Two factor authentication policy refresh time(300), echo(1), "
                                                   "local(0), exclude user list size(2)"));

    service.QueueCommList({TfaTest::Sha256Hex(kContact)});
    TfaTest::IpcClient client;
    ASSERT_TRUE(client.Ok()) << client.Error();
    EXPECT_EQ(client.Ask("1:" + kContact).value_or("<none>"), Reply("1"));
    EXPECT_EQ(client.Ask("1:13900000000").value_or("<none>"), Reply("2"));
    EXPECT_EQ(client.Ask("9:x").value_or("<none>"), Reply("3"));

    h.module.UnInit();
    ExpectRestored();
    EXPECT_EQ(files.Restarts(), 2);
}

TEST_F(LifecycleTest, RestartReusesTheSocketAndForgetsTheList)
{
    Harness h;
    ASSERT_EQ(h.Push(0), 0);
    serverSocket = h.task->socketFd;
    const Framework::Event* event = h.task->ipcEvent;
    service.QueueCommList({TfaTest::Sha256Hex(kContact)});
    TfaTest::IpcClient client;
    ASSERT_TRUE(client.Ok()) << client.Error();
    ASSERT_EQ(client.Ask("1:" + kContact).value_or("<none>"), Reply("1"));

    // A new policy: cancel, UnInit, Init, Run. A second socket could not even
    // bind, since the first one keeps the name.
    ASSERT_EQ(h.Push(0), 0);
    ASSERT_TRUE(h.module.IsTaskRunning(kTaskName)) << log.Dump();
    EXPECT_EQ(h.task->socketFd, serverSocket);
    EXPECT_EQ(h.task->ipcEvent, event);
    EXPECT_EQ(log.Count("Create IPC success."), 1u);
    EXPECT_EQ(h.task->commListUpdateTime, 0);
    EXPECT_TRUE(h.task->commList.empty());
    ExpectSwitchedOn(0);
    EXPECT_EQ(files.Restarts(), 3);

    // Still served through the event waiter; the list is fetched again.
    service.QueueCommList({TfaTest::Sha256Hex(kContact)});
    EXPECT_EQ(client.Ask("1:" + kContact).value_or("<none>"), Reply("1"));
    EXPECT_EQ(service.Server().RequestCount(), 2u);

    h.module.UnInit();
    ExpectRestored();
}

TEST_F(LifecycleTest, TakenNameRollsEverythingBack)
{
    // Someone else holds the name already.
    const int holder = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(holder, 0);
    const struct sockaddr_un name = TfaTest::ServerAddress();
    ASSERT_EQ(bind(holder, reinterpret_cast<const struct sockaddr*>(&name), TfaTest::kServerAddressLength), 0);

    Harness h;
    EXPECT_EQ(h.Push(0), 0);  // the policy is accepted; the task does not start

    EXPECT_FALSE(h.module.IsTaskRunning(kTaskName));
    EXPECT_FALSE(h.task->authEnabled);
    EXPECT_FALSE(h.task->ipcRegistered);
    EXPECT_EQ(h.task->socketFd, -1);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Bind addr failed, errno(" + std::to_string(EADDRINUSE) + ")."));
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Create ipc failed, two-factor authentication cannot be used."))
        << log.Dump();
    ExpectRestored();
    EXPECT_EQ(files.Restarts(), 2);

    h.module.UnInit();  // UnInit after the failed Init touches nothing more
    ExpectRestored();
    EXPECT_EQ(files.Restarts(), 2);
    close(holder);
}

TEST_F(LifecycleTest, RunEndsSoonAfterCancellation)
{
    Harness h;
    ASSERT_EQ(h.Push(1), 0);
    ASSERT_TRUE(h.module.IsTaskRunning(kTaskName));

    const auto start = std::chrono::steady_clock::now();
    h.task->cancel();
    const bool ended = TestSupport::WaitFor(
        [&] { return h.task->state() == Poco::Task::TASK_FINISHED; }, std::chrono::seconds(5),
        std::chrono::milliseconds(1));
    const auto elapsed = std::chrono::steady_clock::now() - start;

    ASSERT_TRUE(ended);
    // The loop looks at the state at least every 100 ms; the rest is slack
    // for a loaded machine.
    EXPECT_LT(elapsed, std::chrono::milliseconds(1000));
    h.module.UnInit();
    ExpectRestored();
}

TEST_F(LifecycleTest, WithoutInitRunAndUnInitTouchNothing)
{
    Engine::TwoFactorAuthenticationTask task;
    EXPECT_EQ(task.Run(), -1);
    task.UnInit();

    EXPECT_EQ(ReadWholeFile(SystemFiles::kSshdConfig), SystemFiles::SshdConfigOriginal());
    EXPECT_EQ(ReadWholeFile(SystemFiles::kPamSshd), SystemFiles::PamSshdOriginal());
    EXPECT_EQ(files.Restarts(), 0);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Task(" + kTaskName + ") uninit."));
}

} // namespace
