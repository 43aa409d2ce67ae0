#include "KernelRandom.h"

#include <cerrno>
#include <sys/random.h>

namespace brackmoor::pam {

bool FillRandom(void* data, std::size_t size)
{
    unsigned char* out = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t got = getrandom(out, size, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        out += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

std::optional<std::uint32_t> RandomInRange(std::uint32_t low, std::uint32_t high)
{
    if (high < low) {
        return std::nullopt;
    }
    const std::uint64_t span = static_cast<std::uint64_t>(high) - low + 1;
    // Reject the top of the 32-bit range that would favour small results.
    const std::uint64_t limit = (std::uint64_t{1} << 32) - ((std::uint64_t{1} << 32) % span);
    for (;;) {
        std::uint32_t draw = 0;
        if (!FillRandom(&draw, sizeof draw)) {
            return std::nullopt;
        }
        if (draw < limit) {
            return static_cast<std::uint32_t>(low + draw % span);
        }
    }
}

} // namespace brackmoor::pam
