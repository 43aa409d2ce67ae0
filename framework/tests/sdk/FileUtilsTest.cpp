#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "SDK/DirUtils.h"
#include "SDK/FileUtils.h"
#include "SDK/PathUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using SDK::FileUtils;
using TestSupport::ReadWholeFile;
using TestSupport::TempDir;

const long kBound = 10485760;

mode_t ModeOf(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

/// Names in `dir` besides "." and "..", to catch left-over temporary files.
std::vector<std::string> Entries(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class FileUtilsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.Ok()); }
    TempDir dir;
};

TEST_F(FileUtilsTest, CopyFileWritesAWorldReadableCopy)
{
    const std::string from = dir.Write("module.so", "\x7f" "ELF payload", 0600);
    const std::string to = dir.File("installed.so");

    ASSERT_EQ(0, FileUtils::CopyFile(from, to, kBound));

    EXPECT_EQ("\x7f" "ELF payload", ReadWholeFile(to));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0644), ModeOf(to));
    EXPECT_EQ((std::vector<std::string>{"installed.so", "module.so"}), Entries(dir.Path()));
}

TEST_F(FileUtilsTest, CopyFileHonoursTheSizeBound)
{
    const std::string from = dir.Write("src", std::string(100, 'x'));
    const std::string to = dir.Write("dst", "old");

    EXPECT_NE(0, FileUtils::CopyFile(from, to, 99));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ("old", ReadWholeFile(to));
    EXPECT_NE(0, FileUtils::CopyFile(from, to, -1));
    EXPECT_EQ(0, FileUtils::CopyFile(from, to, 100));
    EXPECT_EQ(std::string(100, 'x'), ReadWholeFile(to));
    EXPECT_EQ((std::vector<std::string>{"dst", "src"}), Entries(dir.Path()));
}

TEST_F(FileUtilsTest, CopyFileRefusesWhatIsNotARegularFile)
{
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, ::mkdir(dir.File("sub").c_str(), 0700));
    const std::string regular = dir.Write("regular", "data");
    struct Case {
        std::string from;
        std::string to;
        int error;
    } cases[] = {
        {dir.File("absent"), dir.File("out"), ENOENT},
        {dir.File("sub"), dir.File("out"), EISDIR},
        {fifo, dir.File("out"), EINVAL},  // must not block waiting for a writer
        {"/dev/null", dir.File("out"), EINVAL},
        {regular, dir.File("missing-dir/out"), ENOENT},
        {regular, "", EINVAL},
    };
    for (const Case& c : cases) {
        errno = 0;
        EXPECT_NE(0, FileUtils::CopyFile(c.from, c.to, kBound)) << c.from << " -> " << c.to;
        EXPECT_EQ(c.error, errno) << c.from << " -> " << c.to;
    }
    EXPECT_EQ((std::vector<std::string>{"fifo", "regular", "sub"}), Entries(dir.Path()));
}

TEST_F(FileUtilsTest, CopyFileReplacesTheTargetAtomically)
{
    const std::string to = dir.Write("pam_module.so", "old version");
    // A process that has the old file open (or mapped) keeps reading it whole.
    const int held = ::open(to.c_str(), O_RDONLY);
    ASSERT_GE(held, 0);
    const std::string from = dir.Write("new.so", "new version");

    ASSERT_EQ(0, FileUtils::CopyFile(from, to, kBound));

    char buffer[32] = {};
    EXPECT_EQ(11, ::pread(held, buffer, sizeof buffer - 1, 0));
    EXPECT_STREQ("old version", buffer);
    ::close(held);
    EXPECT_EQ("new version", ReadWholeFile(to));
}

TEST_F(FileUtilsTest, CopyFileReplacesASymlinkInsteadOfWritingThroughIt)
{
    const std::string victim = dir.Write("victim", "keep me");
    const std::string to = dir.File("link");
    ASSERT_EQ(0, ::symlink(victim.c_str(), to.c_str()));

    ASSERT_EQ(0, FileUtils::CopyFile(dir.Write("src", "payload"), to, kBound));

    EXPECT_EQ("keep me", ReadWholeFile(victim));
    EXPECT_TRUE(S_ISREG(ModeOf(to)));
}

TEST_F(FileUtilsTest, DeleteFileRemovesOnceAndReportsAMissingFile)
{
    const std::string path = dir.Write("gone", "x");
    EXPECT_EQ(0, FileUtils::DeleteFile(path));
    EXPECT_EQ(-1, FileUtils::DeleteFile(path));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_TRUE(Entries(dir.Path()).empty());
}

TEST_F(FileUtilsTest, ReadFileReadsWithinTheBound)
{
    std::string content = "previous";
    EXPECT_EQ(0, FileUtils::ReadFile(dir.Write("f", "line1\nline2"), content, 11));
    EXPECT_EQ("line1\nline2", content);
    content = "previous";
    EXPECT_NE(0, FileUtils::ReadFile(dir.File("f"), content, 10));
    EXPECT_NE(0, FileUtils::ReadFile(dir.File("absent"), content, 10));
    EXPECT_NE(0, FileUtils::ReadFile(dir.Path(), content, 10));
    EXPECT_EQ("previous", content);
}

TEST_F(FileUtilsTest, DirectoriesAreRecognisedAndMadeWithTheirParents)
{
    const std::string nested = dir.File("a/b/c");
    EXPECT_FALSE(SDK::DirUtils::IsDir(nested));
    EXPECT_EQ(0, SDK::DirUtils::MakeDirs(nested, 0750));
    EXPECT_TRUE(SDK::DirUtils::IsDir(nested));
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(0750 & ~mask, ModeOf(nested) & 0777);
    EXPECT_EQ(0, SDK::DirUtils::MakeDirs(nested + "/", 0750)) << "an existing directory is fine";

    const std::string file = dir.Write("file", "");
    EXPECT_FALSE(SDK::DirUtils::IsDir(file));
    EXPECT_NE(0, SDK::DirUtils::MakeDirs(file, 0750));
    EXPECT_NE(0, SDK::DirUtils::MakeDirs(file + "/below", 0750));
    EXPECT_NE(0, SDK::DirUtils::MakeDirs("", 0750));

    ASSERT_EQ(0, ::symlink(nested.c_str(), dir.File("link").c_str()));
    EXPECT_TRUE(SDK::DirUtils::IsDir(dir.File("link")));
    EXPECT_FALSE(SDK::DirUtils::IsDir(dir.File("absent")));
}

TEST(PathUtilsTest, FileNameIsTheLastComponent)
{
    struct Case {
        const char* path;
        const char* name;
    } cases[] = {
        {"/src/module/Task.cpp", "Task.cpp"}, {"Task.cpp", "Task.cpp"}, {"dir/", ""}, {"", ""}, {"/", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.name, SDK::PathUtils::GetFileNameFromPath(c.path)) << c.path;
    }
}

TEST(PathUtilsTest, InstallationPathComesFromTheConfigurationWithASlash)
{
    std::string path;
    Framework::ConfigManager::GetInstance()->Set("agent.installation_path", "/srv/agent");
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(path));
    EXPECT_EQ("/srv/agent/", path);
    Framework::ConfigManager::GetInstance()->Set("agent.installation_path", "/opt/brackmoor/");
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(path));
    EXPECT_EQ("/opt/brackmoor/", path);
}

} // namespace
