#include "tgdb/record_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "libmy/my_alloc.h"
#include "log/log.h"

namespace {

constexpr size_t npos = std::string_view::npos;

struct code_pair {
  char code;
  uint16_t rrtype;
};

// The one table of one-character codes; both directions are built from it.
constexpr code_pair code_table[] = {
    {'4', 1},   {'n', 2},   {'c', 5},   {'s', 6},   {'0', 10},  {'w', 11},
    {'p', 12},  {'h', 13},  {'m', 15},  {'t', 16},  {'r', 17},  {'6', 28},
    {'l', 29},  {'x', 30},  {'v', 33},  {'N', 35},  {'d', 39},  {'f', 44},
    {'T', 52},  {'C', 59},  {'k', 60},  {'S', 99},
};
constexpr uint16_t coded_type_limit = 100;

constexpr auto code_by_type = [] {
  std::array<char, coded_type_limit> t{};
  for (const auto& p : code_table) t[p.rrtype] = p.code;
  return t;
}();

constexpr auto type_by_code = [] {
  std::array<uint16_t, 256> t{};
  for (const auto& p : code_table) t[static_cast<unsigned char>(p.code)] = p.rrtype;
  return t;
}();

// Nibble values; 16 marks a character that is not a hexadecimal digit.
constexpr auto nibble_table = [] {
  std::array<uint8_t, 256> t{};
  for (auto& v : t) v = 16;
  for (int c = '0'; c <= '9'; ++c) t[c] = static_cast<uint8_t>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c) t[c] = t[c - 'a' + 'A'] = static_cast<uint8_t>(c - 'a' + 10);
  return t;
}();

constexpr char hex_digits[] = "0123456789abcdef";

// Times and counts in a line are 32-bit values.
constexpr uint64_t RECORD_VALUE_MAX = std::numeric_limits<uint32_t>::max();

int nibble(char c) { return nibble_table[static_cast<unsigned char>(c)]; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
// White space of the POSIX locale.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
int sign(int v) { return (v > 0) - (v < 0); }

std::string_view skip_space(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && is_space(s[i])) ++i;
  return s.substr(i);
}

// A non-empty run of hexadecimal digits that fits 64 bits.
bool parse_hex(std::string_view s, uint64_t& out) {
  if (s.empty()) return false;
  uint64_t v = 0;
  for (char c : s) {
    int d = nibble(c);
    if (d > 15 || v > (std::numeric_limits<uint64_t>::max() >> 4)) return false;
    v = v << 4 | static_cast<uint64_t>(d);
  }
  out = v;
  return true;
}

// FIRST[,DELTA] as 32-bit values, last-seen (FIRST + DELTA) included.
bool parse_times(std::string_view s, search_entry& e) {
  size_t comma = s.find(',');
  uint64_t first = 0, delta = 0;
  if (!parse_hex(s.substr(0, comma), first) || first > RECORD_VALUE_MAX) return false;
  if (comma != npos && (!parse_hex(s.substr(comma + 1), delta) || delta > RECORD_VALUE_MAX - first)) return false;
  e.time_first = static_cast<int64_t>(first);
  e.time_last = static_cast<int64_t>(first + delta);
  return true;
}

bool parse_count(std::string_view s, uint64_t& count) { return parse_hex(s, count) && count <= RECORD_VALUE_MAX; }

bool parse_rrname_item(std::string_view item, search_entry& e) {
  e.rrtype = parse_rrtype_code(item);
  if (e.rrtype == 0) return false;
  size_t colon = item.find(':');
  if (colon == npos) return true;
  std::string_view rest = item.substr(colon + 1);
  size_t colon2 = rest.find(':');
  if (!parse_times(rest.substr(0, colon2), e)) return false;
  return colon2 == npos || parse_count(rest.substr(colon2 + 1), e.count);
}

