#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Engine {
namespace PamLine {

/// The module's line in the include file when pam_unix had a bracketed
/// "skip the next line" control, which the module line takes over.
extern const std::string skip_form;
/// The module's line in the include file otherwise.
extern const std::string sufficient_form;

/// Linux-PAM reads a configuration line into a 1024-byte buffer: with its
/// newline and the terminating NUL, a longer line is cut, and the cut-off
/// rest becomes a line of its own.
constexpr std::size_t max_line_length = 1022;
/// Longest user name a policy may exclude.
constexpr std::size_t max_user_name_length = 32;

/// The arguments that follow "pam_brackmoor.so" on the module line:
/// "refresh_time=R echo=E local=L" and, for a non-empty list,
/// " exclude_user_list=" with the names joined by ";".
std::string FormatArguments(int refreshTime, int echo, int local, const std::vector<std::string>& excludedUsers);

/// Whether the module line with `arguments` fits the PAM line in either form.
bool FitsPamLine(const std::string& arguments);

/// A name that can stand in the exclude list: the portable user-name set
/// [A-Za-z0-9._-] plus "@" and "$" of directory services, not starting with
/// "-", 1 to 32 bytes. Anything else could end the PAM argument (a blank),
/// split the list (";"), start a comment ("#") or a new line.
bool IsValidUserName(const std::string& name);

} // namespace PamLine
} // namespace Engine
