#pragma once

#include <string>

namespace Agent {

/// The single-instance guard: a pid file under an exclusive flock held for
/// the life of the object. A second agent cannot take the lock and stops;
/// a pid file left by a crashed agent holds no lock and is taken over.
class PidFile {
public:
    PidFile() = default;
    /// Removes the file while still holding the lock, then releases it.
    ~PidFile();

    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    /// Creates or opens `path`, locks it and writes this process's pid.
    /// False with `error` set when another process holds the lock (naming its
    /// pid when the file tells it) or the file cannot be used.
    bool Acquire(const std::string& path, std::string& error);

    /// Whether some process holds the lock on `path` now; `pid` is the pid
    /// written in the file, or 0. Does not disturb the holder.
    static bool IsHeld(const std::string& path, long& pid);

private:
    void Release();

    std::string path;
    int fd = -1;
};

} // namespace Agent