// TYPE:FIRST[,DELTA]:COUNT, the part of an rdata value after its wire form.
std::optional<search_entry> parse_rdata_item(std::string_view s) {
  constexpr size_t max_times_length = 127;
  search_entry e;
  e.rrtype = parse_rrtype_code(s);
  size_t colon = s.find(':');
  if (e.rrtype == 0 || colon == npos) return std::nullopt;
  s.remove_prefix(colon + 1);
  size_t colon2 = s.find_first_of(":\n");
  if (colon2 == npos || s[colon2] != ':' || colon2 > max_times_length) return std::nullopt;
  if (!parse_times(s.substr(0, colon2), e)) return std::nullopt;
  s.remove_prefix(colon2 + 1);
  size_t end = 0;
  while (end < s.size() && !is_space(s[end])) ++end;
  if (end < s.size() && s[end] == ' ') {
    log_printf(LOG_ERROR, "Error: multi-space lines not supported.");
    return std::nullopt;
  }
  if (!parse_count(s.substr(0, end), e.count)) return std::nullopt;
  return e;
}

// What follows a wire form: one space, then the item.
std::optional<search_entry> parse_after_wire(std::string_view rest) {
  if (rest.empty() || rest[0] != ' ') return std::nullopt;
  return parse_rdata_item(rest.substr(1));
}

struct wire_split {
  std::string_view hex;   // exactly 2 * LENGTH characters, not yet checked as digits
  std::string_view rest;  // what follows them
};

// LENGTH '/' and 2 * LENGTH characters at the start of `s`, LENGTH being at
// most `max_digits` decimal digits with a value from 1 to `max_length`.
std::optional<wire_split> split_wire(std::string_view s, size_t max_digits, uint64_t max_length) {
  size_t digits = 0;
  uint64_t length = 0;
  while (digits < s.size() && is_digit(s[digits])) {
    if (++digits > max_digits) return std::nullopt;
    length = length * 10 + static_cast<uint64_t>(s[digits - 1] - '0');
  }
  if (digits == 0 || digits == s.size() || s[digits] != '/' || length == 0 || length > max_length)
    return std::nullopt;
  s.remove_prefix(digits + 1);
  if (s.size() / 2 < length) return std::nullopt;
  return wire_split{s.substr(0, 2 * length), s.substr(2 * length)};
}

// Files may carry lengths of up to 14 digits; the writer never exceeds 65535.
std::optional<wire_split> split_value_wire(std::string_view s) {
  return split_wire(s, 14, 99'999'999'999'999);
}

bool all_hex(std::string_view s) {
  for (char c : s)
    if (nibble(c) > 15) return false;
  return true;
}

void append_hex(std::string& out, uint64_t v) {
  char buf[16];
  auto res = std::to_chars(buf, buf + sizeof buf, v, 16);
  out.append(buf, res.ptr);
}

void check_key(std::string_view key) {
  my_assert(key.find_first_of("\t\n") == npos, "record key without tab or newline");
}

// The owner-name part of a key: up to a space, which starts a further field.
std::string_view rrname_key(std::string_view line) { return line.substr(0, line.find('\t')); }

// The wire form of a well-formed rdata line value, as the ordering reads it.
std::optional<wire_split> ordering_wire(std::string_view value) {
  return split_wire(skip_space(value), 5, 65535);
}

int compare_bytes(std::string_view a, std::string_view b) { return sign(a.compare(b)); }

search_entry within_line_limits(search_entry e) {
  e.count = std::min<uint64_t>(e.count, RECORD_VALUE_MAX);
  return e;
}

}  // namespace

char rrtype_code_char(uint16_t rrtype) { return rrtype < coded_type_limit ? code_by_type[rrtype] : '\0'; }

uint16_t rrtype_from_code_char(char code) { return type_by_code[static_cast<unsigned char>(code)]; }

void append_rrtype_code(std::string& out, uint16_t rrtype) {
  if (char c = rrtype_code_char(rrtype)) {
    out += c;
    return;
  }
  char buf[8];
  if (rrtype < 10 && rrtype_from_code_char(static_cast<char>('0' + rrtype)) != 0) out += '0';
  auto res = std::to_chars(buf, buf + sizeof buf, rrtype);
  out.append(buf, res.ptr);
}

