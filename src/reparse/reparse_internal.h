// Helpers shared by the parser's own source files.
#pragma once

#include <cstring>
#include <string>

// Stores the formatted message in *err (when err is non-null); returns false.
bool reparse_fail(std::string* err, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Printable in the POSIX locale: space to '~'.
constexpr bool reparse_printable(unsigned char c) { return c >= 32 && c <= 126; }

// The characters that a regular expression must escape to mean themselves.
inline bool reparse_escaped(unsigned char c) { return c != 0 && strchr("$()*+.?[\\^{|", c) != nullptr; }
