#include <algorithm>
#include <cerrno>
#include <dirent.h>
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

/// Names in `dir` besides "." and "..", to catch left-over temporary files.
Names Entries(const std::string& dir)
{
    Names names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") {
                names.push_back(e->d_name);
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
    TestSupport::TempDir dir;
};

TEST_F(FileUtilsTest, CopyFileWritesAWorldReadableCopyWithinTheBound)
{
    const std::string from = dir.Write("module.so", "\x7f" "ELF payload", 0600);
    const std::string to = dir.Write("installed.so", "old");

    EXPECT_NE(0, FileUtils::CopyFile(from, to, 11));  // one byte short
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ("old", ReadWholeFile(to));
    EXPECT_NE(0, FileUtils::CopyFile(from, to, -1));

    ASSERT_EQ(0, FileUtils::CopyFile(from, to, 12));
    EXPECT_EQ("\x7f" "ELF payload", ReadWholeFile(to));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0644), ModeOf(to));
    EXPECT_EQ((Names{"installed.so", "module.so"}), Entries(dir.Path()));
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

TEST_F(FileUtilsTest, CopyFileReplacesASymlinkInsteadOfWritingThroughIt)
{
    const std::string victim = dir.Write("victim", "keep me");
    const std::string to = dir.File("link");
    ASSERT_EQ(0, ::symlink(victim.c_str(), to.c_str()));

    ASSERT_EQ(0, FileUtils::CopyFile(dir.Write("src", "payload"), to, kBound));

    EXPECT_EQ("keep me", ReadWholeFile(victim));
    EXPECT_TRUE(S_ISREG(ModeOf(to)));
    EXPECT_EQ("payload", ReadWholeFile(to));
}

} // namespace
