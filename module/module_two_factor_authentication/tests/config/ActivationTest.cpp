// The activation sequence and the module installation over every step that
// can fail, on the real module directories. Runs only inside the sandbox:
// the directories are created and removed on its overlays.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
using Poco::Message;

namespace {

const std::string x86Dir = "/lib/x86_64-linux-gnu/security/";
const std::string lib64Dir = "/lib64/security/";
const std::string libDir = "/lib/security/";

const std::string commonAuth = "auth [success=1 default=ignore] pam_unix.so nullok\nauth requisite pam_deny.so\n"
                               "auth required pam_permit.so\n";
const std::string serviceOff = "@include common-auth\n@include common-account\n";
const std::string serviceOn = "#@include common-auth\n@include\tbrackmoor-auth\n@include common-account\n";

const std::string preconditionFailed =
    "Not use pam or pwd auth or permit empty pwd, two-factor authentication cannot be used.";
const std::string copyFailed = "Copy auth module failed, two-factor authentication cannot be used.";
const std::string authFailed = "Switch on auth config failed, two-factor authentication cannot be used.";
const std::string sshdFailed = "Switch on sshd challenge config failed, two-factor authentication cannot be used.";

// Makes `path` read-only for as long as the object lives (a bind mount of the
// file onto itself, remounted read-only), so that opening it for writing fails
// while reading still works.
class ReadOnlyFile {
public:
    explicit ReadOnlyFile(const std::string& file) : path(file)
    {
        mounted = mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
        readOnly = mounted && mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    }
    ~ReadOnlyFile()
    {
        if (mounted) {
            umount(path.c_str());
        }
    }
    bool Ok() const { return readOnly; }

private:
    std::string path;
    bool mounted = false;
    bool readOnly = false;
};

mode_t ModeOf(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class ActivationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;
        if (!InsideSandbox(why)) {
            GTEST_SKIP() << why;
        }
        ASSERT_TRUE(root.Ok());
        task = TaskIn(root.Path());
        WriteText(task->sshdConfigPath, "UsePAM yes\nKbdInteractiveAuthentication no\n");
        WriteText(task->pamDir + "common-auth", commonAuth);
        WriteText(task->pamSshdPath, serviceOff);
        KeepModuleDirs({x86Dir, lib64Dir});
        // Init sets the flag right before it activates.
        task->authEnabled = true;
    }

    std::string Installed(const std::string& dir) const { return dir + "pam_brackmoor.so"; }

    void ExpectNoModuleCopies() const
    {
        for (const std::string& dir : moduleDirs) {
            EXPECT_FALSE(Exists(Installed(dir))) << dir;
        }
    }

    TestSupport::TempDir root;
    StandInInstallation installation;
    std::unique_ptr<Engine::TwoFactorAuthenticationTask> task;
    ModuleLogCapture log;
};

TEST_F(ActivationTest, SwitchesEverythingOnAndInstallsIntoEveryExistingDirectory)
{
    ASSERT_TRUE(task->OpenPam()) << log.Dump();
    EXPECT_TRUE(task->authEnabled);
    EXPECT_EQ(task->installedModulePaths, (std::list<std::string>{Installed(x86Dir), Installed(lib64Dir)}));
    for (const std::string& dir : {x86Dir, lib64Dir}) {
        EXPECT_EQ(ReadText(Installed(dir)), "stand-in PAM module\n");
        EXPECT_EQ(ModeOf(Installed(dir)), 0705u) << dir;
        EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Copy pam module to (" + dir + ") success.")) << log.Dump();
    }
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOn);
    EXPECT_TRUE(Exists(task->pamIncludePath));
    EXPECT_EQ(ReadText(task->sshdConfigPath),
              "UsePAM yes\n#KbdInteractiveAuthentication no\nKbdInteractiveAuthentication yes\n");
    EXPECT_EQ(installation.RestartCount(), 1);
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "No (ChallengeResponseAuthentication) config."));
    EXPECT_EQ(log.Texts().size(), 3u) << log.Dump();

    log.Clear();
    task->DeleteAuthModule();
    EXPECT_TRUE(task->installedModulePaths.empty());
    ExpectNoModuleCopies();
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();
}

