// Growable byte buffers are std::string here; this adds the printf-style
// append that the expression writer and others use.
#pragma once

#include <cstdarg>
#include <string>

// Removes one trailing zero byte, then appends the formatted text.
void ubuf_add_fmt(std::string& buf, const char* format, ...) __attribute__((format(printf, 2, 3)));
void ubuf_add_vfmt(std::string& buf, const char* format, va_list ap);
// The formatted text as a new string.
std::string ubuf_fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
