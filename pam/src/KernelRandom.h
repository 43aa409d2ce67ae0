#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace brackmoor::pam {

/// Fills `size` bytes from the kernel's random source (getrandom(2)); waits
/// for the pool to be initialised rather than ever returning weaker bytes.
/// False only when the kernel refuses.
bool FillRandom(void* data, std::size_t size);

/// A uniformly chosen number in [low, high], or nothing when the kernel's
/// random source fails.
std::optional<std::uint32_t> RandomInRange(std::uint32_t low, std::uint32_t high);

} // namespace brackmoor::pam
