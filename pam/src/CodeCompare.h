#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace brackmoor::pam {

/// Compares two buffers in time that depends only on `size`, so that the
/// time a wrong guess takes tells nothing about how close it was.
bool ConstantTimeEqual(const char* a, const char* b, std::size_t size);

/// Where the digits of a typed code lie: the answer without surrounding
/// blanks, when that is 1 to `maxDigits` ASCII digits. Positions rather than
/// a copy, so that no unwiped copy of the code is made.
bool FindTypedDigits(const std::string& typed, std::size_t maxDigits, std::size_t* begin,
                     std::size_t* count);

/// True when the typed answer is the issued code. Both are taken as numbers
/// written without leading zeros (the agent's reply has lost them), rendered
/// at a fixed width and compared in constant time.
bool TypedCodeMatches(const std::string& typed, std::uint32_t issued);

} // namespace brackmoor::pam
