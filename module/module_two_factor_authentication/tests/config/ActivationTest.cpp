// The activation sequence and the module installation over every step that
// can fail, on the real module directories. Runs only inside the sandbox:
// the directories are created and removed on its overlays.
#include <sys/mount.h>
#include <sys/stat.h>

#include "TfaTestSupport.h"

using namespace TfaTest;

namespace {

// Three of the system PAM module directories that the task installs into, in its order.
const std::string x86 = "/lib/x86_64-linux-gnu/security/", lib64 = "/lib64/security/", lib = "/lib/security/";
const std::string sshdOff = "UsePAM yes\nKbdInteractiveAuthentication no\n", earlierInclude = "left by a run\n";
const std::string serviceOff = "@include common-auth\n@include common-account\n";
const std::string serviceOn = "#@include common-auth\n@include\tbrackmoor-auth\n@include common-account\n";
const std::string generatedInclude = "auth required  pam_unix.so nullok\nauth [success=1 default=ignore] "
                                     "pam_brackmoor.so refresh_time=301 echo=1 local=1\nauth requisite pam_deny.so\n";

class ActivationTest : public TaskInTempDir {
protected:
    // The files and module directories (without copies) before an activation,
    // which Init starts by setting the flag; sshd_config lies in ROOT/ssh.
    void Prepare(const std::string& sshdConfig, const std::string& service, const std::vector<std::string>& dirs)
    {
        NewTask();
        task->sshdConfigPath = root.File("ssh/sshd_config");
        task->authEnabled = true;
        WriteText(task->sshdConfigPath, sshdConfig);
        WriteText(task->pamDir + "common-auth", "auth [success=1 default=ignore] pam_unix.so nullok\n"
                                                "auth requisite pam_deny.so\n");
        WriteText(task->pamSshdPath, service);
        WriteText(task->pamIncludePath, earlierInclude);
        for (const std::string& dir : std::vector<std::string>{x86, "/lib/i386-linux-gnu/security/", lib64, lib,
                                                              "/lib/aarch64-linux-gnu/security/"}) {
            fs::remove_all(std::count(dirs.begin(), dirs.end(), dir) ? dir + "pam_brackmoor.so" : dir);
        }
        for (const std::string& dir : dirs) {
            fs::create_directories(dir);
        }
        log.Clear();
    }
};

// Replacing files, symbolic links included, is FileReplace's and proven by its suite.
TEST_F(ActivationTest, SwitchesOnPastAFailingCopyAndRemovesTheCopiesAgain)
{
    Prepare(sshdOff, serviceOff, {x86, lib64, lib});
    fs::create_directories(x86 + "pam_brackmoor.so");  // where the first copy should go
    ASSERT_TRUE(task->OpenPam());
    EXPECT_EQ(ReadWholeFile(task->pamIncludePath), generatedInclude);
    EXPECT_EQ(ReadWholeFile(task->pamSshdPath), serviceOn);
    EXPECT_EQ(installation.Restarts(), 1);
    EXPECT_EQ(task->installedModulePaths,
              (std::list<std::string>{lib64 + "pam_brackmoor.so", lib + "pam_brackmoor.so"}));
    struct stat copy {};
    EXPECT_EQ(stat((lib + "pam_brackmoor.so").c_str(), &copy) == 0 ? copy.st_mode & 07777 : 0, 0705u);
    // Removal goes on past a copy that is gone already.
    fs::remove(lib64 + "pam_brackmoor.so");
    task->DeleteAuthModule();
    EXPECT_TRUE(task->installedModulePaths.empty() && !fs::exists(lib + "pam_brackmoor.so"));
}

TEST_F(ActivationTest, EveryFailingStepRollsBackAllThatNothingNamesAnyMore)
{
    const std::string cannot = ", two-factor authentication cannot be used.", full = "failed, errno(28).";
    const struct {
        std::string sshdConfig, service;
        std::string fullDisk;  // ROOT's directory on a full 64 KiB disk; empty: none
        std::string record;    // the failure logged
        std::string include;   // the include file afterwards; empty: removed
        bool keep = false;     // the service file still names the module: include file and copies stay
    } rows[] = {
        {"UsePAM no\n", serviceOff, "", "E Not use pam or pwd auth or permit empty pwd" + cannot, earlierInclude},
        {sshdOff, serviceOff, "", "E Copy auth module failed" + cannot, earlierInclude},  // no module directory
        {sshdOff, serviceOff, "", "E Get install path failed, copy auth module failed.", earlierInclude},
        // The include file may have been generated: the next run writes it anew.
        {sshdOff, "auth substack common-auth\nauth include postlogin-auth\n", "",
         "E Switch on auth config failed" + cannot, generatedInclude},
        {sshdOff, serviceOff, "pam.d", "E Write pam bm config file(ROOT/pam.d/brackmoor-auth) " + full, earlierInclude},
        {"UsePAM yes\n", serviceOff, "", "E Switch on sshd challenge config failed" + cannot, ""},
        {sshdOff, serviceOff, "ssh", "E Write sshd config file(ROOT/ssh/sshd_config) " + full, ""},
        {"UsePAM yes\n", serviceOn, "pam.d", "E Write pam sshd config file(ROOT/pam.d/sshd) " + full, earlierInclude,
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.record);
        const std::string disk = row.fullDisk.empty() ? "" : root.File(row.fullDisk);
        if (!disk.empty()) {
            fs::create_directories(disk);
            ASSERT_EQ(mount("full", disk.c_str(), "tmpfs", 0, "size=64k"), 0);
        }
        // The copy fails where no module directory exists, or without an installation path.
        const bool noDirectory = row.record.find("Copy auth") != std::string::npos;
        Prepare(row.sshdConfig, row.service, noDirectory ? std::vector<std::string>{} : std::vector{x86, lib64});
        StandInInstallation fresh;
        if (row.record.find("install path") != std::string::npos) {
            Framework::ConfigManager::GetInstance()->Set("agent.installation_path", "");
        }
        for (std::ofstream filler(disk.empty() ? "" : disk + "/filler"); filler << std::string(4096, 'x');) {
        }

        EXPECT_FALSE(task->OpenPam());
        EXPECT_FALSE(task->authEnabled);
        EXPECT_THAT(log.Records(), Contains(row.record));
        EXPECT_EQ(ReadWholeFile(task->sshdConfigPath), row.sshdConfig);
        EXPECT_EQ(ReadWholeFile(task->pamSshdPath), row.service);
        EXPECT_EQ(ReadWholeFile(task->pamIncludePath), row.include);
        EXPECT_EQ(fresh.Restarts(), 0);
        EXPECT_EQ(task->installedModulePaths.size(), row.keep ? 2u : 0u);
        EXPECT_EQ(fs::exists(x86 + "pam_brackmoor.so") + fs::exists(lib64 + "pam_brackmoor.so"), row.keep ? 2 : 0);
        for (const auto& entry : fs::recursive_directory_iterator(root.Path())) {
            EXPECT_EQ(entry.path().string().find(".brackmoor-new."), std::string::npos) << "left behind";
        }
        if (!disk.empty()) {
            umount2(disk.c_str(), MNT_DETACH);
        }
    }
}

} // namespace
