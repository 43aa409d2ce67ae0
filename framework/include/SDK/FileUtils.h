#pragma once

#include <sys/types.h>

#include <string>

namespace SDK {

class FileUtils {
public:
    /// How ReplaceFile failed; the original file is untouched in every case.
    enum ReplaceResult {
        REPLACE_OK = 0,             ///< the new content is in place and on disk
        REPLACE_OPEN_FAILED = -1,   ///< no temporary file could be made beside the path
        REPLACE_WRITE_FAILED = -2,  ///< writing, syncing or renaming the new content failed
    };

    /// Copies `from` to `to`. Refuses (non-zero) a source that is not a
    /// regular file or is larger than `maxSize` bytes. The copy replaces `to`
    /// atomically, as ReplaceFile does, so a process that has the old file
    /// mapped (a PAM module inside sshd) keeps a valid copy. A new file gets
    /// mode 0644. 0 on success, non-zero (errno kept) on any failure.
    static int CopyFile(const std::string& from, const std::string& to, long maxSize);

    /// Removes `path`; 0 on success, -1 otherwise (errno kept).
    static int DeleteFile(const std::string& path);

    /// Reads the whole file into `content`; 0 on success.
    static int ReadFile(const std::string& path, std::string& content, long maxSize);

    /// Replaces the content of `path` so that at every instant (crash, kill,
    /// full disk) the path holds either the whole old or the whole new text:
    /// the text goes to a temporary file in the same directory that takes the
    /// original's owner, mode and SELinux label (`newFileMode` and the
    /// caller's owner when there is no original), is synced, renamed over the
    /// path, and the directory is synced. A symbolic link at `path` is
    /// replaced, never followed. errno tells why a failure happened.
    static ReplaceResult ReplaceFile(const std::string& path, const std::string& content, mode_t newFileMode = 0644);

    /// Removes the temporary files that ReplaceFile or CopyFile left beside
    /// `path` when the process was killed mid-way; the number removed.
    static int RemoveStaleTemporaries(const std::string& path);
};

} // namespace SDK
