#pragma once

#include <unistd.h>

namespace brackmoor::pam {

/// Owns one file descriptor and closes it when it goes out of scope, so that no
/// path through the module (early returns included) leaks a socket or a file
/// into the process that loaded it.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }

    /// The descriptor, still owned; -1 when there is none.
    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }

    /// Gives up ownership without closing.
    int Release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    /// Closes the current descriptor (if any) and takes the new one.
    void Reset(int fd = -1)
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

} // namespace brackmoor::pam
