#pragma once

#include <string>
#include <vector>

namespace Engine {

/// The settings a policy document carries, with the defaults of absent ones.
struct PolicySettings {
    int refreshTime = 300;  ///< seconds a fetched contact list stays fresh
    int echo = 1;           ///< 1: the PAM module echoes the typed code
    int local = 1;          ///< 1: codes are checked on the host, no IPC server
    std::vector<std::string> excludeUserList;  ///< users without a second factor
};

/// Why a document is refused.
enum class PolicyFault {
    None,           ///< accepted
    NotJson,        ///< the text is not JSON
    NoContent,      ///< no "content" object
    NoUserList,     ///< no "exclude_user_list" array in it
    InvalidUser,    ///< a name that cannot stand in the module's PAM arguments
    LineTooLong,    ///< the module line would be longer than PAM reads
};

/// Reads a policy document without side effects, exactly as the module
/// accepts it: {"content": {"refresh_time", "echo", "local",
/// "exclude_user_list"}}; numbers default when absent or not integers, list
/// elements are trimmed and blank or non-string ones skipped. `settings`
/// holds what was read up to the fault; `badIndex` the array index of an
/// invalid user name.
PolicyFault ReadPolicyDocument(const std::string& text, PolicySettings& settings, unsigned int& badIndex);

} // namespace Engine