TEST_F(ActivationTest, FailedPreconditionChangesNothing)
{
    WriteText(task->sshdConfigPath, "UsePAM no\nKbdInteractiveAuthentication no\n");
    EXPECT_FALSE(task->OpenPam());
    EXPECT_FALSE(task->authEnabled);
    EXPECT_EQ(log.Texts(), std::vector<std::string>{preconditionFailed});
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, preconditionFailed));
    ExpectNoModuleCopies();
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOff);
    EXPECT_EQ(installation.RestartCount(), 0);
}

TEST_F(ActivationTest, NoModuleDirectoryStopsTheActivation)
{
    KeepModuleDirs({});
    EXPECT_FALSE(task->CopyAuthModule());
    EXPECT_TRUE(log.Texts().empty()) << log.Dump();

    EXPECT_FALSE(task->OpenPam());
    EXPECT_FALSE(task->authEnabled);
    EXPECT_EQ(log.Texts(), std::vector<std::string>{copyFailed});
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, copyFailed));
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOff);
}

TEST_F(ActivationTest, SingleDirectoryGetsOneCopy)
{
    KeepModuleDirs({lib64Dir});
    ASSERT_TRUE(task->CopyAuthModule());
    EXPECT_EQ(task->installedModulePaths, std::list<std::string>{Installed(lib64Dir)});
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"Copy pam module to (" + lib64Dir + ") success."});
}

TEST_F(ActivationTest, CopyFailingInOneDirectoryGoesOnToTheNext)
{
    KeepModuleDirs({x86Dir, libDir});
    // A directory where the module file should go: the copy cannot replace it.
    std::filesystem::create_directories(Installed(x86Dir));
    ASSERT_TRUE(task->OpenPam()) << log.Dump();
    EXPECT_EQ(task->installedModulePaths, std::list<std::string>{Installed(libDir)});
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR,
                        "Copy pam module to (" + x86Dir + ") failed, result(-1), errno(" + std::to_string(EISDIR) + ")."))
        << log.Dump();
    EXPECT_TRUE(log.Has(Message::PRIO_INFORMATION, "Copy pam module to (" + libDir + ") success."));
    std::filesystem::remove_all(Installed(x86Dir));
}

TEST_F(ActivationTest, UnknownInstallationPathKeepsTheRecordedCopies)
{
    task->installedModulePaths = {"/recorded/earlier"};
    NoInstallationPath noPath;
    EXPECT_FALSE(task->CopyAuthModule());
    EXPECT_EQ(task->installedModulePaths, std::list<std::string>{"/recorded/earlier"});
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Get install path failed, copy auth module failed.")) << log.Dump();
    ExpectNoModuleCopies();
}

TEST_F(ActivationTest, FailedServiceSwitchRemovesCopiesButLeavesTheIncludeFile)
{
    const std::string service = "auth substack common-auth\nauth include postlogin-auth\n";
    WriteText(task->pamSshdPath, service);
    EXPECT_FALSE(task->OpenPam());
    EXPECT_FALSE(task->authEnabled);
    EXPECT_EQ(log.Texts().back(), authFailed) << log.Dump();
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, authFailed));
    EXPECT_TRUE(task->installedModulePaths.empty());
    ExpectNoModuleCopies();
    EXPECT_TRUE(Exists(task->pamIncludePath));
    EXPECT_EQ(ReadText(task->pamSshdPath), service);
    EXPECT_EQ(installation.RestartCount(), 0);
}

TEST_F(ActivationTest, AlreadySwitchedServiceFileGoesOn)
{
    WriteText(task->pamSshdPath, serviceOn);
    ASSERT_TRUE(task->OpenPam()) << log.Dump();
    EXPECT_TRUE(task->authEnabled);
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "Pam sshd config file has been modified.")) << log.Dump();
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOn);
    EXPECT_EQ(installation.RestartCount(), 1);
}

