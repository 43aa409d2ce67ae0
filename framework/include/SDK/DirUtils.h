#pragma once

#include <string>

namespace SDK {

class DirUtils {
public:
    /// True when `path` names a directory (symbolic links followed).
    static bool IsDir(const std::string& path);
    /// Creates `path` and its parents with `mode`; 0 on success or when it exists.
    static int MakeDirs(const std::string& path, unsigned int mode);
};

} // namespace SDK
