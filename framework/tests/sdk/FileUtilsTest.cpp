#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SDK/FileUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using SDK::FileUtils;
using TestSupport::ReadWholeFile;
using Names = std::vector<std::string>;

const long kBound = 10485760;

mode_t ModeOf(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

/// Names in `dir`, sorted, to catch left-over temporary files.
Names Entries(const std::string& dir)
{
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class FileUtilsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.Ok()); }
    TestSupport::TempDir dir;
};

// The target is a symlink: a copy written through it would land in the file it
// points to, so only a copy that replaces the link by rename leaves that intact.
TEST_F(FileUtilsTest, CopyFileReplacesTheTargetWithinTheBoundKeepingARegularOnesMode)
{
    const std::string from = dir.Write("module.so", "\x7f" "ELF payload", 0600);
    const std::string victim = dir.Write("victim", "old");
    const std::string to = dir.File("installed.so");
    ASSERT_EQ(0, ::symlink(victim.c_str(), to.c_str()));

    EXPECT_NE(0, FileUtils::CopyFile(from, to, 11));  // one byte short
    EXPECT_EQ(EFBIG, errno);
    EXPECT_NE(0, FileUtils::CopyFile(from, to, -1));
    EXPECT_TRUE(S_ISLNK(ModeOf(to))) << "a refused copy leaves the target alone";

    ASSERT_EQ(0, FileUtils::CopyFile(from, to, 12));
    EXPECT_EQ("old", ReadWholeFile(victim));
    EXPECT_EQ("\x7f" "ELF payload", ReadWholeFile(to));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0644), ModeOf(to));
    ASSERT_EQ(0, ::chmod(to.c_str(), 0600));
    ASSERT_EQ(0, FileUtils::CopyFile(from, to, 12));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), ModeOf(to)) << "a regular target keeps its mode";
    EXPECT_EQ((Names{"installed.so", "module.so", "victim"}), Entries(dir.Path()));
}

TEST_F(FileUtilsTest, CopyFileRefusesWhatIsNotARegularFile)
{
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, ::mkdir(dir.File("sub").c_str(), 0700));
    const std::string regular = dir.Write("regular", "data");
    const struct {
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
    for (const auto& c : cases) {
        errno = 0;
        EXPECT_NE(0, FileUtils::CopyFile(c.from, c.to, kBound)) << c.from << " -> " << c.to;
        EXPECT_EQ(c.error, errno) << c.from << " -> " << c.to;
    }
    EXPECT_EQ((Names{"fifo", "regular", "sub"}), Entries(dir.Path()));
}

} // namespace
