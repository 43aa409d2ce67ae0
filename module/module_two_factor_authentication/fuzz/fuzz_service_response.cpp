// libFuzzer target: a verification service's response body, read for the
// contact list alone and for a code. Both readings keep the same list of at
// most 32 trimmed entries, a list is stamped (and so used) only when it was
// accepted, and a code is never taken from a response whose list was refused.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzTask.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Engine::TwoFactorAuthenticationTask& task = Fuzz::Task();
    const std::string body(reinterpret_cast<const char*>(data), size);
    bool result[2] = {false, false};
    bool stamped[2] = {false, false};
    std::vector<std::string> lists[2];
    for (int wantCode = 0; wantCode < 2; ++wantCode) {
        int code = 0;
        task.commList = {"stale"};
        task.commListUpdateTime = 0;
        result[wantCode] = task.ParseResponseBody(body, wantCode == 1, &code);
        stamped[wantCode] = task.commListUpdateTime != 0;
        lists[wantCode] = task.commList;
    }
    if (lists[0].size() > 32 || lists[1] != lists[0] || stamped[0] != result[0] || stamped[1] != result[0] ||
        (result[1] && !result[0])) {
        __builtin_trap();
    }
    for (const std::string& entry : lists[0]) {
        std::string trimmed = entry;
        SDK::StrUtils::Trim(trimmed);
        if (trimmed != entry) {
            __builtin_trap();
        }
    }
    return 0;
}
