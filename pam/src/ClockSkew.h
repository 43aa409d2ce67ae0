#pragma once

#include "OtpRecord.h"

namespace brackmoor::pam {

/// Logins in a row whose codes must be off in the same direction before
/// that skew becomes the user's clock offset.
constexpr std::size_t kSkewLogins = 3;

/// Notes the skew of one login's code (steps from the expected step; 0: on
/// time). Skew of one sign in kSkewLogins successive logins moves the
/// user's offset by the smallest of them, bounded to ±kMaxOffsetSteps; a
/// code on time or off the other way starts the count again. True when the
/// offset changed.
bool NoteClockSkew(OtpRecord* record, int skew);

} // namespace brackmoor::pam
