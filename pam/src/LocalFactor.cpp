#include "LocalFactor.h"

#include "Attempts.h"
#include "ClockSkew.h"
#include "Prompts.h"
#include "RecoveryCodes.h"

#include <cstring>
#include <ctime>
#include <pwd.h>

namespace brackmoor::pam {
namespace {

/// Checked in place of a secret for users who have none, so that their
/// wrong answers cost what everybody's do. Its codes are never accepted.
constexpr char kStandInSecret[] = "JBSWY3DPEHPK3PXPJBSWY3DPEHPK3PXP";

bool AccountExists(const std::string& user)
{
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    return getpwnam_r(user.c_str(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr;
}

} // namespace

int LocalFactor::Run(const std::string& user)
{
    const int settings = LoadSettings();
    if (settings != PAM_SUCCESS) {
        return settings;
    }
    OtpRecord record;
    const int loaded = LoadRecord(user, &record);
    store_.Close();
    if (loaded != PAM_SUCCESS) {
        return loaded;
    }
    if (!record.Enrolled() && settings_.allowUnenrolled) {
        user_.Warn(prompts::kNotEnrolledLetIn);
        log_.Warning(std::string("no authenticator secret; let in without a second factor (allow_unenrolled=1 in ") +
                     settingsFile_ + ")");
        return PAM_SUCCESS;
    }
    const std::int64_t locked = settings_.throttle.LockedFor(record, std::time(nullptr));
    if (locked > 0) {
        return Locked(locked);
    }
    accountExists_ = record.Enrolled() || AccountExists(user);
    SecretString typed;
    for (int attempt = 1; attempt <= kMaxTries; ++attempt) {
        const AnswerStatus answered = user_.Ask(prompts::kAuthenticatorCode, options_.echoCode, &typed);
        if (answered == AnswerStatus::Empty) {
            log_.Refused("empty answer to the authenticator code prompt");
            return PAM_AUTH_ERR;
        }
        if (answered == AnswerStatus::Failed) {
            log_.Refused("conversation failed at the authenticator code prompt");
            return PAM_CONV_ERR;
        }
        const Try checked = CheckTyped(user, typed.Text());
        switch (checked.outcome) {
        case Outcome::Accepted:
            return PAM_SUCCESS;
        case Outcome::Failed:
            return checked.result;
        case Outcome::Locked:
            return Locked(checked.lockedFor);
        case Outcome::Wrong:
        case Outcome::Reused:
            break;
        }
        const bool reused = checked.outcome == Outcome::Reused;
        user_.Warn(reused ? prompts::kAuthenticatorCodeUsed : prompts::kWrongAuthenticatorCode);
        log_.Rejected(std::string(reused            ? "authenticator code used before"
                                  : record.Enrolled() ? "wrong authenticator code"
                                                      : "no authenticator secret for this user") +
                      " (" + AttemptText(attempt) + ")");
    }
    user_.Refuse(prompts::kTooManyTries);
    log_.Refused(std::to_string(kMaxTries) + " wrong authenticator codes");
    return PAM_MAXTRIES;
}

int LocalFactor::LoadSettings()
{
    const SettingsStatus status = settings_.Load(settingsFile_);
    for (const std::string& problem : settings_.problems) {
        log_.Warning(problem);
    }
    if (status == SettingsStatus::Ok) {
        return PAM_SUCCESS;
    }
    user_.Refuse(prompts::kAuthenticatorUnavailable);
    log_.Unavailable(settingsFile_ + (status == SettingsStatus::Insecure
                                          ? ": not a regular file owned by root that only root may write"
                                          : std::string(": ") + std::strerror(settings_.lastError)));
    return PAM_AUTHINFO_UNAVAIL;
}

int LocalFactor::LoadRecord(const std::string& user, OtpRecord* record)
{
    // A name that cannot be a file name has no secret, like any other user without one.
    if (!IsStorableUserName(user)) {
        return PAM_SUCCESS;
    }
    StoreStatus status = store_.Open();
    storeOpen_ = status == StoreStatus::Ok;
    if (status == StoreStatus::Ok) {
        status = store_.Load(user, record);
    }
    return status == StoreStatus::Ok || status == StoreStatus::NotEnrolled ? PAM_SUCCESS : StoreFailed(status, "read");
}

LocalFactor::Try LocalFactor::CheckTyped(const std::string& user, const std::string& typed)
{
    OtpRecord record;
    const Try outcome = CheckUnderLock(user, typed, std::time(nullptr), &record);
    store_.Close();
    if (outcome.outcome == Outcome::Accepted) {
        log_.Accepted(acceptedBy_);
        if (recoveryCodeUsed_) {
            user_.Tell(prompts::kRecoveryCodeAccepted + std::to_string(record.recoveryHashes.size()) + ".");
        }
    }
    return outcome;
}

LocalFactor::Try LocalFactor::CheckUnderLock(const std::string& user, const std::string& typed, std::int64_t now,
                                             OtpRecord* record)
{
    const int loaded = LoadRecord(user, record);
    if (loaded != PAM_SUCCESS) {
        return {Outcome::Failed, loaded, 0};
    }
    // Another login may have reached the limit while this user was typing.
    const std::int64_t lockedBefore = settings_.throttle.LockedFor(*record, now);
    if (lockedBefore > 0) {
        return {Outcome::Locked, PAM_MAXTRIES, lockedBefore};
    }
    const OtpVerdict verdict = Verify(record, typed, now);
    if (verdict == OtpVerdict::BadSecret) {
        return {Outcome::Failed, StoreFailed(StoreStatus::Corrupt, "read"), 0};
    }
    if (verdict == OtpVerdict::Accepted) {
        Throttle::Clear(record);
    } else {
        settings_.throttle.CountFailure(record, now);
    }
    // Without the record of this code, or of this failure, the code could be
    // replayed or the limit dodged: a store that cannot be written refuses.
    const StoreStatus saved = storeOpen_ && accountExists_ ? store_.Save(user, *record) : StoreStatus::Ok;
    if (saved != StoreStatus::Ok) {
        return {Outcome::Failed, StoreFailed(saved, "record the outcome in"), 0};
    }
    if (verdict == OtpVerdict::Accepted) {
        return {Outcome::Accepted, PAM_SUCCESS, 0};
    }
    const std::int64_t locked = settings_.throttle.LockedFor(*record, now);
    const Outcome refused = locked > 0                        ? Outcome::Locked
                            : verdict == OtpVerdict::Reused ? Outcome::Reused
                                                            : Outcome::Wrong;
    return {refused, PAM_AUTH_ERR, locked};
}

OtpVerdict LocalFactor::Verify(OtpRecord* record, const std::string& typed, std::int64_t now)
{
    const OtpResult result = CheckCode(record, typed, now);
    if (result.verdict == OtpVerdict::Accepted) {
        (record->parameters.kind == OtpKind::Hotp ? record->counter : record->lastStep) =
            result.step + (record->parameters.kind == OtpKind::Hotp ? 1 : 0);
        acceptedBy_ = record->parameters.kind == OtpKind::Hotp ? "token code" : "authenticator code";
        return result.verdict;
    }
    if (result.verdict != OtpVerdict::Wrong) {
        return result.verdict;
    }
    const int recovery = FindRecoveryCode(record->recoveryHashes, typed);
    if (recovery < 0) {
        return OtpVerdict::Wrong;
    }
    record->recoveryHashes.erase(record->recoveryHashes.begin() + recovery);
    recoveryCodeUsed_ = true;
    acceptedBy_ = "recovery code; " + std::to_string(record->recoveryHashes.size()) + " left";
    return OtpVerdict::Accepted;
}

OtpResult LocalFactor::CheckCode(OtpRecord* record, const std::string& typed, std::int64_t now)
{
    const OtpParameters& parameters = record->parameters;
    const std::string standIn(kStandInSecret);
    const std::string& secret = record->Enrolled() ? record->secretBase32.Text() : standIn;
    if (parameters.kind == OtpKind::Hotp) {
        return CheckHotp(secret, parameters, record->counter, typed);
    }
    OtpResult result = CheckTotp(secret, parameters, now, record->offset, typed, record->lastStep);
    if (!record->Enrolled()) {
        return OtpResult{};
    }
    const bool tellsSkew =
        result.verdict == OtpVerdict::Accepted || (result.verdict == OtpVerdict::Wrong && result.skew != 0);
    if (!tellsSkew || skewNoted_) {
        return result;
    }
    skewNoted_ = true;
    if (NoteClockSkew(record, result.skew)) {
        log_.Notice("authenticator clock offset now " + std::to_string(record->offset) + " steps, after " +
                    std::to_string(kSkewLogins) + " logins off the same way");
        if (result.verdict == OtpVerdict::Wrong) {
            result = CheckTotp(secret, parameters, now, record->offset, typed, record->lastStep);
        }
    }
    return result;
}

int LocalFactor::Locked(std::int64_t seconds)
{
    const std::int64_t minutes = (seconds + 59) / 60;
    user_.Refuse(prompts::kTooManyWrongCodes + std::to_string(minutes) + (minutes == 1 ? " minute." : " minutes."));
    log_.Refused("too many wrong codes (" + std::to_string(settings_.throttle.maxFailures) + " within " +
                 std::to_string(settings_.throttle.windowSeconds) + " s); locked for another " +
                 std::to_string(seconds) + " s");
    return PAM_MAXTRIES;
}

int LocalFactor::StoreFailed(StoreStatus status, const char* step)
{
    const std::string where = std::string("could not ") + step + " the secret file in " + store_.Directory();
    user_.Refuse(prompts::kAuthenticatorUnavailable);
    switch (status) {
    case StoreStatus::Insecure:
        log_.Unavailable(where + ": directory or file not root-only (owner root, directory 0700, file 0600)");
        break;
    case StoreStatus::Corrupt:
        log_.Unavailable(where + ": not a valid secret file");
        break;
    case StoreStatus::NotEnrolled:
    case StoreStatus::BadUser:
    case StoreStatus::IoError:
    case StoreStatus::Ok:
        log_.Unavailable(where + ": " + std::strerror(store_.LastError()));
        break;
    }
    return PAM_AUTHINFO_UNAVAIL;
}

} // namespace brackmoor::pam
