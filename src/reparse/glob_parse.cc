// The glob parser: shell-style patterns become the same trees as regular
// expressions, one sequence anchored at both ends.
#include "reparse/reparse.h"
#include "reparse/reparse_internal.h"

namespace {

re_elem_ptr parse(const char* text, std::string* err) {
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  re_elem_ptr seq = re_elem_init(re_elem_sequence);
  anchor_start(*seq, err, 0);  // cannot fail on a new sequence
  re_elem_ptr literal;         // characters collected so far
  re_elem_ptr cls;

  size_t i = 0;
  for (; s[i] != '\0'; ++i) {
    unsigned char c = s[i];
    int pos = static_cast<int>(i);
    if (!reparse_printable(c)) {
      reparse_fail(err, "Invalid character code %u at %d", c, pos);
      return nullptr;
    }
    switch (c) {
      case '*':
      case '?':
        if (!sequence_add(*seq, literal, err, pos)) return nullptr;
        cls = re_elem_init(re_elem_class);
        cls->bits.fill(~uint64_t{0});
        if (c == '*') cls->min = 0, cls->max = RE_UNBOUNDED;
        if (!sequence_add(*seq, cls, err, pos)) return nullptr;
        continue;
      case '[': {
        if (!sequence_add(*seq, literal, err, pos)) return nullptr;
        const char* cursor = text + i;
        if (!bracket_parse(cursor, cls, '!', err, pos)) return nullptr;
        if (!sequence_add(*seq, cls, err, pos)) return nullptr;
        i = static_cast<size_t>(cursor - text);
        continue;
      }
      case '\\':
        if (!literal) literal = re_elem_init(re_elem_literal);
        // A trailing backslash stands for a zero byte, which literals do not
        // store (see reparse.h); the glob ends with it.
        if (s[i + 1] == '\0') break;
        literal->text.push_back(static_cast<char>(s[++i]));
        continue;
      default:
        if (!literal) literal = re_elem_init(re_elem_literal);
        literal->text.push_back(static_cast<char>(c));
        continue;
    }
    ++i;
    break;
  }

  int last = i > 0 ? static_cast<int>(i - 1) : 0;
  if (!sequence_add(*seq, literal, err, last) || !anchor_end(*seq, err, last)) return nullptr;
  sequence_unwrap(seq);
  return seq;
}

}  // namespace

re_elem_ptr glob_parse(const char* text, std::string* err) {
  std::string local;
  return parse(text, err != nullptr ? err : &local);
}
