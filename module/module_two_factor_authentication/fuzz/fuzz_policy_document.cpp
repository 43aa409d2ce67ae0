// libFuzzer target: the policy document. The module's parser must agree with
// the side-effect-free reader, and an accepted document must give a module
// line that fits what Linux-PAM reads and whose arguments split back into
// exactly the settings and users it was made from.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzTask.h"
#include "TwoFactorAuthenticationNames.h"
#include "TwoFactorAuthenticationPamLine.h"
#include "TwoFactorAuthenticationPolicy.h"
#include "TwoFactorAuthenticationPolicyDocument.h"

using namespace Engine;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::Task();  // quiets the module log
    const std::string text(reinterpret_cast<const char*>(data), size);
    PolicySettings settings;
    unsigned int badIndex = 0;
    const PolicyFault fault = ReadPolicyDocument(text, settings, badIndex);
    TwoFactorAuthenticationPolicy policy(two_factor_authentication_feature);
    const bool accepted = policy.Parse(text);
    if (accepted != (fault == PolicyFault::None)) {
        __builtin_trap();
    }
    if (!accepted) {
        return 0;
    }
    const std::vector<std::string> excluded = policy.GetExcludeUserList();
    const std::string arguments =
        PamLine::FormatArguments(policy.GetRefreshTime(), policy.GetEcho(), policy.GetLocal(), excluded);
    std::vector<std::string> fields;
    std::vector<std::string> users;
    SDK::StrUtils::Split(arguments, " \t", fields);
    if (fields.size() == 4 && fields[3].compare(0, 18, "exclude_user_list=") == 0) {
        SDK::StrUtils::Split(fields[3].substr(18), ";", users);
    }
    if (PamLine::skip_form.size() + arguments.size() > PamLine::max_line_length || users != excluded ||
        fields.size() != (excluded.empty() ? 3u : 4u) || excluded != settings.excludeUserList ||
        fields[0] != "refresh_time=" + std::to_string(settings.refreshTime)) {
        __builtin_trap();
    }
    return 0;
}