uint16_t parse_rrtype_code(std::string_view item) {
  constexpr size_t max_digits = 7;
  if (item.empty()) return 0;
  if (item.size() == 1 || item[1] == ':') {
    if (uint16_t t = rrtype_from_code_char(item[0])) return t;
  }
  size_t n = 0;
  uint32_t v = 0;
  while (n < item.size() && is_digit(item[n])) {
    if (++n > max_digits) return 0;
    v = v * 10 + static_cast<uint32_t>(item[n - 1] - '0');
  }
  if (n == 0 || n == item.size() || item[n] != ':' || v > 65535) return 0;
  return static_cast<uint16_t>(v);
}

std::vector<search_entry> parse_rrname_value(std::string_view text) {
  text = skip_space(text);
  text = text.substr(0, text.find('\n'));
  std::vector<search_entry> entries;
  for (;;) {
    size_t space = text.find(' ');
    search_entry e;
    if (!parse_rrname_item(text.substr(0, space), e)) return {};
    entries.push_back(e);
    if (space == npos) return entries;
    text.remove_prefix(space + 1);
  }
}

std::optional<rdata_value> parse_rdata_value(std::string_view text) {
  text = skip_space(text);
  rdata_value out;
  if (value_has_wire_form(text)) {
    auto wire = split_value_wire(text);
    if (!wire || !all_hex(wire->hex)) return std::nullopt;
    out.wire_form = text.substr(0, text.size() - wire->rest.size());
    auto e = parse_after_wire(wire->rest);
    if (!e) return std::nullopt;
    out.entry = *e;
    return out;
  }
  auto e = parse_rdata_item(text);
  if (!e) return std::nullopt;
  out.entry = *e;
  return out;
}

bool parse_record_item(std::string_view item, search_entry& out) {
  search_entry e;
  if (std::count(item.begin(), item.end(), ':') != 2 || !parse_rrname_item(item, e)) return false;
  out = e;
  return true;
}

bool value_has_wire_form(std::string_view value) {
  const size_t stop = value.find_first_of(":/");
  return stop != npos && value[stop] == '/';
}

std::vector<uint8_t> decode_rdata(std::string_view text) {
  auto wire = split_value_wire(skip_space(text));
  if (!wire) return {};
  std::string_view hex = wire->hex;
  std::vector<uint8_t> bytes(hex.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    int hi = nibble(hex[2 * i]), lo = nibble(hex[2 * i + 1]);
    if (hi > 15 || lo > 15) return {};
    bytes[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return bytes;
}

void append_rrname_item(std::string& out, const search_entry& e) {
  append_rrtype_code(out, e.rrtype);
  out += ':';
  const auto first = static_cast<uint64_t>(e.time_first), last = static_cast<uint64_t>(e.time_last);
  if (first == last) {
    append_hex(out, last);
  } else {
    append_hex(out, first);
    out += ',';
    append_hex(out, last - first);
  }
  out += ':';
  append_hex(out, e.count);
}

void append_rrname_value(std::string& out, std::span<const search_entry> entries) {
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i) out += ' ';
    append_rrname_item(out, entries[i]);
  }
}

void append_rdata_value(std::string& out, std::span<const uint8_t> wire, const search_entry& entry) {
  char buf[24];
  auto res = std::to_chars(buf, buf + sizeof buf, wire.size());
  out.append(buf, res.ptr);
  out += '/';
  for (uint8_t b : wire) {
    out += hex_digits[b >> 4];
    out += hex_digits[b & 15];
  }
  out += ' ';
  append_rrname_item(out, entry);
}

std::string rrname_line(std::string_view owner, std::span<const search_entry> entries) {
  check_key(owner);
  std::string line(owner);
  line += '\t';
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i) line += ' ';
    append_rrname_item(line, within_line_limits(entries[i]));
  }
  return line;
}

