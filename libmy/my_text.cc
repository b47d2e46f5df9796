#include "libmy/my_text.h"

std::string visible_text(std::string_view text) {
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\\': out += "\\\\"; break;
      default:
        if (c >= 0x20 && c < 0x7f) {
          out += ch;
        } else {
          out += "\\x";
          out += hex[c >> 4];
          out += hex[c & 15];
        }
    }
  }
  return out;
}
