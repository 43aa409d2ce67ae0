#include "TwoFactorAuthenticationPamLine.h"

#include <algorithm>

namespace Engine {
namespace PamLine {

const std::string skip_form = "auth [success=1 default=ignore] pam_brackmoor.so ";
const std::string sufficient_form = "auth sufficient pam_brackmoor.so ";

std::string FormatArguments(int refreshTime, int echo, int local, const std::vector<std::string>& excludedUsers)
{
    std::string arguments = "refresh_time=" + std::to_string(refreshTime) + " echo=" + std::to_string(echo) +
                            " local=" + std::to_string(local);
    for (std::size_t i = 0; i < excludedUsers.size(); ++i) {
        arguments += (i == 0) ? " exclude_user_list=" : ";";
        arguments += excludedUsers[i];
    }
    return arguments;
}

bool FitsPamLine(const std::string& arguments)
{
    const std::size_t longestForm = std::max(skip_form.size(), sufficient_form.size());
    return longestForm + arguments.size() <= max_line_length;
}

bool IsValidUserName(const std::string& name)
{
    if (name.empty() || name.size() > max_user_name_length || name[0] == '-') {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-' || c == '@' || c == '$';
    });
}

} // namespace PamLine
} // namespace Engine
