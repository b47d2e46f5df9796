// Helpers shared by the parser's own source files.
#pragma once

#include <string>

// Stores the formatted message in *err (when err is non-null); returns false.
bool reparse_fail(std::string* err, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Printable in the POSIX locale: space to '~'.
constexpr bool reparse_printable(unsigned char c) { return c >= 32 && c <= 126; }
