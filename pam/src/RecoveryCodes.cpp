#include "RecoveryCodes.h"

#include "CodeCompare.h"
#include "KernelRandom.h"
#include "OtpRecord.h"
#include "SecretString.h"

#include <crypt.h>
#include <cstring>
#include <memory>

namespace brackmoor::pam {
namespace {

/// yescrypt at its lowest cost: a wrong answer costs ten of these under the
/// store's lock, and a code's 27 bits are guarded mainly by the root-only file.
constexpr unsigned long kHashCost = 1;
constexpr std::size_t kSaltBytes = 16;
/// A hash of the same kind and cost for the slots of used or missing codes.
constexpr char kPaddingHash[] = "$y$j75$ZKkCYuEo4/Qgnig8rlPkW.$6t.j.QGjBhAxjVbeCi5kI8kqkT/JFVn5MHDaV/4v9H6";

bool HashCode(const std::string& code, std::string* hash)
{
    unsigned char random[kSaltBytes];
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    const bool salted = FillRandom(random, sizeof random) &&
                        crypt_gensalt_rn("$y$", kHashCost, reinterpret_cast<const char*>(random), sizeof random,
                                         setting, sizeof setting) != nullptr;
    const auto work = std::make_unique<crypt_data>();
    const char* made = salted ? crypt_r(code.c_str(), setting, work.get()) : nullptr;
    if (made == nullptr || made[0] == '*') {
        return false;
    }
    *hash = made;
    return true;
}

/// True when `code` hashes to `hash`.
bool HashMatches(const std::string& code, const std::string& hash, crypt_data* work)
{
    const char* made = crypt_r(code.c_str(), hash.c_str(), work);
    const bool equal = made != nullptr && std::strlen(made) == hash.size() &&
                       ConstantTimeEqual(made, hash.data(), hash.size());
    WipeBytes(work, sizeof *work);
    return equal;
}

} // namespace

bool MakeRecoveryCodes(std::vector<std::string>* codes, std::vector<std::string>* hashes)
{
    codes->clear();
    hashes->clear();
    while (codes->size() < kRecoveryCodeCount) {
        const std::optional<std::uint32_t> number = RandomInRange(0, 99999999);
        std::string hash;
        if (!number) {
            return false;
        }
        std::string code = std::to_string(*number);
        code.insert(0, kRecoveryDigits - code.size(), '0');
        if (!HashCode(code, &hash)) {
            return false;
        }
        codes->push_back(code);
        hashes->push_back(hash);
    }
    return true;
}

int FindRecoveryCode(const std::vector<std::string>& hashes, const std::string& typed)
{
    std::size_t begin = 0;
    std::size_t count = 0;
    if (!FindTypedDigits(typed, kRecoveryDigits, &begin, &count) || count != kRecoveryDigits) {
        return -1;
    }
    const SecretString code(typed.substr(begin, count));
    const auto work = std::make_unique<crypt_data>();
    int found = -1;
    for (std::size_t i = 0; i < kRecoveryCodeCount; ++i) {
        const bool real = i < hashes.size();
        if (HashMatches(code.Text(), real ? hashes[i] : kPaddingHash, work.get()) && real && found < 0) {
            found = static_cast<int>(i);
        }
    }
    return found;
}

} // namespace brackmoor::pam
