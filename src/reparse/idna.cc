// International names: the index holds every name in its xn-- (ASCII) form,
// so a label written in Unicode is converted before it is searched for.
#include <idn2.h>

#include <cstdlib>

#include "libmy/ubuf.h"
#include "reparse/reparse_internal.h"

bool idna_label_to_ascii(std::string_view label, std::string& ascii, std::string* why) {
  const std::string text(label);
  char* out = nullptr;
  const int rc = idn2_to_ascii_8z(text.c_str(), &out, IDN2_NONTRANSITIONAL);
  if (rc != IDN2_OK) {
    if (why) *why = idn2_strerror(rc);
    return false;
  }
  ascii = out;
  idn2_free(out);
  return true;
}

bool refuse_non_ascii(unsigned char c, int pos, std::string_view label, std::string* err) {
  if (!err) return false;
  err->clear();
  ubuf_add_fmt(*err, "Invalid character code %u at %d: names are stored in their xn-- form", c, pos);
  std::string ascii;
  if (!label.empty() && idna_label_to_ascii(label, ascii, nullptr)) {
    const std::string shown(label);
    ubuf_add_fmt(*err, "; write '%s' for '%s'", ascii.c_str(), shown.c_str());
  }
  return false;
}
