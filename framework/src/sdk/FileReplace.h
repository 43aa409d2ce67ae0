#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace SDK {

/// Writes new content for a path beside it and moves it into place in one
/// rename, so that readers only ever see the old or the new file.
class FileReplace {
public:
    /// Fills the temporary file through its descriptor; 0 or -1 (errno set).
    using Filler = std::function<int(int fd)>;

    /// -1 when no temporary file could be created (errno set), -2 when
    /// filling, syncing or renaming failed (errno set), 0 on success.
    static int Replace(const std::string& path, mode_t newFileMode, const Filler& fill);

    /// The prefix every temporary file for `path` starts with.
    static std::string TemporaryPrefix(const std::string& path);

    /// Removes leftovers of an earlier, interrupted Replace; how many.
    static int RemoveStale(const std::string& path);
};

} // namespace SDK
