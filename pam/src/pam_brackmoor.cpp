// Entry points of pam_brackmoor.so, the second factor of SSH logins.
//
// The module's line follows pam_unix in the agent's include file, with the
// control "sufficient" or "[success=1 default=ignore]": PAM_SUCCESS from here
// ends (or skips past the deny line of) the auth stack, and any other result
// leaves the login to the distribution's remaining lines, which deny it. So
// only a passed second factor, or a user on the exclusion list, may ever
// return PAM_SUCCESS; every other path returns a failure code:
//   PAM_AUTH_ERR          the password already failed, empty answer
//   PAM_MAXTRIES          three wrong contacts or codes; locked out after too many wrong codes
//   PAM_AUTHINFO_UNAVAIL  agent down, silent, untrusted or failing; secret store or setting file unusable
//   PAM_CONV_ERR          the conversation failed
//   PAM_SYSTEM_ERR        the module's own socket or random source failed
//   PAM_USER_UNKNOWN      no user name
// The module is built without exceptions: nothing can unwind into sshd.

#define PAM_SM_AUTH

#include "AuthLog.h"
#include "LocalFactor.h"
#include "ModuleOptions.h"
#include "PamConversation.h"
#include "ServiceFactor.h"

#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <syslog.h>

#define BRACKMOOR_PAM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using namespace brackmoor::pam;

const char* RemoteHost(pam_handle_t* pamh)
{
    const void* host = nullptr;
    if (pam_get_item(pamh, PAM_RHOST, &host) != PAM_SUCCESS) {
        return nullptr;
    }
    return static_cast<const char*>(host);
}

/// pam_unix records the result of its password check for its own setcred
/// (a pointer to the int result, under this name). The include file keeps it
/// "required", so a wrong password does not end the stack: without this
/// check the login would go on to ask for a second factor, and anyone who
/// can reach sshd and knows a registered contact could make the service send
/// codes and use up the agent's code limit. No record (another first factor,
/// or a pam_unix that keeps none) leaves the second factor as it is.
bool FirstFactorFailed(pam_handle_t* pamh)
{
    const void* recorded = nullptr;
    return pam_get_data(pamh, "unix_setcred_return", &recorded) == PAM_SUCCESS && recorded != nullptr &&
           *static_cast<const int*>(recorded) != PAM_SUCCESS;
}

int Authenticate(pam_handle_t* pamh, int flags, int argc, const char** argv)
{
    const ModuleOptions options = ParseModuleOptions(argc, argv);
    for (const std::string& problem : options.problems) {
        pam_syslog(pamh, LOG_WARNING, "%s", problem.c_str());
    }

    const char* user = nullptr;
    const int gotUser = pam_get_user(pamh, &user, nullptr);
    if (gotUser == PAM_CONV_AGAIN) {
        return PAM_INCOMPLETE;
    }
    AuthLog log(pamh, user, RemoteHost(pamh));
    if (gotUser != PAM_SUCCESS || user == nullptr || *user == '\0') {
        log.Refused("no user name");
        return PAM_USER_UNKNOWN;
    }
    if (FirstFactorFailed(pamh)) {
        log.Warning("first factor failed, second factor skipped");
        return PAM_AUTH_ERR;
    }
    if (options.IsExcluded(user)) {
        log.Excluded();
        return PAM_SUCCESS;
    }

    PamConversation conversation(pamh, (flags & PAM_SILENT) != 0);
    if (options.localMode) {
        return LocalFactor(options, conversation, log, kTotpDirectory, kSettingsFile).Run(user);
    }
    return ServiceFactor(options, conversation, log).Run();
}

} // namespace

BRACKMOOR_PAM_EXPORT int pam_sm_authenticate(pam_handle_t* pamh, int flags, int argc, const char** argv)
{
    return Authenticate(pamh, flags, argc, argv);
}

/// No credentials to set. PAM_SUCCESS rather than PAM_IGNORE: with the
/// "[success=1 default=ignore]" control an ignored setcred would fall through
/// to the deny line and fail the session after a successful login.
BRACKMOOR_PAM_EXPORT int pam_sm_setcred(pam_handle_t* /*pamh*/, int /*flags*/, int /*argc*/,
                                        const char** /*argv*/)
{
    return PAM_SUCCESS;
}
