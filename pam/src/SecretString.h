#pragma once

#include <string>

namespace brackmoor::pam {

/// Text that must not outlive its use: typed codes, issued codes, TOTP
/// secrets. The buffer is wiped before it is released, so that a core dump
/// or a later allocation of the process that loaded the module does not
/// reveal it. Not copyable, to keep the number of copies known.
class SecretString {
public:
    SecretString() = default;
    explicit SecretString(std::string text) : text_(std::move(text)) {}
    ~SecretString() { Wipe(); }

    SecretString(const SecretString&) = delete;
    SecretString& operator=(const SecretString&) = delete;

    const std::string& Text() const { return text_; }

    /// Replaces the content, wiping the old one first.
    void Assign(const char* data, std::size_t size);

    /// Overwrites the content with zeros and empties it.
    void Wipe();

private:
    std::string text_;
};

/// Zeros `size` bytes in a way the compiler may not drop as a dead store.
void WipeBytes(void* data, std::size_t size);

} // namespace brackmoor::pam
