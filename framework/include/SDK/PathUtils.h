#pragma once

#include <string>

namespace SDK {

class PathUtils {
public:
    /// The last component of `path` ("a/b/c.cpp" -> "c.cpp"); `path` itself
    /// when it has no slash.
    static std::string GetFileNameFromPath(const std::string& path);

    /// Fills `out` with the agent's installation directory, ending with "/".
    /// 0 on success, -1 when none is configured.
    static int GetInstallationPath(std::string& out);
};

} // namespace SDK
