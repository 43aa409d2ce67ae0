#include "SDK/SafeString.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

int sprintf_s(char* dest, size_t destSize, const char* format, ...)
{
    if (dest == nullptr || destSize == 0) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(dest, destSize, format, args);
    va_end(args);
    if (written < 0 || static_cast<size_t>(written) >= destSize) {
        dest[0] = '\0';
        return -1;
    }
    return written;
}

int strcpy_s(char* dest, size_t destSize, const char* src)
{
    if (dest == nullptr || destSize == 0) {
        return EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    const size_t length = ::strnlen(src, destSize);
    if (length == destSize) {
        dest[0] = '\0';
        return ERANGE;
    }
    std::memcpy(dest, src, length + 1);
    return 0;
}
