#include "LocalFactor.h"

#include "Attempts.h"
#include "Prompts.h"

#include <cstring>
#include <ctime>

namespace brackmoor::pam {

int LocalFactor::Run(const std::string& user)
{
    {
        // Refuse before asking anything when the user cannot pass at all.
        TotpRecord record;
        const int usable = LoadRecord(user, &record);
        store_.Close();
        if (usable != PAM_SUCCESS) {
            return usable;
        }
    }
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
        TotpVerdict verdict = TotpVerdict::Wrong;
        const int checked = CheckTyped(user, typed.Text(), &verdict);
        if (checked != PAM_SUCCESS || verdict == TotpVerdict::Accepted) {
            return checked;
        }
        const bool reused = verdict == TotpVerdict::Reused;
        user_.Warn(reused ? prompts::kAuthenticatorCodeUsed : prompts::kWrongAuthenticatorCode);
        log_.Rejected(std::string(reused ? "authenticator code used before" : "wrong authenticator code") +
                      " (" + AttemptText(attempt) + ")");
    }
    user_.Refuse(prompts::kTooManyTries);
    log_.Refused(std::to_string(kMaxTries) + " wrong authenticator codes");
    return PAM_MAXTRIES;
}

int LocalFactor::LoadRecord(const std::string& user, TotpRecord* record)
{
    if (!IsStorableUserName(user)) {
        return StoreFailed(StoreStatus::BadUser, "read");
    }
    StoreStatus status = store_.Open();
    if (status == StoreStatus::Ok) {
        status = store_.Load(user, record);
    }
    return status == StoreStatus::Ok ? PAM_SUCCESS : StoreFailed(status, "read");
}

int LocalFactor::CheckTyped(const std::string& user, const std::string& typed, TotpVerdict* verdict)
{
    TotpRecord record;
    const int loaded = LoadRecord(user, &record);
    if (loaded != PAM_SUCCESS) {
        store_.Close();
        return loaded;
    }
    const TotpResult result = CheckTotp(record.secretBase32.Text(), std::time(nullptr), typed, record.lastStep);
    *verdict = result.verdict;
    int outcome = PAM_SUCCESS;
    if (result.verdict == TotpVerdict::BadSecret) {
        outcome = StoreFailed(StoreStatus::Corrupt, "read");
    } else if (result.verdict == TotpVerdict::Accepted) {
        // Without the record of this step the code could be replayed: refuse.
        record.lastStep = result.step;
        const StoreStatus saved = store_.Save(user, record);
        outcome = saved == StoreStatus::Ok ? PAM_SUCCESS : StoreFailed(saved, "record the used code in");
        if (outcome == PAM_SUCCESS) {
            log_.Accepted("authenticator code");
        }
    }
    store_.Close();
    return outcome;
}

int LocalFactor::StoreFailed(StoreStatus status, const char* step)
{
    const std::string where = std::string("could not ") + step + " the secret file in " + store_.Directory();
    switch (status) {
    case StoreStatus::NotEnrolled:
    case StoreStatus::BadUser:
        user_.Refuse(prompts::kNotEnrolled);
        log_.Refused("no authenticator secret for this user in " + store_.Directory());
        return PAM_AUTH_ERR;
    case StoreStatus::Insecure:
        user_.Refuse(prompts::kAuthenticatorUnavailable);
        log_.Unavailable(where + ": directory or file not root-only (owner root, directory 0700, file 0600)");
        return PAM_AUTHINFO_UNAVAIL;
    case StoreStatus::Corrupt:
        user_.Refuse(prompts::kAuthenticatorUnavailable);
        log_.Unavailable(where + ": not a valid secret file");
        return PAM_AUTHINFO_UNAVAIL;
    case StoreStatus::IoError:
    case StoreStatus::Ok:
        break;
    }
    user_.Refuse(prompts::kAuthenticatorUnavailable);
    log_.Unavailable(where + ": " + std::strerror(store_.LastError()));
    return PAM_AUTHINFO_UNAVAIL;
}

} // namespace brackmoor::pam
