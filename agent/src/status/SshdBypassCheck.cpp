#include "SshdBypassCheck.h"

#include <vector>

#include "SshdSettingsReader.h"
#include "TextFile.h"

namespace Agent {

namespace {

const char* const kSubject = "sshd -T";

std::string Value(const std::map<std::string, std::string>& settings, const std::string& keyword)
{
    auto found = settings.find(keyword);
    return found == settings.end() ? "" : found->second;
}

bool RootExcluded(const std::string& moduleArguments)
{
    for (const std::string& argument : TextFile::Fields(moduleArguments)) {
        if (argument.compare(0, 18, "exclude_user_list=") != 0) {
            continue;
        }
        std::string::size_type start = 18;
        while (start <= argument.size()) {
            const std::string::size_type end = std::min(argument.find(';', start), argument.size());
            if (argument.compare(start, end - start, "root") == 0) {
                return true;
            }
            start = end + 1;
        }
    }
    return false;
}

} // namespace

CheckResults SshdBypassCheck::Inspect(const StatusPaths& paths, const std::map<std::string, std::string>& settings,
                                      const std::string& moduleArguments, const std::string& user)
{
    if (settings.empty()) {
        return {};
    }
    SshdSettingsReader reader(paths.root);
    reader.Read(paths.sshdConfig);
    const std::string scope = user.empty() ? "" : " for " + user;
    // Where the value sshd uses comes from, so that the finding names the line to change.
    const auto origin = [&](const std::string& keyword) {
        const SshdSetting setting = reader.Get(keyword);
        return setting.found ? setting.file + ":" + std::to_string(setting.line)
                             : std::string("sshd's default (no line sets it)");
    };
    const auto warn = [&](const std::string& keyword, const std::string& text) {
        return CheckResult{CheckLevel::Warning, kSubject, keyword + " " + Value(settings, keyword) + scope + ", from " +
                                                              origin(keyword) + ": " + text};
    };

    CheckResults results;
    if (Value(settings, "pubkeyauthentication") == "yes" && Value(settings, "authenticationmethods") == "any") {
        results.push_back(warn("pubkeyauthentication",
                               "a key alone logs in, without the second factor; set \"AuthenticationMethods "
                               "publickey,keyboard-interactive\" for a key plus the second factor, or "
                               "\"PubkeyAuthentication no\""));
    }
    if (Value(settings, "passwordauthentication") == "yes" && Value(settings, "usepam") == "yes") {
        // sshd's password method runs the same PAM stack, but answers only
        // hidden prompts (with the password itself) and fails the others.
        results.push_back({CheckLevel::Info, kSubject,
                           "passwordauthentication yes" + scope + ", from " + origin("passwordauthentication") +
                               ": the password method runs the same PAM stack, whose second factor it cannot "
                               "answer, so only excluded users get in that way (with the password alone); set "
                               "\"PasswordAuthentication no\" to leave keyboard-interactive the only password login"});
    }
    const std::string rootLogin = Value(settings, "permitrootlogin");
    if (RootExcluded(moduleArguments) && rootLogin == "yes") {
        results.push_back(warn("permitrootlogin",
                               "root is excluded from the second factor and may log in with its password alone; set "
                               "\"PermitRootLogin prohibit-password\" or \"PermitRootLogin no\""));
    }
    const std::pair<const char*, const char*> others[] = {
        {"gssapiauthentication", "a Kerberos ticket logs in without the PAM auth stack, so without the second factor; "
                                 "set \"GSSAPIAuthentication no\""},
        {"hostbasedauthentication", "a trusted host's key logs in without the PAM auth stack, so without the second "
                                    "factor; set \"HostbasedAuthentication no\""},
        {"kerberosauthentication", "passwords are checked with Kerberos before PAM, so a right password logs in "
                                   "without the second factor; set \"KerberosAuthentication no\""},
    };
    for (const auto& other : others) {
        if (Value(settings, other.first) == "yes") {
            results.push_back(warn(other.first, other.second));
        }
    }
    return results;
}

} // namespace Agent
