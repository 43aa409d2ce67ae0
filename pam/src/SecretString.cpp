#include "SecretString.h"

#include <cstring>

namespace brackmoor::pam {

void WipeBytes(void* data, std::size_t size)
{
    if (data != nullptr && size > 0) {
        explicit_bzero(data, size);
    }
}

void SecretString::Assign(const char* data, std::size_t size)
{
    Wipe();
    // Reserve first so that the append cannot leave a reallocated copy behind.
    text_.reserve(size);
    text_.append(data, size);
}

void SecretString::Wipe()
{
    WipeBytes(&text_[0], text_.capacity());
    text_.clear();
}

} // namespace brackmoor::pam
