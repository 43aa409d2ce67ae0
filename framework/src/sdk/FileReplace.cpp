#include "FileReplace.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "brackmoor/UniqueFd.h"

namespace SDK {

using brackmoor::UniqueFd;

namespace {

const char kSelinuxAttribute[] = "security.selinux";
// Marks our temporary files, so that only they are removed after a crash.
const char kTemporaryInfix[] = ".brackmoor-new.";

/// What the new file inherits from the one it replaces.
struct Inherited {
    uid_t owner;
    gid_t group;
    mode_t mode;
    std::vector<char> label;  ///< the SELinux label, empty when there is none
};

std::string DirectoryOf(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// The original's owner, mode and label; the caller's owner and `newFileMode`
/// when the path is absent or a symbolic link (which is replaced, not followed).
int ReadInherited(const std::string& path, mode_t newFileMode, Inherited& out)
{
    out = Inherited{::geteuid(), ::getegid(), newFileMode, {}};
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    if (S_ISLNK(st.st_mode)) {
        return 0;
    }
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    out.owner = st.st_uid;
    out.group = st.st_gid;
    out.mode = st.st_mode & 07777;
    const ssize_t size = ::lgetxattr(path.c_str(), kSelinuxAttribute, nullptr, 0);
    if (size > 0) {
        out.label.resize(static_cast<size_t>(size));
        const ssize_t read = ::lgetxattr(path.c_str(), kSelinuxAttribute, out.label.data(), out.label.size());
        out.label.resize(read > 0 ? static_cast<size_t>(read) : 0);
    }
    return 0;
}

int ApplyInherited(int fd, const Inherited& inherited)
{
    if (::fchown(fd, inherited.owner, inherited.group) != 0 || ::fchmod(fd, inherited.mode) != 0) {
        return -1;
    }
    if (!inherited.label.empty() &&
        ::fsetxattr(fd, kSelinuxAttribute, inherited.label.data(), inherited.label.size(), 0) != 0 &&
        errno != ENOTSUP) {
        return -1;
    }
    return 0;
}

/// The rename is only durable once the directory entry is on disk too.
int SyncDirectory(const std::string& dir)
{
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid() || ::fsync(fd.Get()) != 0) {
        return -1;
    }
    return fd.Reset();
}

} // namespace

std::string FileReplace::TemporaryPrefix(const std::string& path)
{
    // Hidden, and named after the file it replaces, so that no tool that
    // reads a whole directory (PAM reads /etc/pam.d) takes it for a real file
    // of its own, and a leftover can be told apart from everything else.
    return "." + BaseNameOf(path) + kTemporaryInfix;
}

int FileReplace::Replace(const std::string& path, mode_t newFileMode, const Filler& fill)
{
    Inherited inherited;
    if (path.empty() || BaseNameOf(path).empty()) {
        errno = EINVAL;
        return -1;
    }
    if (ReadInherited(path, newFileMode, inherited) != 0) {
        return -1;
    }
    const std::string dir = DirectoryOf(path);
    std::string temp = dir + "/" + TemporaryPrefix(path) + "XXXXXX";
    UniqueFd fd(::mkostemp(&temp[0], O_CLOEXEC));
    if (!fd.Valid()) {
        return -1;
    }
    const bool replaced = ApplyInherited(fd.Get(), inherited) == 0 && fill(fd.Get()) == 0 &&
                          ::fsync(fd.Get()) == 0 && fd.Reset() == 0 &&
                          ::rename(temp.c_str(), path.c_str()) == 0;
    if (!replaced) {
        const int saved = errno;
        ::unlink(temp.c_str());
        errno = saved;
        return -2;
    }
    // The new content is in place whatever the directory sync says: a caller
    // that took a failure here for "the old file is still there" would roll
    // back against a file that did change. The sync only adds durability.
    SyncDirectory(dir);
    return 0;
}

int FileReplace::RemoveStale(const std::string& path)
{
    const std::string dir = DirectoryOf(path);
    const std::string prefix = TemporaryPrefix(path);
    DIR* listing = ::opendir(dir.c_str());
    if (listing == nullptr) {
        return 0;
    }
    std::vector<std::string> stale;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        // mkostemp appends exactly six characters.
        if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) {
            stale.push_back(dir + "/" + name);
        }
    }
    ::closedir(listing);
    int removed = 0;
    for (const std::string& file : stale) {
        struct stat st {};
        if (::lstat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::unlink(file.c_str()) == 0) {
            ++removed;
        }
    }
    return removed;
}

} // namespace SDK
