#include "SDK/DirUtils.h"

#include <cerrno>
#include <sys/stat.h>

namespace SDK {

bool DirUtils::IsDir(const std::string& path)
{
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int DirUtils::MakeDirs(const std::string& path, unsigned int mode)
{
    if (path.empty()) {
        errno = EINVAL;
        return -1;
    }
    // Create each prefix ending before a slash, then the whole path.
    std::string::size_type pos = 0;
    for (;;) {
        pos = path.find('/', pos + 1);
        const std::string prefix = path.substr(0, pos);
        if (::mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) {
            return -1;
        }
        if (pos == std::string::npos) {
            break;
        }
    }
    if (!IsDir(path)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

} // namespace SDK
