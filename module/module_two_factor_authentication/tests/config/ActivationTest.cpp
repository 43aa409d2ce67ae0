// The activation sequence and the module installation over every step that
// can fail, on the real module directories. Runs only inside the sandbox:
// the directories are created and removed on its overlays.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ConfigTestSupport.h"

using namespace ConfigTest;
using Paths = std::list<std::string>;
namespace fs = std::filesystem;

namespace {

// The system PAM module directories that the task installs into, in its order.
const std::vector<std::string> moduleDirs = {"/lib/x86_64-linux-gnu/security/", "/lib/i386-linux-gnu/security/",
                                             "/lib64/security/", "/lib/security/", "/lib/aarch64-linux-gnu/security/"};
const std::string x86Dir = moduleDirs[0];
const std::string lib64Dir = moduleDirs[2];
const Paths bothCopies = {x86Dir + "pam_brackmoor.so", lib64Dir + "pam_brackmoor.so"};
const std::string sshdOff = "UsePAM yes\nKbdInteractiveAuthentication no\n";
const std::string serviceOff = "@include common-auth\n@include common-account\n";
const std::string serviceOn = "#@include common-auth\n@include\tbrackmoor-auth\n@include common-account\n";
const std::string earlierInclude = "left by an earlier run\n";
const std::string generatedInclude = "auth required  pam_unix.so nullok\nauth [success=1 default=ignore] "
                                     "pam_brackmoor.so refresh_time=301 echo=1 local=1\nauth requisite pam_deny.so\n";

std::string Copied(const std::string& dir)
{
    return "I Copy pam module to (" + dir + ") success.";
}

// The module copies present in the system module directories.
Paths ModuleCopies()
{
    Paths copies;
    for (const std::string& dir : moduleDirs) {
        if (fs::exists(dir + "pam_brackmoor.so")) {
            copies.push_back(dir + "pam_brackmoor.so");
        }
    }
    return copies;
}

// Makes a file read-only while the object lives (a bind mount of the file
// onto itself, remounted read-only): reading works, opening for writing fails.
// Nothing happens for an empty path.
class ReadOnlyFile {
public:
    explicit ReadOnlyFile(const std::string& file) : path(file)
    {
        bound = !path.empty() && mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
        ok = path.empty() || (bound && mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY,
                                             nullptr) == 0);
    }
    ~ReadOnlyFile()
    {
        if (bound) {
            umount(path.c_str());
        }
    }
    bool ok = false;

private:
    std::string path;
    bool bound = false;
};

class ActivationTest : public TaskInTempDir {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(TaskInTempDir::SetUp());
        Prepare(sshdOff, serviceOff, {x86Dir, lib64Dir});
    }

    // The files and the module directories (without copies) before an
    // activation; Init sets the flag right before it activates.
    void Prepare(const std::string& sshdConfig, const std::string& service, const std::vector<std::string>& dirs)
    {
        task = TaskIn(root.Path());
        WriteText(task->sshdConfigPath, sshdConfig);
        WriteText(task->pamDir + "common-auth", "auth [success=1 default=ignore] pam_unix.so nullok\n"
                                                "auth requisite pam_deny.so\n");
        WriteText(task->pamSshdPath, service);
        WriteText(task->pamIncludePath, earlierInclude);
        for (const std::string& dir : moduleDirs) {
            fs::remove_all(std::count(dirs.begin(), dirs.end(), dir) ? dir + "pam_brackmoor.so" : dir);
        }
        for (const std::string& dir : dirs) {
            fs::create_directories(dir);
        }
        task->authEnabled = true;
    }
};

