#pragma once

#include <cstddef>

/// Bounds-checked C string functions.

/// Formats into `dest` of `destSize` bytes. Returns the number of characters
/// written (without the NUL); -1 when the arguments are invalid or the text
/// does not fit, `dest` then holding the empty string (when it can).
int sprintf_s(char* dest, size_t destSize, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Copies `src` with its NUL into `dest` of `destSize` bytes. 0 on success;
/// EINVAL for null arguments or a zero size, ERANGE when it does not fit
/// (`dest` then holding the empty string).
int strcpy_s(char* dest, size_t destSize, const char* src);
