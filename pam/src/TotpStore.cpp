#include "TotpStore.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brackmoor::pam {
namespace {

constexpr std::size_t kMaxUserName = 255;
constexpr off_t kMaxRecordBytes = 4096;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;

bool IsRootOnlyDirectory(const struct stat& info)
{
    return S_ISDIR(info.st_mode) && info.st_uid == 0 && (info.st_mode & 077) == 0;
}

bool IsRootOnlyFile(const struct stat& info)
{
    return S_ISREG(info.st_mode) && info.st_uid == 0 && (info.st_mode & 07777) == kFileMode;
}

bool WriteAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(wrote);
    }
    return true;
}

bool MakeDirectory(const std::string& path, mode_t mode)
{
    return ::mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

} // namespace

bool IsStorableUserName(const std::string& user)
{
    if (user.empty() || user.size() > kMaxUserName || user[0] == '.' || user[0] == '-') {
        return false;
    }
    for (char c : user) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '.' || c == '_' || c == '-' || c == '@' || c == '$';
        if (!ok) {
            return false;
        }
    }
    return true;
}

StoreStatus TotpStore::Fail(int error)
{
    lastError_ = error;
    return StoreStatus::IoError;
}

StoreStatus TotpStore::CreateDirectory()
{
    const std::size_t slash = directory_.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !MakeDirectory(directory_.substr(0, slash), 0755)) {
        return Fail(errno);
    }
    return MakeDirectory(directory_, kDirectoryMode) ? StoreStatus::Ok : Fail(errno);
}

StoreStatus TotpStore::Open()
{
    UniqueFd fd(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.Valid()) {
        // A store that was never created holds no enrolment.
        return errno == ENOENT ? StoreStatus::NotEnrolled : Fail(errno);
    }
    struct stat info {};
    if (::fstat(fd.Get(), &info) != 0) {
        return Fail(errno);
    }
    if (!IsRootOnlyDirectory(info)) {
        return StoreStatus::Insecure;
    }
    while (::flock(fd.Get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return Fail(errno);
        }
    }
    directoryFd_ = std::move(fd);
    return StoreStatus::Ok;
}

StoreStatus TotpStore::Load(const std::string& user, OtpRecord* record)
{
    if (!IsStorableUserName(user)) {
        return StoreStatus::BadUser;
    }
    // O_NONBLOCK: a FIFO planted under the name must not hang the login.
    UniqueFd fd(::openat(directoryFd_.Get(), user.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.Valid()) {
        if (errno == ENOENT) {
            return StoreStatus::NotEnrolled;
        }
        return errno == ELOOP ? StoreStatus::Insecure : Fail(errno);
    }
    struct stat info {};
    if (::fstat(fd.Get(), &info) != 0) {
        return Fail(errno);
    }
    if (!IsRootOnlyFile(info)) {
        return StoreStatus::Insecure;
    }
    if (info.st_size > kMaxRecordBytes) {
        return StoreStatus::Corrupt;
    }
    char buffer[kMaxRecordBytes];
    std::size_t total = 0;
    while (total < sizeof buffer) {
        const ssize_t got = ::read(fd.Get(), buffer + total, sizeof buffer - total);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            WipeBytes(buffer, sizeof buffer);
            return Fail(errno);
        }
        if (got == 0) {
            break;
        }
        total += static_cast<std::size_t>(got);
    }
    SecretString text;
    text.Assign(buffer, total);
    WipeBytes(buffer, sizeof buffer);
    return ParseOtpRecord(text.Text(), record) ? StoreStatus::Ok : StoreStatus::Corrupt;
}

StoreStatus TotpStore::Save(const std::string& user, const OtpRecord& record)
{
    if (!IsStorableUserName(user)) {
        return StoreStatus::BadUser;
    }
    // User names never start with '.', so the temporary cannot collide with one.
    const std::string temporary = "." + user + ".new";
    UniqueFd fd(::openat(directoryFd_.Get(), temporary.c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!fd.Valid()) {
        return Fail(errno);
    }
    const SecretString text(FormatOtpRecord(record));
    const bool written = ::fchmod(fd.Get(), kFileMode) == 0 && WriteAll(fd.Get(), text.Text()) &&
                         ::fsync(fd.Get()) == 0;
    const int error = errno;
    fd.Reset();
    if (!written || ::renameat(directoryFd_.Get(), temporary.c_str(), directoryFd_.Get(), user.c_str()) != 0) {
        const int failure = written ? errno : error;
        ::unlinkat(directoryFd_.Get(), temporary.c_str(), 0);
        return Fail(failure);
    }
    ::fsync(directoryFd_.Get());
    return StoreStatus::Ok;
}

StoreStatus TotpStore::Remove(const std::string& user)
{
    if (!IsStorableUserName(user)) {
        return StoreStatus::BadUser;
    }
    if (::unlinkat(directoryFd_.Get(), user.c_str(), 0) != 0) {
        return errno == ENOENT ? StoreStatus::NotEnrolled : Fail(errno);
    }
    ::fsync(directoryFd_.Get());
    return StoreStatus::Ok;
}

} // namespace brackmoor::pam
