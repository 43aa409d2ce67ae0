#include "PidFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Agent {

namespace {

// An agent that exits unlinks its file; a competitor may have opened the old
// one just before. Locking succeeds on that orphan, so the lock only counts
// when the path still names the locked file; otherwise try again.
const int kAcquireAttempts = 5;

long ReadPid(int fd)
{
    char buffer[32] = {};
    const ssize_t got = pread(fd, buffer, sizeof(buffer) - 1, 0);
    if (got <= 0) {
        return 0;
    }
    return std::strtol(buffer, nullptr, 10);
}

bool SameFile(int fd, const std::string& path)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

bool WriteAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(wrote);
    }
    return true;
}

} // namespace

PidFile::~PidFile()
{
    Release();
}

bool PidFile::Acquire(const std::string& filePath, std::string& error)
{
    Release();
    for (int attempt = 0; attempt < kAcquireAttempts; ++attempt) {
        // O_NOFOLLOW: the agent runs as root; a planted symbolic link must not
        // make it truncate another file.
        const int opened = open(filePath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (opened < 0) {
            error = "pid file " + filePath + ": cannot open: " + std::strerror(errno);
            return false;
        }
        if (flock(opened, LOCK_EX | LOCK_NB) != 0) {
            const int cause = errno;
            const long holder = ReadPid(opened);
            close(opened);
            if (cause == EWOULDBLOCK) {
                error = "another instance is running" +
                        (holder > 0 ? " (pid " + std::to_string(holder) + ")" : std::string()) +
                        "; pid file " + filePath;
            } else {
                error = "pid file " + filePath + ": cannot lock: " + std::strerror(cause);
            }
            return false;
        }
        if (!SameFile(opened, filePath)) {
            close(opened);
            continue;
        }
        if (ftruncate(opened, 0) != 0 || !WriteAll(opened, std::to_string(getpid()) + "\n")) {
            error = "pid file " + filePath + ": cannot write: " + std::strerror(errno);
            close(opened);
            return false;
        }
        fd = opened;
        path = filePath;
        return true;
    }
    error = "pid file " + filePath + ": replaced while being locked; giving up";
    return false;
}

bool PidFile::IsHeld(const std::string& filePath, long& pid)
{
    pid = 0;
    const int opened = open(filePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (opened < 0) {
        return false;
    }
    pid = ReadPid(opened);
    // A shared lock is granted unless the agent holds its exclusive one.
    const bool held = flock(opened, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(opened);  // also drops the shared lock if it was granted
    return held;
}

void PidFile::Release()
{
    if (fd < 0) {
        return;
    }
    unlink(path.c_str());
    close(fd);
    fd = -1;
    path.clear();
}

} // namespace Agent
