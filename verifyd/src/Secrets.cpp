#include "Secrets.h"

#include <cstdint>
#include <cstdio>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace brackmoor::verifyd {
namespace {

std::string Hex(const unsigned char* bytes, std::size_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0f]);
    }
    return text;
}

} // namespace

std::string Sha256Hex(const std::string& text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return "";
    }
    return Hex(digest, length);
}

std::string NewToken()
{
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        return "";
    }
    std::string token = Hex(bytes, sizeof bytes);
    OPENSSL_cleanse(bytes, sizeof bytes);
    return token;
}

std::string NewCode()
{
    constexpr std::uint32_t codes = 1000000;
    constexpr std::uint32_t limit = (UINT32_MAX / codes) * codes; // 4 294 000 000
    std::uint32_t word = 0;
    do {
        if (RAND_bytes(reinterpret_cast<unsigned char*>(&word), sizeof word) != 1) {
            return "";
        }
    } while (word >= limit);
    char text[8];
    std::snprintf(text, sizeof text, "%06u", static_cast<unsigned>(word % codes));
    return text;
}

bool SameSecret(const std::string& a, const std::string& b)
{
    if (a.size() != b.size()) {
        return false;
    }
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace brackmoor::verifyd
