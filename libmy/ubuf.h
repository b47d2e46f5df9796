// Growable byte buffers are std::string here; this adds the printf-style
// append that the expression writer and others use.
#pragma once

#include <string>

// Removes one trailing zero byte, then appends the formatted text.
void ubuf_add_fmt(std::string& buf, const char* format, ...) __attribute__((format(printf, 2, 3)));
