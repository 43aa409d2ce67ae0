#pragma once

#include "OtpRecord.h"
#include "brackmoor/UniqueFd.h"

#include <string>

namespace brackmoor::pam {

/// Where the per-user authenticator secrets live.
constexpr char kTotpDirectory[] = "/etc/brackmoor/totp";

/// Outcome of a store operation.
enum class StoreStatus {
    Ok,          ///< done
    NotEnrolled, ///< the user has no secret file
    Insecure,    ///< the directory or the file is not root-only; refused unread
    Corrupt,     ///< the file is not a valid record
    BadUser,     ///< the user name cannot safely name a file
    IoError,     ///< the file system failed (see LastError)
};

/// The root-only directory of authenticator secrets, one file per user
/// named after the user, in the format of FormatOtpRecord.
///
/// The directory must be owned by root with no group or other permissions,
/// each file owned by root with mode 0600; anything else is refused, since a
/// secret others could read or write is no second factor. Files are replaced
/// atomically (write, fsync, rename), and an open store holds an exclusive
/// lock on the directory so that two logins cannot both accept one code.
/// The lock is held only for a read-check-write, never while a user types.
class TotpStore {
public:
    explicit TotpStore(std::string directory) : directory_(std::move(directory)) {}

    /// Creates the directory (and its parent) root-only when it is missing;
    /// used by enrolment only, the module never creates it.
    StoreStatus CreateDirectory();

    /// Opens the directory, checks that it is root-only and takes its lock.
    StoreStatus Open();

    /// Releases the lock.
    void Close() { directoryFd_.Reset(); }

    /// NotEnrolled when the user has no file; a file without a secret is Ok.
    StoreStatus Load(const std::string& user, OtpRecord* record);
    StoreStatus Save(const std::string& user, const OtpRecord& record);
    StoreStatus Remove(const std::string& user);

    const std::string& Directory() const { return directory_; }
    /// errno behind the last IoError.
    int LastError() const { return lastError_; }

private:
    StoreStatus Fail(int error);

    std::string directory_;
    UniqueFd directoryFd_;
    int lastError_ = 0;
};

/// A user name that can be a file name in the store: 1 to 255 characters of
/// letters, digits, ".", "_", "-", "@" and "$", not starting with "." or "-".
bool IsStorableUserName(const std::string& user);

} // namespace brackmoor::pam
