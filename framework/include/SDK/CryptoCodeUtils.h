#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    /// Lower-case hex SHA-256 of `text` into `digest`. 0 on success; non-zero
    /// (digest untouched) when `text` is longer than `maxLength` bytes or the
    /// digest fails. The digest algorithm is fetched once per process and
    /// each thread reuses one context.
    static int GetStrSha256(const std::string& text, std::string& digest, long maxLength);
};

} // namespace SDK
