// Helpers shared by the parser's own source files.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

// Stores the formatted message in *err (when err is non-null); returns false.
bool reparse_fail(std::string* err, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Printable in the POSIX locale: space to '~'.
constexpr bool reparse_printable(unsigned char c) { return c >= 32 && c <= 126; }

// The characters that a regular expression must escape to mean themselves.
inline bool reparse_escaped(unsigned char c) { return c != 0 && strchr("$()*+.?[\\^{|", c) != nullptr; }

// The xn-- form of one label written in UTF-8; false, with the reason in
// *why (when non-null), when it has none.
bool idna_label_to_ascii(std::string_view label, std::string& ascii, std::string* why);

// Refuses byte c (above 127) at `pos`: the message says that names are
// stored in their xn-- form and, when `label` (the whole label around the
// byte, or empty) converts, gives that form. Returns false.
bool refuse_non_ascii(unsigned char c, int pos, std::string_view label, std::string* err);
