#pragma once

#include <string>

namespace SDK {

class FileUtils {
public:
    /// Copies `from` to `to`. Refuses (non-zero) a source that is not a
    /// regular file or is larger than `maxSize` bytes. The copy is written to
    /// a temporary file beside `to` and renamed over it, so a process that
    /// has the old file mapped (a PAM module inside sshd) keeps a valid copy.
    /// The new file gets mode 0644. 0 on success, non-zero (errno kept) on
    /// any failure.
    static int CopyFile(const std::string& from, const std::string& to, long maxSize);

    /// Removes `path`; 0 on success, -1 otherwise (errno kept).
    static int DeleteFile(const std::string& path);

    /// Reads the whole file into `content`; 0 on success.
    static int ReadFile(const std::string& path, std::string& content, long maxSize);
};

} // namespace SDK
