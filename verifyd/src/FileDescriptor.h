#pragma once

#include <unistd.h>

#include <utility>

namespace brackmoor::verifyd {

/// Owns one file descriptor and closes it when it goes out of scope.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int owned) : fd(owned) {}
    ~FileDescriptor() { Reset(); }

    FileDescriptor(FileDescriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        if (this != &other) {
            Reset();
            fd = std::exchange(other.fd, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const { return fd; }
    bool Valid() const { return fd >= 0; }

    /// Closes the descriptor now (for instance to signal end of input).
    void Reset()
    {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }

private:
    int fd = -1;
};

} // namespace brackmoor::verifyd
