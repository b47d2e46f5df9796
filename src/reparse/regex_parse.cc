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
    if (c >= 0x80) return refuse_non_ascii(c, at(p), {}, err);
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
  pending = re_elem_at(re_elem_class, pos);
  pending->bits = set;
  cursor = reinterpret_cast<const char*>(p);
  return true;
}

namespace {

// One pass over the expression. Each method handles one kind of token and
// returns false with the message in `err_` when the text is refused.
class regex_parser {
 public:
  regex_parser(const char* text, std::string* err)
      : text_(text), s_(reinterpret_cast<const unsigned char*>(text)), err_(err) {}

  re_elem_ptr run() {
    size_t i = 0;
    for (; s_[i] != '\0'; ++i)
      if (!token(i)) return nullptr;
    return finish(i > 0 ? static_cast<int>(i - 1) : 0);
  }

 private:
  // The token at s_[i]; leaves i on its last byte.
  bool token(size_t& i) {
    unsigned char c = s_[i];
    int pos = static_cast<int>(i);
    if (!reparse_printable(c)) return refuse_byte(i);
    switch (c) {
      case '$':
        return append(pos) && anchor_end(*seq_, err_, pos);
      case '^':
        return append(pos) && anchor_start(*seq_, err_, pos);
      case '(':
        return open_group(pos);
      case '|':
        return next_alternative(pos);
      case ')':
        return close_group(pos);
      case '*':
      case '+':
      case '?':
        return repeat(static_cast<char>(c), pos);
      case '.':
        if (!append(pos)) return false;
        pending_ = re_elem_at(re_elem_class, pos);
        pending_->bits.fill(~uint64_t{0});
        return true;
      case '[':
        return bracket(i);
      case '\\':
        if (!escape(i)) return false;
        return ordinary(s_[i], static_cast<int>(i));
      case '{':
        if (s_[i + 1] < '0' || s_[i + 1] > '9') break;  // "{" without a number is ordinary text
        return bound(i);
      default:
        break;
    }
    return ordinary(c, pos);
  }

  // Appends the pending element to the current sequence.
  bool append(int pos) { return sequence_add(*seq_, pending_, err_, pos); }

  bool open_group(int pos) {
    if (!append(pos)) return false;
    if (stack_.size() >= max_open_groups) return reparse_fail(err_, "Regexp nested too deeply");
    stack_.push_back({std::move(group_), std::move(seq_), empty_kinds_});
    group_ = re_elem_at(re_elem_group, pos);
    empty_kinds_ = 0;
    seq_ = re_elem_at(re_elem_sequence, pos + 1);
    return true;
  }

  bool end_alternative(int pos) {
    if (pending_ && !append(pos)) return false;
    group_add(*group_, seq_, &empty_kinds_);
    return true;
  }

  bool next_alternative(int pos) {
    if (!end_alternative(pos)) return false;
    seq_ = re_elem_at(re_elem_sequence, pos + 1);
    return true;
  }

  bool close_group(int pos) {
    if (!end_alternative(pos)) return false;
    // The closed group stays pending so that a repetition can follow.
    pending_ = std::move(group_);
    if (stack_.empty()) return reparse_fail(err_, "Unmatched ) at %d", pos);
    group_ = std::move(stack_.back().group);
    seq_ = std::move(stack_.back().seq);
    empty_kinds_ = stack_.back().empty_kinds;
    stack_.pop_back();
    return true;
  }

  bool repeat(char op, int pos) {
    if (!rep_start(*seq_, pending_, op, err_, pos)) return false;
    pending_->min = op == '+' ? 1 : 0;
    pending_->max = op == '?' ? 1 : RE_UNBOUNDED;
    return append(pos);
  }

  bool bracket(size_t& i) {
    const int pos = static_cast<int>(i);
    if (!append(pos)) return false;
    const char* cursor = text_ + i;
    if (!bracket_parse(cursor, pending_, '^', err_, pos)) return false;
    i = static_cast<size_t>(cursor - text_);
    return true;
  }

  // On a backslash: moves i onto the escaped character.
  bool escape(size_t& i) {
    if (reparse_escaped(s_[i + 1])) {
      ++i;
      return true;
    }
    if (s_[i + 1] == '\0') return reparse_fail(err_, "Invalid unescaped '\\' at end of regexp");
    return reparse_fail(err_, "Invalid escaped character \\%c at %d", s_[i + 1], static_cast<int>(i));
  }