TEST_F(ActivationTest, SwitchesEverythingOnAndRemovesTheCopiesAgain)
{
    ASSERT_TRUE(task->OpenPam());
    EXPECT_TRUE(task->authEnabled);
    EXPECT_EQ(task->installedModulePaths, bothCopies);
    for (const std::string& copy : bothCopies) {
        struct stat st {};
        EXPECT_EQ(ReadText(copy), "stand-in PAM module\n");
        EXPECT_EQ(stat(copy.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0705u) << copy;
    }
    EXPECT_EQ(ReadText(task->pamSshdPath), serviceOn);
    EXPECT_EQ(ReadText(task->pamIncludePath), generatedInclude);
    EXPECT_EQ(ReadText(task->sshdConfigPath),
              "UsePAM yes\n#KbdInteractiveAuthentication no\nKbdInteractiveAuthentication yes\n");
    EXPECT_EQ(installation.RestartCount(), 1);
    EXPECT_EQ(log.Records(),
              (Records{Copied(x86Dir), Copied(lib64Dir), "I No (ChallengeResponseAuthentication) config."}));

    // Deletion goes on past a copy that is gone already, and forgets them all.
    fs::remove(bothCopies.front());
    log.Clear();
    task->DeleteAuthModule();
    EXPECT_EQ(log.Records(), Records{"E Delete pam module(" + bothCopies.front() + ") failed, errno(2)."});
    EXPECT_EQ(task->installedModulePaths, Paths{});
    EXPECT_EQ(ModuleCopies(), Paths{});
}

TEST_F(ActivationTest, EveryFailingStepRollsBackAllThatNothingNamesAnyMore)
{
    struct Row {
        std::string sshdConfig;
        std::string service;
        std::string readOnly;           // file under the root made read-only; empty: none
        std::vector<std::string> dirs;  // module directories that exist
        bool installationPath;          // false: the installation path is unknown
        Records logs;
        std::string include;            // the include file afterwards; empty: removed
        bool copiesKept;                // the service file may still name the module
    };
    const std::string cannot = ", two-factor authentication cannot be used.";
    const std::string copied[] = {Copied(x86Dir), Copied(lib64Dir)};
    const std::string noKeywords[] = {"I No (ChallengeResponseAuthentication) config.",
                                      "I No (KbdInteractiveAuthentication) config."};
    const std::string authFailed = "E Switch on auth config failed" + cannot;
    const std::string sshdFailed = "E Switch on sshd challenge config failed" + cannot;
    const std::string serviceReadOnly = "E Write pam sshd config file(ROOT/pam.d/sshd) failed, errno(16).";
    const std::vector<std::string> dirs = {x86Dir, lib64Dir};
    const Row rows[] = {
        {"UsePAM no\n", serviceOff, "", dirs, true,
         {"E Not use pam or pwd auth or permit empty pwd" + cannot}, earlierInclude, false},
        {sshdOff, serviceOff, "", {}, true, {"E Copy auth module failed" + cannot}, earlierInclude, false},
        {sshdOff, serviceOff, "", dirs, false,
         {"E Get install path failed, copy auth module failed.", "E Copy auth module failed" + cannot},
         earlierInclude, false},
        // The include file may have been generated: the next run writes it anew.
        {sshdOff, "auth substack common-auth\nauth include postlogin-auth\n", "", dirs, true,
         {copied[0], copied[1], "E Pam sshd config abnormal.", authFailed}, generatedInclude, false},
        {sshdOff, serviceOff, "pam.d/sshd", dirs, true, {copied[0], copied[1], serviceReadOnly, authFailed},
         generatedInclude, false},
        {"UsePAM yes\n", serviceOff, "", dirs, true, {copied[0], copied[1], noKeywords[0], noKeywords[1], sshdFailed},
         "", false},
        {sshdOff, serviceOff, "sshd_config", dirs, true,
         {copied[0], copied[1], noKeywords[0], "E Write sshd config file(ROOT/sshd_config) failed, errno(16).",
          sshdFailed},
         "", false},
        // The service file cannot be switched back and still includes our
        // file, which calls the module: removing either would break logins.
        {"UsePAM yes\n", serviceOn, "pam.d/sshd", dirs, true,
         {copied[0], copied[1], "W Pam sshd config file has been modified.", noKeywords[0], noKeywords[1], sshdFailed,
          serviceReadOnly, "E Switch off auth config failed."},
         earlierInclude, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        Prepare(row.sshdConfig, row.service, row.dirs);
        StandInInstallation fresh;
        if (!row.installationPath) {
            fresh.Unset();
        }
        ReadOnlyFile readOnly(row.readOnly.empty() ? "" : root.File(row.readOnly));
        ASSERT_TRUE(readOnly.ok) << std::strerror(errno);
        log.Clear();

        EXPECT_FALSE(task->OpenPam());
        EXPECT_FALSE(task->authEnabled);
        EXPECT_EQ(log.Records(), row.logs);
        EXPECT_EQ(ReadText(task->sshdConfigPath), row.sshdConfig);
        EXPECT_EQ(ReadText(task->pamSshdPath), row.service);
        EXPECT_EQ(ReadText(task->pamIncludePath), row.include);
        EXPECT_EQ(fresh.RestartCount(), 0);
        EXPECT_EQ(task->installedModulePaths, row.copiesKept ? bothCopies : Paths{});
        EXPECT_EQ(ModuleCopies(), row.copiesKept ? bothCopies : Paths{});
    }
}

// A small tmpfs at `dir` while the object lives, filled up once Fill is called.
class TinyDisk {
public:
    explicit TinyDisk(const std::string& directory) : dir(directory)
    {
        fs::create_directories(dir);
        ok = mount("tiny", dir.c_str(), "tmpfs", 0, "size=64k") == 0;
    }
    ~TinyDisk()
    {
        if (ok) {
            umount2(dir.c_str(), MNT_DETACH);
        }
    }
    void Fill()
    {
        std::ofstream filler(dir + "/filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), block.size())) {
        }
    }
    bool ok = false;

private:
    std::string dir;
};

TEST_F(ActivationTest, FullDisksAndPlantedLinksNeverCutOrRedirectAFile)
{
    const std::string noSpace = "errno(" + std::to_string(ENOSPC) + ").";
    const struct {
        const char* fullDir;  // under the root
        Records failure;      // what is logged after the copies
    } rows[] = {
        {"pam.d", {"E Write pam bm config file(ROOT/pam.d/brackmoor-auth) failed, " + noSpace,
                   "E Generate pam bm config file failed.", "E Switch on auth config failed, two-factor "
                                                            "authentication cannot be used."}},
        {"ssh", {"I No (ChallengeResponseAuthentication) config.",
                 "E Write sshd config file(ROOT/ssh/sshd_config) failed, " + noSpace,
                 "E Switch on sshd challenge config failed, two-factor authentication cannot be used."}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fullDir);
        TinyDisk disk(root.File(row.fullDir));
        ASSERT_TRUE(disk.ok) << std::strerror(errno);
        Prepare(sshdOff, serviceOff, {x86Dir, lib64Dir});
        task->sshdConfigPath = root.File("ssh/sshd_config");
        WriteText(task->sshdConfigPath, sshdOff);
        disk.Fill();
        log.Clear();

        EXPECT_FALSE(task->OpenPam());
        Records expected = {Copied(x86Dir), Copied(lib64Dir)};
        expected.insert(expected.end(), row.failure.begin(), row.failure.end());
        EXPECT_EQ(log.Records(), expected);
        EXPECT_EQ(ReadText(task->sshdConfigPath), sshdOff);
        EXPECT_EQ(ReadText(task->pamSshdPath), serviceOff);
        EXPECT_EQ(ModuleCopies(), Paths{});
        for (const std::string& dir : {root.File("pam.d"), root.File("ssh")}) {
            for (const auto& entry : fs::directory_iterator(dir)) {
                EXPECT_EQ(entry.path().filename().string().find(".brackmoor-new."), std::string::npos)
                    << "left behind: " << entry.path();
            }
        }
    }

    // A link planted where the include file goes is replaced, its target untouched.
    Prepare(sshdOff, serviceOff, {x86Dir});
    const std::string target = root.File("outside-target");
    WriteText(target, "precious\n");
    fs::remove(task->pamIncludePath);
    fs::create_symlink(target, task->pamIncludePath);
    ASSERT_TRUE(task->OpenPam());
    EXPECT_EQ(ReadText(target), "precious\n");
    EXPECT_FALSE(fs::is_symlink(task->pamIncludePath));
    EXPECT_EQ(ReadText(task->pamIncludePath), generatedInclude);
}

TEST_F(ActivationTest, CopyFailingInOneDirectoryGoesOnToTheNext)
{
    Prepare(sshdOff, serviceOff, {x86Dir, "/lib/security/"});
    // A directory where the module file should go: the copy cannot replace it.
    fs::create_directories(x86Dir + "pam_brackmoor.so");
    ASSERT_TRUE(task->CopyAuthModule());
    fs::remove_all(x86Dir + "pam_brackmoor.so");
    EXPECT_EQ(task->installedModulePaths, Paths{"/lib/security/pam_brackmoor.so"});
    EXPECT_EQ(log.Records(), (Records{"E Copy pam module to (" + x86Dir + ") failed, result(-1), errno(" +
                                          std::to_string(EISDIR) + ").",
                                      Copied("/lib/security/")}));
}

} // namespace
