// The regular-expression parser: a small subset of POSIX extended syntax,
// refusing anything the matcher and the trigram stage could not reproduce.
#include <ctype.h>
#include <locale.h>

#include <cstdlib>
#include <cstring>

#include "libmy/my_alloc.h"
#include "reparse/reparse.h"
#include "reparse/reparse_internal.h"

namespace {

using ctype_fn = int (*)(int, locale_t);

locale_t posix_locale() {
  static const locale_t loc = newlocale(LC_ALL_MASK, "POSIX", locale_t{});
  my_assert(loc != locale_t{}, "loc != NULL");
  return loc;
}

// Classification as the POSIX locale defines it, whatever the process locale.
template <ctype_fn Is>
int fill_class(re_class_bits& bits) {
  static const re_class_bits set = [] {
    re_class_bits b{};
    locale_t loc = posix_locale();
    for (int c = 0; c < 256; ++c)
      if (Is(c, loc)) b[c >> 6] |= uint64_t{1} << (c & 63);
    return b;
  }();
  for (size_t i = 0; i < bits.size(); ++i) bits[i] |= set[i];
  return static_cast<int>(bits.size());
}

constexpr class_table_entry class_entries[] = {
    {"[:alnum:]", fill_class<isalnum_l>}, {"[:alpha:]", fill_class<isalpha_l>},
    {"[:blank:]", fill_class<isblank_l>}, {"[:cntrl:]", fill_class<iscntrl_l>},
    {"[:digit:]", fill_class<isdigit_l>}, {"[:graph:]", fill_class<isgraph_l>},
    {"[:lower:]", fill_class<islower_l>}, {"[:print:]", fill_class<isprint_l>},
    {"[:punct:]", fill_class<ispunct_l>}, {"[:space:]", fill_class<isspace_l>},
    {"[:upper:]", fill_class<isupper_l>}, {"[:xdigit:]", fill_class<isxdigit_l>},
};

void set_all(re_class_bits& bits) { bits.fill(~uint64_t{0}); }

// Open groups kept while their contents are parsed.
struct frame {
  re_elem_ptr group;
  re_elem_ptr seq;
  unsigned empty_kinds;
};

// Groups may nest this far; also bounds the cost of splicing unwrapped
// groups into their parents, which is proportional to the nesting.
constexpr size_t max_open_groups = RE_MAX_DEPTH / 2;

}  // namespace

std::span<const class_table_entry> class_table() { return class_entries; }

bool bracket_parse(const char*& cursor, re_elem_ptr& pending, char negchar, std::string* err,
                   int pos) {
  re_class_bits set{};
  const auto* open = reinterpret_cast<const unsigned char*>(cursor);
  if (*open != '[') return reparse_fail(err, "Invalid character class at %d", pos);
  const unsigned char* p = open + 1;
  auto at = [&](const unsigned char* q) { return pos + static_cast<int>(q - open); };
  auto add = [&](unsigned c) { set[c >> 6] |= uint64_t{1} << (c & 63); };

  bool negated = *p == static_cast<unsigned char>(negchar);
  if (negated) ++p;
  int prev = -1;  // last single member, the start of a possible range
  if (*p == ']' || *p == '-') {
    add(*p);
    prev = *p++;
  }
  while (*p != ']' && *p != '\0') {
    unsigned char c = *p;
    if (!reparse_printable(c)) return reparse_fail(err, "Invalid character code %u at %d", c, at(p));
    if (c == '[' && (p[1] == '.' || p[1] == '=')) {
      return reparse_fail(err, "Collating element [%c%c] not supported at %d", p[1], p[1], at(p));
    }
    if (c == '[' && p[1] == ':') {
      const class_table_entry* found = nullptr;
      for (const class_table_entry& entry : class_entries) {
        if (strncmp(reinterpret_cast<const char*>(p), entry.name, strlen(entry.name)) == 0) {
          found = &entry;
          break;
        }
      }
      if (found == nullptr) return reparse_fail(err, "Invalid character class name at %d", pos);
      found->fill(set);
      p += strlen(found->name);
      prev = -1;
      continue;
    }
    if (c == '-' && p[1] == '\0') {
      ++p;  // unterminated: reported below
      break;
    }
    if (c == '-' && p[1] != ']') {
      unsigned char end = p[1];
      if (prev < 0 || end == '[' ||
          static_cast<signed char>(prev) > static_cast<signed char>(end)) {
        return reparse_fail(err, "Invalid range at %d", at(p + 1));
      }
      for (unsigned b = static_cast<unsigned>(prev); b <= end; ++b) add(b);
      prev = -1;
      p += 2;
      continue;
    }
    add(c);
    prev = c;
    ++p;
  }
  if (*p == '\0') {
    if (negated) return reparse_fail(err, "Unmatched [%c at %d", negchar, pos);
    return reparse_fail(err, "Unmatched [ at %d", pos);
  }
  if (negated)
    for (uint64_t& w : set) w = ~w;
  pending = re_elem_init(re_elem_class);
  pending->bits = set;
  cursor = reinterpret_cast<const char*>(p);
  return true;
}

