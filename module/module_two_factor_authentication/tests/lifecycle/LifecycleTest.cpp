// The task driven by the framework as the agent drives it: a pushed policy
// starts it (Init, then Run on its own thread), a new policy restarts it, and
// stopping cancels Run and calls UnInit. Runs in the sandbox on a private
// copy of /etc with Debian-style files.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "FakeVerificationService.h"
#include "Framework/ConfigManager.h"
#include "Framework/Module.h"
#include "Framework/PolicyCallback.h"
#include "IpcClient.h"
#include "LogCapture.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/WaitFor.h"
#include "TwoFactorAuthenticationModule.h"
#include "TwoFactorAuthenticationTask.h"

using Poco::Message;
using TfaTest::Reply;
using TestSupport::ReadWholeFile;

namespace {

const std::string kFeature = "two_factor_authentication_feature";
const std::string kTaskName = "two_factor_authentication_task";
const std::string kContact = "13800000000";

const char* const kSshdConfig = "/etc/ssh/sshd_config";
const char* const kPamSshd = "/etc/pam.d/sshd";
const char* const kInclude = "/etc/pam.d/brackmoor-auth";
const char* const kModuleCopy = "/lib/x86_64-linux-gnu/security/pam_brackmoor.so";

// The files the task switches, cut down to what it reads and must give back intact.
const std::string kSshdHead = "Include /etc/ssh/sshd_config.d/*.conf\n\n#PasswordAuthentication yes\n";
const std::string kSshdTail = "UsePAM yes\nSubsystem\tsftp\t/usr/lib/openssh/sftp-server\n";
const std::string kPamSshdText =
    "# PAM configuration for the Secure Shell service\n\n@include common-auth\n"
    "account    required     pam_nologin.so\n@include common-account\n"
    "session [success=ok ignore=ignore module_unknown=ignore default=bad]        pam_selinux.so close\n"
    "@include common-session\n@include common-password\n";
const std::string kCommonAuthText =
    "auth\t[success=1 default=ignore]\tpam_unix.so nullok\nauth\trequisite\t\t\tpam_deny.so\n"
    "auth\trequired\t\t\tpam_permit.so\n";

bool Write(const std::string& path, const std::string& content, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::trunc | std::ios::binary) << content;
    return chmod(path.c_str(), mode) == 0;
}

bool Exists(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

/// The framework with the module's policy parsing and a task that the test
/// can watch (the framework owns it).
struct Harness {
    Harness()
    {
        using Parser = Engine::TwoFactorAuthenticationModule;
        module.RegisterPolicyCallback(
            "10001", new Framework::PolicyCallback<Parser>(&parser, &Parser::RefreshFeaturePolicy));
        module.RegisterTask(task, false);
        module.Init();
    }

    /// Pushes the feature policy; the framework starts or restarts the task.
    int Push(int local)
    {
        Framework::Policy* current = nullptr;
        return module.RefreshPolicy("10001", kFeature,
                                    "{\"content\":{\"refresh_time\":300,\"echo\":1,\"local\":" + std::to_string(local) +
                                        ",\"exclude_user_list\":[\"root\",\"backup\"]}}",
                                    current);
    }

    Engine::TwoFactorAuthenticationModule parser;  // only its policy parsing is used
    Framework::Module module{"two_factor_authentication_module"};
    Engine::TwoFactorAuthenticationTask* task = new Engine::TwoFactorAuthenticationTask;
};

class LifecycleTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(service.Ok()) << service.Error();
        mkdir("/etc/ssh", 0755);
        mkdir("/lib/x86_64-linux-gnu/security", 0755);
        unlink(kInclude);
        unlink(kModuleCopy);
        ASSERT_TRUE(Write(kSshdConfig, kSshdHead + "KbdInteractiveAuthentication no\n" + kSshdTail) &&
                    Write(kPamSshd, kPamSshdText) && Write("/etc/pam.d/common-auth", kCommonAuthText));
        // An installation with the PAM module and a restart script that only counts its runs.
        mkdir(installation.File("module").c_str(), 0755);
        mkdir(installation.File("sudobin").c_str(), 0755);
        ASSERT_TRUE(Write(installation.File("module/pam_brackmoor.so"), "stand-in\n") &&
                    Write(installation.File("sudobin/sshrestart.sh"),
                          "#!/bin/sh\necho restart >> '" + installation.File("restarts") + "'\n", 0755));
        Framework::ConfigManager::GetInstance()->Set("agent.installation_path", installation.Path() + "/");
    }

    // The task leaves its socket open on purpose; free the name for the next test.
    void TearDown() override
    {
        if (serverSocket > 0) {
            close(serverSocket);
        }
    }

    long Restarts() const
    {
        const std::string runs = ReadWholeFile(installation.File("restarts"));
        return std::count(runs.begin(), runs.end(), '\n');
    }

    void ExpectSwitchedOn(int local)
    {
        // The first switch adds the keyword's counterpart right below it.
        EXPECT_EQ(ReadWholeFile(kSshdConfig),
                  kSshdHead + "#KbdInteractiveAuthentication no\nKbdInteractiveAuthentication yes\n" + kSshdTail);
        EXPECT_NE(ReadWholeFile(kPamSshd).find("\n#@include common-auth\n@include\tbrackmoor-auth\n"),
                  std::string::npos);
        EXPECT_NE(ReadWholeFile(kInclude).find("pam_brackmoor.so refresh_time=300 echo=1 local=" +
                                               std::to_string(local) + " exclude_user_list=root;backup\n"),
                  std::string::npos);
        EXPECT_TRUE(Exists(kModuleCopy));
    }

    /// Switching off leaves the keyword at "no" with its commented counterpart below it.
    void ExpectRestored()
    {
        EXPECT_EQ(ReadWholeFile(kSshdConfig),
                  kSshdHead + "KbdInteractiveAuthentication no\n#KbdInteractiveAuthentication yes\n" + kSshdTail);
        EXPECT_EQ(ReadWholeFile(kPamSshd), kPamSshdText);
        EXPECT_FALSE(Exists(kInclude));
        EXPECT_FALSE(Exists(kModuleCopy));
    }

    TfaTest::LogCapture log;
    TfaTest::FakeVerificationService service;
    TestSupport::TempDir installation;
    int serverSocket = -1;
};

