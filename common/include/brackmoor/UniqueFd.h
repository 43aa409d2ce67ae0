#pragma once

#include <cerrno>
#include <unistd.h>

namespace brackmoor {

/// Owns one file descriptor and closes it when it goes out of scope, so that
/// no path (early returns included) leaks a socket or a file. Header-only and
/// free of exceptions: the PAM module inside sshd uses it too.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : fd(descriptor) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }

    /// The descriptor, still owned; -1 when there is none.
    int Get() const { return fd; }
    bool Valid() const { return fd >= 0; }

    /// Gives up ownership without closing.
    int Release()
    {
        const int released = fd;
        fd = -1;
        return released;
    }

    /// Closes the current descriptor (if any) and takes `descriptor`; 0 or the
    /// result of close(). A successful close keeps errno, so that a caller can
    /// still report why an earlier operation failed.
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

} // namespace brackmoor