  // Reads one bound number after `at`, moving `end` past it.
  bool bound_number(const char* at, char*& end, int pos, unsigned long& n) {
    n = strtoul(at, &end, 10);
    if (n > RE_UNBOUNDED) return reparse_fail(err_, "Invalid bound at %d: %lu exceeds maximum %u", pos, n, RE_UNBOUNDED);
    return true;
  }

  // "{m}", "{m,}" or "{m,n}" at s_[i]; leaves i on the closing "}".
  bool bound(size_t& i) {
    const int pos = static_cast<int>(i);
    if (!rep_start(*seq_, pending_, '{', err_, pos)) return false;
    char* end = nullptr;
    unsigned long n = 0;
    if (!bound_number(text_ + i + 1, end, pos, n)) return false;
    pending_->min = pending_->max = static_cast<uint32_t>(n);
    if (*end == ',') {
      if (end[1] == '}') {
        pending_->max = RE_UNBOUNDED;
        ++end;
      } else {
        // Like the first number, read by strtoul: blanks and a sign are
        // accepted here, and a missing number reads as 0.
        unsigned long m = 0;
        if (!bound_number(end + 1, end, pos, m)) return false;
        pending_->max = static_cast<uint32_t>(m);
        if (m < pending_->min) return reparse_fail(err_, "Invalid bound at %d: %u > %u", pos, pending_->min, pending_->max);
      }
    }
    if (*end != '}') return reparse_fail(err_, "Invalid bound at %d", pos);
    if (!append(pos)) return false;
    i = static_cast<size_t>(end - text_);
    return true;
  }

  // An ordinary character extends the pending literal.
  bool ordinary(unsigned char c, int pos) {
    if (!pending_ || pending_->type != re_elem_literal) {
      if (!append(pos)) return false;
      pending_ = re_elem_at(re_elem_literal, pos);
    }
    pending_->text.push_back(static_cast<char>(c));
    return true;
  }

  bool refuse_byte(size_t i) {
    if (s_[i] < 0x80) return reparse_fail(err_, "Invalid character code %u at %d", s_[i], static_cast<int>(i));
    return refuse_non_ascii(s_[i], static_cast<int>(i), label_around(i), err_);
  }

  // The name label that holds s_[i]: letters, digits, '-' and bytes above
  // 127 between the expression's edges, anchors, dots or group marks. Empty
  // when the run is only part of a label, since the xn-- form of a part
  // says nothing about the whole.
  std::string_view label_around(size_t i) const {
    const auto in_label = [](unsigned char c) { return c >= 0x80 || isalnum(c) || c == '-'; };
    size_t start = i, end = i;
    while (start > 0 && in_label(s_[start - 1])) --start;
    while (in_label(s_[end])) ++end;
    const bool edge_before = start == 0 || strchr("^.(|", s_[start - 1]) != nullptr;
    const bool edge_after = s_[end] == '\0' || strchr("$\\.)|", s_[end]) != nullptr;
    if (!edge_before || !edge_after) return {};
    return std::string_view(text_ + start, end - start);
  }

  re_elem_ptr finish(int last) {
    if (pending_ && !append(last)) return nullptr;
    group_add(*group_, seq_, &empty_kinds_);
    group_unwrap(group_);
    if (!stack_.empty()) {
      reparse_fail(err_, "Premature end of regexp");
      return nullptr;
    }
    // Repetitions stacked on repetitions nest without parentheses.
    if (re_elem_depth(group_.get()) > RE_MAX_DEPTH) {
      reparse_fail(err_, "Regexp nested too deeply");
      return nullptr;
    }
    if (re_elem_repeat_depth(group_.get()) > RE_MAX_REPEAT_NESTING) {
      reparse_fail(err_, "Repetitions nested too deeply (more than %zu)", RE_MAX_REPEAT_NESTING);
      return nullptr;
    }
    if (!re_elem_within_budget(*group_, err_)) return nullptr;
    return std::move(group_);
  }

  const char* text_;
  const unsigned char* s_;
  std::string* err_;
  std::vector<frame> stack_;
  re_elem_ptr group_ = re_elem_at(re_elem_group, 0);
  unsigned empty_kinds_ = 0;
  re_elem_ptr seq_ = re_elem_at(re_elem_sequence, 0);
  re_elem_ptr pending_;  // parsed, not yet appended to seq_
};

}  // namespace

re_elem_ptr regex_parse(const char* text, std::string* err) {
  std::string local;
  return regex_parser(text, err != nullptr ? err : &local).run();
}