namespace {

// The parser proper; `err` is never null here.
re_elem_ptr parse(const char* text, std::string* err) {
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  std::vector<frame> stack;
  re_elem_ptr group = re_elem_init(re_elem_group);
  unsigned empty_kinds = 0;
  re_elem_ptr seq = re_elem_init(re_elem_sequence);
  re_elem_ptr pending;  // parsed, not yet appended to seq

  size_t i = 0;
  for (; s[i] != '\0'; ++i) {
    unsigned char c = s[i];
    int pos = static_cast<int>(i);
    if (!reparse_printable(c)) {
      reparse_fail(err, "Invalid character code %u at %d", c, pos);
      return nullptr;
    }
    switch (c) {
      case '$':
        if (!sequence_add(*seq, pending, err, pos) || !anchor_end(*seq, err, pos)) return nullptr;
        continue;
      case '^':
        if (!sequence_add(*seq, pending, err, pos) || !anchor_start(*seq, err, pos)) return nullptr;
        continue;
      case '(':
        if (!sequence_add(*seq, pending, err, pos)) return nullptr;
        if (stack.size() >= max_open_groups) {
          reparse_fail(err, "Regexp nested too deeply");
          return nullptr;
        }
        stack.push_back({std::move(group), std::move(seq), empty_kinds});
        group = re_elem_init(re_elem_group);
        empty_kinds = 0;
        seq = re_elem_init(re_elem_sequence);
        continue;
      case '|':
      case ')':
        if (pending && !sequence_add(*seq, pending, err, pos)) return nullptr;
        group_add(*group, seq, &empty_kinds);
        if (c == '|') {
          seq = re_elem_init(re_elem_sequence);
          continue;
        }
        // The closed group stays pending so that a repetition can follow.
        pending = std::move(group);
        if (stack.empty()) {
          reparse_fail(err, "Unmatched ) at %d", pos);
          return nullptr;
        }
        group = std::move(stack.back().group);
        seq = std::move(stack.back().seq);
        empty_kinds = stack.back().empty_kinds;
        stack.pop_back();
        continue;
      case '*':
      case '+':
      case '?':
        if (!rep_start(*seq, pending, static_cast<char>(c), err, pos)) return nullptr;
        pending->min = c == '+' ? 1 : 0;
        pending->max = c == '?' ? 1 : RE_UNBOUNDED;
        if (!sequence_add(*seq, pending, err, pos)) return nullptr;
        continue;
      case '.':
        if (!sequence_add(*seq, pending, err, pos)) return nullptr;
        pending = re_elem_init(re_elem_class);
        set_all(pending->bits);
        continue;
      case '[': {
        if (!sequence_add(*seq, pending, err, pos)) return nullptr;
        const char* cursor = text + i;
        if (!bracket_parse(cursor, pending, '^', err, pos)) return nullptr;
        i = static_cast<size_t>(cursor - text);
        continue;
      }
      case '\\':
        if (reparse_escaped(s[i + 1])) {
          c = s[++i];
          pos = static_cast<int>(i);
          break;  // an ordinary character
        }
        if (s[i + 1] == '\0') {
          reparse_fail(err, "Invalid unescaped '\\' at end of regexp");
        } else {
          reparse_fail(err, "Invalid escaped character \\%c at %d", s[i + 1], pos);
        }
        return nullptr;
      case '{': {
        if (s[i + 1] < '0' || s[i + 1] > '9') break;  // "{" without a number is ordinary text
        if (!rep_start(*seq, pending, '{', err, pos)) return nullptr;
        char* end = nullptr;
        unsigned long n = strtoul(text + i + 1, &end, 10);
        if (n > RE_UNBOUNDED) {
          reparse_fail(err, "Invalid bound at %d: %lu exceeds maximum %u", pos, n, RE_UNBOUNDED);
          return nullptr;
        }
        pending->min = pending->max = static_cast<uint32_t>(n);
        if (*end == ',') {
          if (end[1] == '}') {
            pending->max = RE_UNBOUNDED;
            ++end;
          } else {
            // Like the first number, read by strtoul: blanks and a sign are
            // accepted here, and a missing number reads as 0.
            unsigned long m = strtoul(end + 1, &end, 10);
            if (m > RE_UNBOUNDED) {
              reparse_fail(err, "Invalid bound at %d: %lu exceeds maximum %u", pos, m, RE_UNBOUNDED);
              return nullptr;
            }
            pending->max = static_cast<uint32_t>(m);
            if (m < pending->min) {
              reparse_fail(err, "Invalid bound at %d: %u > %u", pos, pending->min, pending->max);
              return nullptr;
            }
          }
        }
        if (*end != '}') {
          reparse_fail(err, "Invalid bound at %d", pos);
          return nullptr;
        }
        if (!sequence_add(*seq, pending, err, pos)) return nullptr;
        i = static_cast<size_t>(end - text);
        continue;
      }
      default:
        break;
    }
    // An ordinary character extends the pending literal.
    if (!pending || pending->type != re_elem_literal) {
      if (!sequence_add(*seq, pending, err, pos)) return nullptr;
      pending = re_elem_init(re_elem_literal);
    }
    pending->text.push_back(static_cast<char>(c));
  }

  int last = i > 0 ? static_cast<int>(i - 1) : 0;
  if (pending && !sequence_add(*seq, pending, err, last)) return nullptr;
  group_add(*group, seq, &empty_kinds);
  group_unwrap(group);
  if (!stack.empty()) {
    reparse_fail(err, "Premature end of regexp");
    return nullptr;
  }
  // Repetitions stacked on repetitions nest without parentheses.
  if (re_elem_depth(group.get()) > RE_MAX_DEPTH) {
    reparse_fail(err, "Regexp nested too deeply");
    return nullptr;
  }
  if (re_elem_repeat_depth(group.get()) > RE_MAX_REPEAT_NESTING) {
    reparse_fail(err, "Repetitions nested too deeply (more than %zu)", RE_MAX_REPEAT_NESTING);
    return nullptr;
  }
  return group;
}

}  // namespace

re_elem_ptr regex_parse(const char* text, std::string* err) {
  std::string local;
  return parse(text, err != nullptr ? err : &local);
}