TEST_F(ActivationTest, FailedSshdSwitchRollsEverythingBack)
{
    WriteText(task->sshdConfigPath, "UsePAM yes\n");
    EXPECT_FALSE(task->OpenPam());
    EXPECT_FALSE(task->authEnabled);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, sshdFailed)) << log.Dump();
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOff);
    EXPECT_FALSE(Exists(task->pamIncludePath));
    EXPECT_TRUE(task->installedModulePaths.empty());
    ExpectNoModuleCopies();
}

TEST_F(ActivationTest, FailedSshdSwitchWithUnwritableServiceFileRemovesNothing)
{
    WriteText(task->pamSshdPath, serviceOn);
    WriteText(task->pamIncludePath, "included\n");
    WriteText(task->sshdConfigPath, "UsePAM yes\n");
    ReadOnlyFile readOnly(task->pamSshdPath);
    ASSERT_TRUE(readOnly.Ok()) << std::strerror(errno);

    EXPECT_FALSE(task->OpenPam());
    EXPECT_FALSE(task->authEnabled);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, sshdFailed)) << log.Dump();
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open pam sshd config file(" + task->pamSshdPath + ") failed, errno(" +
                                                 std::to_string(EROFS) + ")."))
        << log.Dump();
    EXPECT_EQ(log.Texts().back(), "Switch off auth config failed.");
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Switch off auth config failed."));
    // The service file still includes our file, which calls the module.
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOn);
    EXPECT_EQ(ReadText(task->pamIncludePath), "included\n");
    EXPECT_EQ(task->installedModulePaths, (std::list<std::string>{Installed(x86Dir), Installed(lib64Dir)}));
    EXPECT_TRUE(Exists(Installed(x86Dir)));
    EXPECT_TRUE(Exists(Installed(lib64Dir)));
}

TEST_F(ActivationTest, UnwritableSshdConfigIsReportedAndNotRestarted)
{
    const std::string original = "UsePAM yes\nKbdInteractiveAuthentication no\n";
    ReadOnlyFile readOnly(task->sshdConfigPath);
    ASSERT_TRUE(readOnly.Ok()) << std::strerror(errno);
    EXPECT_FALSE(task->SwitchSshdConfig(true));
    EXPECT_EQ(ReadText(task->sshdConfigPath), original);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open sshd config file(" + task->sshdConfigPath + ") failed, errno(" +
                                                 std::to_string(EROFS) + ")."))
        << log.Dump();
    EXPECT_EQ(installation.RestartCount(), 0);
}

TEST_F(ActivationTest, UnwritableServiceFileIsReportedWhenSwitchingOn)
{
    ReadOnlyFile readOnly(task->pamSshdPath);
    ASSERT_TRUE(readOnly.Ok()) << std::strerror(errno);
    EXPECT_FALSE(task->SwitchAuth(true));
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOff);
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Open pam sshd config file(" + task->pamSshdPath + ") failed, errno(" +
                                                 std::to_string(EROFS) + ")."))
        << log.Dump();
}

TEST_F(ActivationTest, DeletionGoesOnPastMissingCopiesAndForgetsThemAll)
{
    ASSERT_TRUE(task->CopyAuthModule());
    std::filesystem::remove(Installed(x86Dir));
    log.Clear();
    task->DeleteAuthModule();
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"Delete pam module(" + Installed(x86Dir) + ") failed, errno(2)."});
    EXPECT_TRUE(log.Has(Message::PRIO_ERROR, "Delete pam module(" + Installed(x86Dir) + ") failed, errno(2)."));
    EXPECT_TRUE(task->installedModulePaths.empty());
    ExpectNoModuleCopies();

    log.Clear();
    task->DeleteAuthModule();
    EXPECT_TRUE(log.Texts().empty());
}

} // namespace
