// libFuzzer target: a verification service's response body, read for the
// contact list alone and for a code. Both readings keep the same list of at
// most 32 trimmed entries, a list is stamped (and so used) only when it was
// accepted, and a code is never taken from a response whose list was refused.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzTask.h"

namespace {

// Reads `body` over a stale list; whether the list was accepted (stamped).
bool ListAccepted(Engine::TwoFactorAuthenticationTask& task, const std::string& body, bool wantCode, bool& result)
{
    int code = 0;
    task.commList = {"stale"};
    task.commListUpdateTime = 0;
    result = task.ParseResponseBody(body, wantCode, &code);
    if (task.commList.size() > 32) {
        __builtin_trap();
    }
    return task.commListUpdateTime != 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Engine::TwoFactorAuthenticationTask& task = Fuzz::Task();
    const std::string body(reinterpret_cast<const char*>(data), size);
    bool listed = false;
    bool coded = false;
    if (ListAccepted(task, body, false, listed) != listed) {
        __builtin_trap();
    }
    const std::vector<std::string> list = task.commList;
    if (ListAccepted(task, body, true, coded) != listed || task.commList != list || (coded && !listed)) {
        __builtin_trap();
    }
    for (const std::string& entry : list) {
        std::string trimmed = entry;
        SDK::StrUtils::Trim(trimmed);
        if (trimmed != entry) {
            __builtin_trap();
        }
    }
    return 0;
}
