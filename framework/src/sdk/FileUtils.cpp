#include "SDK/FileUtils.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "FileReplace.h"
#include "brackmoor/UniqueFd.h"

namespace SDK {

using brackmoor::UniqueFd;

namespace {

const size_t kChunk = 64 * 1024;

/// read() that retries on EINTR.
ssize_t ReadSome(int fd, char* buffer, size_t size)
{
    ssize_t n;
    do {
        n = ::read(fd, buffer, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

/// Writes all of `buffer`; 0 or -1.
int WriteAll(int fd, const char* buffer, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, buffer, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        buffer += n;
        size -= static_cast<size_t>(n);
    }
    return 0;
}

/// Copies `in` to `out`, failing with EFBIG when more than `maxSize` bytes
/// arrive (the source may grow after it was measured).
int CopyBounded(int in, int out, long maxSize)
{
    std::vector<char> buffer(kChunk);
    long total = 0;
    for (;;) {
        const ssize_t n = ReadSome(in, buffer.data(), buffer.size());
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            return 0;
        }
        total += n;
        if (total > maxSize) {
            errno = EFBIG;
            return -1;
        }
        if (WriteAll(out, buffer.data(), static_cast<size_t>(n)) != 0) {
            return -1;
        }
    }
}

/// Opens `path` for reading and checks that it is a regular file of at most
/// `maxSize` bytes.
int OpenBoundedRegular(const std::string& path, long maxSize, UniqueFd& fd)
{
    fd.Reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd.Valid()) {
        return -1;
    }
    struct stat st {};
    if (::fstat(fd.Get(), &st) != 0) {
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    if (maxSize < 0 || st.st_size > maxSize) {
        errno = EFBIG;
        return -1;
    }
    return 0;
}

} // namespace

int FileUtils::CopyFile(const std::string& from, const std::string& to, long maxSize)
{
    UniqueFd in;
    if (to.empty()) {
        errno = EINVAL;
        return -1;
    }
    if (OpenBoundedRegular(from, maxSize, in) != 0) {
        return -1;
    }
    // A PAM module is loaded by every process that authenticates: a new copy
    // is world-readable.
    const int result = FileReplace::Replace(to, 0644, [&](int out) { return CopyBounded(in.Get(), out, maxSize); });
    return result == 0 ? 0 : -1;
}

int FileUtils::DeleteFile(const std::string& path)
{
    return ::unlink(path.c_str()) == 0 ? 0 : -1;
}

int FileUtils::ReadFile(const std::string& path, std::string& content, long maxSize)
{
    UniqueFd fd;
    if (OpenBoundedRegular(path, maxSize, fd) != 0) {
        return -1;
    }
    std::string text;
    std::vector<char> buffer(kChunk);
    for (;;) {
        const ssize_t n = ReadSome(fd.Get(), buffer.data(), buffer.size());
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        if (static_cast<long>(text.size()) + n > maxSize) {
            errno = EFBIG;
            return -1;
        }
        text.append(buffer.data(), static_cast<size_t>(n));
    }
    content = std::move(text);
    return 0;
}

FileUtils::ReplaceResult FileUtils::ReplaceFile(const std::string& path, const std::string& content,
                                                mode_t newFileMode)
{
    const int result = FileReplace::Replace(path, newFileMode, [&](int out) {
        return WriteAll(out, content.data(), content.size());
    });
    return static_cast<ReplaceResult>(result);
}

int FileUtils::RemoveStaleTemporaries(const std::string& path)
{
    return FileReplace::RemoveStale(path);
}

} // namespace SDK
