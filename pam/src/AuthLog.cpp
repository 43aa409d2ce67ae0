#include "AuthLog.h"

#include <security/pam_ext.h>
#include <syslog.h>

namespace brackmoor::pam {
namespace {

constexpr std::size_t kMaxLoggedName = 128;

} // namespace

std::string Printable(const char* text)
{
    if (text == nullptr || *text == '\0') {
        return "(unknown)";
    }
    std::string out;
    for (const char* p = text; *p != '\0' && out.size() < kMaxLoggedName; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        out.push_back(c > 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
    }
    return out;
}

AuthLog::AuthLog(pam_handle_t* pamh, const char* user, const char* remoteHost)
    : pamh_(pamh), who_("user=" + Printable(user) + " rhost=" + Printable(remoteHost))
{
}

void AuthLog::Accepted(const std::string& how)
{
    Write(LOG_NOTICE, "second factor accepted (" + how + ")");
}

void AuthLog::Rejected(const std::string& reason)
{
    Write(LOG_WARNING, "second factor rejected: " + reason);
}

void AuthLog::Refused(const std::string& reason)
{
    Write(LOG_WARNING, "login refused: " + reason);
}

void AuthLog::Unavailable(const std::string& reason)
{
    Write(LOG_ERR, "login refused, second factor unavailable: " + reason);
}

void AuthLog::Excluded()
{
    Write(LOG_NOTICE, "user is excluded from the second factor; accepted without it");
}

void AuthLog::Notice(const std::string& text)
{
    Write(LOG_NOTICE, text);
}

void AuthLog::Warning(const std::string& text)
{
    Write(LOG_WARNING, text);
}

void AuthLog::Write(int priority, const std::string& text)
{
    pam_syslog(pamh_, priority, "%s %s", who_.c_str(), text.c_str());
}

} // namespace brackmoor::pam