std::string rdata_line(std::string_view text, std::span<const uint8_t> wire, const search_entry& entry) {
  check_key(text);
  my_assert(!wire.empty() && wire.size() <= 65535, "rdata of 1 to 65535 bytes");
  std::string line(text);
  line += '\t';
  append_rdata_value(line, wire, within_line_limits(entry));
  return line;
}

int compare_rrname_lines(std::string_view a, std::string_view b) {
  const std::string_view ka = rrname_key(a), kb = rrname_key(b);
  if (ka.empty() || kb.empty()) return static_cast<int>(!ka.empty()) - static_cast<int>(!kb.empty());
  std::string_view ra = ka.substr(0, ka.find(' ')), rb = kb.substr(0, kb.find(' '));
  // Label by label from the right: the shorter label first, then bytewise;
  // a name that runs out of labels orders first.
  for (;;) {
    const size_t da = ra.rfind('.'), db = rb.rfind('.');
    const std::string_view la = da == npos ? ra : ra.substr(da + 1);
    const std::string_view lb = db == npos ? rb : rb.substr(db + 1);
    if (la.size() != lb.size()) return la.size() < lb.size() ? -1 : 1;
    if (int c = memcmp(la.data(), lb.data(), la.size())) return sign(c);
    if (da == npos || db == npos) {
      if (da != db) return da == npos ? -1 : 1;
      break;
    }
    ra = ra.substr(0, da);
    rb = rb.substr(0, db);
  }
  // Same name: the further field after a space decides, a key without one first.
  return compare_bytes(ka, kb);
}

int compare_rdata_lines(std::string_view a, std::string_view b) {
  if (a.empty() || b.empty()) return static_cast<int>(!a.empty()) - static_cast<int>(!b.empty());
  const size_t ta = a.find('\t');
  if (ta == npos) {
    log_printf(LOG_FAILURE, "Warning: unexpected error parsing rdata contents [1].");
    exit(1);
  }
  const size_t tb = b.find('\t');
  if (tb == npos) {
    log_printf(LOG_FAILURE, "Warning: unexpected error parsing rdata contents [2].");
    exit(1);
  }
  const auto wa = ordering_wire(a.substr(ta + 1)), wb = ordering_wire(b.substr(tb + 1));
  // Malformed wire forms first; among themselves by their bytes, so that
  // the order stays antisymmetric.
  if (!wa || !wb) return wa ? 1 : wb ? -1 : compare_bytes(a, b);

  const std::string_view ha = wa->hex, hb = wb->hex;
  const size_t n = std::min(ha.size(), hb.size());
  for (size_t i = 0; i < n; ++i) {
    int x = nibble(ha[i]), y = nibble(hb[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  if (ha.size() == hb.size()) {
    auto ea = parse_after_wire(wa->rest);
    if (!ea) {
      log_printf(LOG_ERROR, "Warning: extended comparison of equal rdata values failed on parse error [1]");
      return 0;
    }
    auto eb = parse_after_wire(wb->rest);
    if (!eb) {
      log_printf(LOG_ERROR, "Warning: extended comparison of equal rdata values failed on parse error [2]");
      return 0;
    }
    return ea->rrtype < eb->rrtype ? -1 : ea->rrtype > eb->rrtype;
  }
  // One wire form is a proper prefix of the other: order as if the shorter
  // line's type were its next byte. On a tie the shorter line goes first, as
  // a shorter sequence does; that keeps the order transitive.
  const bool a_shorter = ha.size() < hb.size();
  const auto shorter = parse_after_wire((a_shorter ? wa : wb)->rest);
  if (!shorter) {
    log_printf(LOG_ERROR, "Warning: extended comparison of rdata values failed on parse error [1]");
    return 0;
  }
  const std::string_view longer = a_shorter ? hb : ha;
  const int hi = nibble(longer[n]), lo = nibble(longer[n + 1]);
  if (hi > 15 || lo > 15) {
    log_printf(LOG_ERROR, "Warning: extended comparison of rdata values failed on parse error [2]");
    return 0;
  }
  const int shorter_order = (hi << 4 | lo) < shorter->rrtype ? 1 : -1;
  return a_shorter ? shorter_order : -shorter_order;
}