TEST_F(LifecycleTest, LocalOneSwitchesOnWithoutServerAndRunEndsSoonAfterCancellation)
{
    Harness h;
    ASSERT_EQ(h.Push(1), 0);
    ASSERT_TRUE(h.module.IsTaskRunning(kTaskName)) << log.Dump();
    ExpectSwitchedOn(1);
    EXPECT_EQ(Restarts(), 1);
    TfaTest::IpcClient client;
    ASSERT_TRUE(client.Ok()) << client.Error();
    EXPECT_EQ(client.Send("1:" + kContact), ECONNREFUSED);  // nobody serves the name

    const auto start = std::chrono::steady_clock::now();
    h.task->cancel();
    ASSERT_TRUE(TestSupport::WaitFor([&] { return h.task->state() == Poco::Task::TASK_FINISHED; },
                                     std::chrono::seconds(5), std::chrono::milliseconds(1)));
    // The loop looks at the state at least every 100 ms; the rest is slack for a loaded machine.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));

    h.module.UnInit();
    ExpectRestored();
    EXPECT_EQ(Restarts(), 2);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Task(" + kTaskName + ") run."));
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Task(" + kTaskName + ") uninit.")) << log.Dump();
}

TEST_F(LifecycleTest, LocalZeroServesFromRunAndARestartReusesTheSocket)
{
    Harness h;
    ASSERT_EQ(h.Push(0), 0);
    serverSocket = h.task->socketFd;
    ASSERT_TRUE(h.module.IsTaskRunning(kTaskName)) << log.Dump();
    ExpectSwitchedOn(0);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Two factor authentication policy refresh time(300), echo(1), "
                                                   "local(0), exclude user list size(2)"));
    TfaTest::IpcClient client;
    ASSERT_TRUE(client.Ok()) << client.Error();
    service.Queue(TfaTest::kCommListPath, 200, TfaTest::CommListJson({TfaTest::Sha256Hex(kContact)}));
    EXPECT_EQ(client.Ask("1:" + kContact).value_or("<none>"), Reply("1"));
    EXPECT_EQ(client.Ask("1:13900000000").value_or("<none>"), Reply("2"));
    EXPECT_EQ(client.Ask("9:x").value_or("<none>"), Reply("3"));

    // A new policy: cancel, UnInit, Init, Run. A second socket could not even
    // bind, since the first one keeps the name.
    const Framework::Event* event = h.task->ipcEvent;
    ASSERT_EQ(h.Push(0), 0);
    ASSERT_TRUE(h.module.IsTaskRunning(kTaskName)) << log.Dump();
    EXPECT_EQ(h.task->socketFd, serverSocket);
    EXPECT_EQ(h.task->ipcEvent, event);
    EXPECT_EQ(log.Count("Create IPC success."), 1u);
    EXPECT_TRUE(h.task->commList.empty());
    ExpectSwitchedOn(0);
    EXPECT_EQ(Restarts(), 3);
    // Still served through the event waiter; the forgotten list is fetched again.
    service.Queue(TfaTest::kCommListPath, 200, TfaTest::CommListJson({TfaTest::Sha256Hex(kContact)}));
    EXPECT_EQ(client.Ask("1:" + kContact).value_or("<none>"), Reply("1"));
    EXPECT_EQ(service.Server().RequestCount(), 2u);

    h.module.UnInit();
    ExpectRestored();
    EXPECT_EQ(Restarts(), 4);
}

TEST_F(LifecycleTest, TakenNameRollsEverythingBack)
{
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
    EXPECT_EQ(Restarts(), 2);

    h.module.UnInit();  // UnInit after the failed Init touches nothing more
    ExpectRestored();
    EXPECT_EQ(Restarts(), 2);
    close(holder);
}

} // namespace
