#pragma once

#include <cerrno>
#include <unistd.h>

namespace SDK {
namespace Internal {

/// Owns one file descriptor and closes it when it goes out of scope, keeping
/// errno so that the caller can still report why an operation failed.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : fd(descriptor) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd; }
    bool Valid() const { return fd >= 0; }

    /// Closes the descriptor now; 0 or the result of close().
    int Reset(int descriptor = -1)
    {
        int result = 0;
        if (fd >= 0) {
            const int saved = errno;
            result = ::close(fd);
            if (result == 0) {
                errno = saved;
            }
        }
        fd = descriptor;
        return result;
    }

private:
    int fd = -1;
};

} // namespace Internal
} // namespace SDK
