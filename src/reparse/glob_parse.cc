// The glob parser: shell-style patterns become the same trees as regular
// expressions, one sequence anchored at both ends.
//
// Globs are written as names are: a final dot (of a fully qualified name)
// is dropped, since the index holds names without it, and a label written
// in Unicode is searched for in its xn-- form.
#include <vector>

#include "reparse/reparse.h"
#include "reparse/reparse_internal.h"

namespace {

// A label of the glob written in Unicode, and its xn-- form.
struct international_label {
  size_t start, end;  // offsets of its first byte and of the byte after it
  std::string ascii;
};

bool glob_special(unsigned char c) { return c == '*' || c == '?' || c == '[' || c == '\\'; }

// The labels holding bytes above 127, converted. A label that also holds
// a wildcard, a bracket or an escape is refused: its xn-- form cannot say
// what the wildcard means.
bool international_labels(const unsigned char* s, std::vector<international_label>& out, std::string* err) {
  size_t start = 0;
  bool high = false, special = false;
  for (size_t i = 0;; ++i) {
    const unsigned char c = s[i];
    if (c != '.' && c != '\0') {
      high = high || c >= 0x80;
      special = special || glob_special(c);
      if (c == '\\' && s[i + 1] != '\0') ++i;  // an escaped dot does not end the label
      continue;
    }
    if (high && special)
      return reparse_fail(err, "Cannot convert label at %d to its xn-- form: it holds wildcards",
                          static_cast<int>(start));
    if (high) {
      const std::string_view label(reinterpret_cast<const char*>(s) + start, i - start);
      std::string ascii, why;
      if (!idna_label_to_ascii(label, ascii, &why))
        return reparse_fail(err, "Cannot convert label at %d to its xn-- form: %s", static_cast<int>(start),
                            why.c_str());
      out.push_back({start, i, std::move(ascii)});
    }
    if (c == '\0') return true;
    start = i + 1;
    high = special = false;
  }
}

re_elem_ptr parse(const char* text, std::string* err) {
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  std::vector<international_label> labels;
  if (!international_labels(s, labels, err)) return nullptr;
  auto next_label = labels.begin();

  re_elem_ptr seq = re_elem_at(re_elem_sequence, 0);
  anchor_start(*seq, err, 0);  // cannot fail on a new sequence
  re_elem_ptr literal;         // characters collected so far
  re_elem_ptr cls;
  const auto extend = [&](std::string_view bytes, int pos) {
    if (!literal) literal = re_elem_at(re_elem_literal, pos);
    literal->text += bytes;
  };

  size_t i = 0;
  for (; s[i] != '\0'; ++i) {
    unsigned char c = s[i];
    int pos = static_cast<int>(i);
    if (next_label != labels.end() && next_label->start == i) {
      extend(next_label->ascii, pos);
      i = next_label->end - 1;
      ++next_label;
      continue;
    }
    if (!reparse_printable(c)) {
      reparse_fail(err, "Invalid character code %u at %d", c, pos);
      return nullptr;
    }
    switch (c) {
      case '*':
      case '?':
        if (!sequence_add(*seq, literal, err, pos)) return nullptr;
        cls = re_elem_at(re_elem_class, pos);
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
        // A trailing backslash stands for a zero byte, which literals do not
        // store (see reparse.h); the glob ends with it.
        if (s[i + 1] == '\0') {
          extend({}, pos);
          ++i;
          break;
        }
        ++i;
        extend(std::string_view(text + i, 1), pos);
        continue;
      case '.':
        if (i > 0 && s[i + 1] == '\0') continue;  // the final dot of a fully qualified name
        [[fallthrough]];
      default:
        extend(std::string_view(text + i, 1), pos);
        continue;
    }
    break;
  }

  int last = i > 0 ? static_cast<int>(i - 1) : 0;
  if (!sequence_add(*seq, literal, err, last) || !anchor_end(*seq, err, last)) return nullptr;
  sequence_unwrap(seq);
  if (!re_elem_within_budget(*seq, err)) return nullptr;
  return seq;
}

}  // namespace

re_elem_ptr glob_parse(const char* text, std::string* err) {
  std::string local;
  return parse(text, err != nullptr ? err : &local);
}
