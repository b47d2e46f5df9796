#include "libmy/ubuf.h"

#include <cstdarg>
#include <cstdio>

#include "libmy/my_alloc.h"

void ubuf_add_fmt(std::string& buf, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  ubuf_add_vfmt(buf, format, ap);
  va_end(ap);
}

std::string ubuf_fmt(const char* format, ...) {
  std::string out;
  va_list ap;
  va_start(ap, format);
  ubuf_add_vfmt(out, format, ap);
  va_end(ap);
  return out;
}

void ubuf_add_vfmt(std::string& buf, const char* format, va_list ap) {
  if (!buf.empty() && buf.back() == '\0') buf.pop_back();
  va_list measure;
  va_copy(measure, ap);
  int needed = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  my_assert(needed >= 0, "needed >= 0");
  size_t old = buf.size();
  buf.resize(old + needed + 1);
  int status = vsnprintf(buf.data() + old, needed + 1, format, ap);
  my_assert(status >= 0, "status >= 0");
  buf.resize(old + needed);
}
