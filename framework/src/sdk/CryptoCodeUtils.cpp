#include "SDK/CryptoCodeUtils.h"

#include <memory>

#include <openssl/evp.h>

namespace SDK {

namespace {

/// SHA-256 fetched from the default provider once per process; fetching is
/// a provider lookup under a lock, too costly to repeat for every digest.
const EVP_MD* Sha256()
{
    static EVP_MD* const md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return md;
}

struct ContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

/// One digest context per thread, reset by each EVP_DigestInit_ex2.
EVP_MD_CTX* ThreadContext()
{
    thread_local std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
    return context.get();
}

} // namespace

int CryptoCodeUtils::GetStrSha256(const std::string& text, std::string& digest, long maxLength)
{
    if (maxLength < 0 || text.size() > static_cast<unsigned long>(maxLength)) {
        return -1;
    }
    const EVP_MD* md = Sha256();
    EVP_MD_CTX* context = ThreadContext();
    unsigned char raw[EVP_MAX_MD_SIZE];
    unsigned int rawLength = 0;
    if (md == nullptr || context == nullptr || EVP_DigestInit_ex2(context, md, nullptr) != 1 ||
        EVP_DigestUpdate(context, text.data(), text.size()) != 1 ||
        EVP_DigestFinal_ex(context, raw, &rawLength) != 1) {
        return -1;
    }
    static const char kHex[] = "0123456789abcdef";
    std::string hex(rawLength * 2, '\0');
    for (unsigned int i = 0; i < rawLength; ++i) {
        hex[2 * i] = kHex[raw[i] >> 4];
        hex[2 * i + 1] = kHex[raw[i] & 0x0f];
    }
    digest = std::move(hex);
    return 0;
}

} // namespace SDK
