// Trigram numbering shared by the query builder and the index files: three
// symbols of a 41-symbol alphabet, the first symbol least significant.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "trigram/trigram_query.h"

inline constexpr int TRIGRAM_SYMBOLS = 41;
inline constexpr int32_t TRIGRAM_COUNT = TRIGRAM_SYMBOLS * TRIGRAM_SYMBOLS * TRIGRAM_SYMBOLS;
inline constexpr char TRIGRAM_PAD = '^';  // boundary pad of anchored starts and ends

// Symbol value of one byte: a-z (folded) 0-25, 0-9 26-35, '.' 36, '-' 37,
// '_' 38, '^' 39, anything else 40.
constexpr int trigram_symbol(unsigned char c) {
  if (c >= 'a' && c <= 'z') return c - 'a';
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= '0' && c <= '9') return 26 + (c - '0');
  switch (c) {
    case '.': return 36;
    case '-': return 37;
    case '_': return 38;
    case '^': return 39;
    default: return 40;
  }
}

inline constexpr int TRIGRAM_PAD_SYMBOL = trigram_symbol(TRIGRAM_PAD);

// The byte each symbol is shown as: its lower-case letter, digit or
// punctuation, '^' for the pad and '@' for every other byte.
inline constexpr char TRIGRAM_SYMBOL_CHARS[] = "abcdefghijklmnopqrstuvwxyz0123456789.-_^@";
static_assert(sizeof TRIGRAM_SYMBOL_CHARS == TRIGRAM_SYMBOLS + 1);

// The byte that shows c's symbol: c itself when it is on the alphabet, its
// lower case for a capital, '@' for a byte outside the alphabet. Bytes with
// the same symbol give the same trigrams, so a class may be written with
// these bytes instead of its own.
constexpr char trigram_symbol_char(unsigned char c) { return TRIGRAM_SYMBOL_CHARS[trigram_symbol(c)]; }

// The id of three symbols, the first one least significant.
constexpr int32_t trigram_number(int s1, int s2, int s3) {
  return s1 + TRIGRAM_SYMBOLS * s2 + TRIGRAM_SYMBOLS * TRIGRAM_SYMBOLS * s3;
}

constexpr int32_t trigram_id(unsigned char c1, unsigned char c2, unsigned char c3) {
  return trigram_number(trigram_symbol(c1), trigram_symbol(c2), trigram_symbol(c3));
}

// Writes the three decoded characters and a NUL into `out`. With a non-zero
// `bound` (the trigram count of an index), an id at or above it is refused
// with -1; otherwise returns 0.
int trigram_name(int32_t id, char out[4], int32_t bound = 0);

// A set of trigram ids as a bitmap of TRIGRAM_COUNT bits.
class trigram_bitmap {
 public:
  trigram_bitmap() : words_((TRIGRAM_COUNT + 63) / 64, 0) {}
  void set(int32_t id) { words_[id >> 6] |= uint64_t{1} << (id & 63); }
  bool test(int32_t id) const { return (words_[id >> 6] >> (id & 63)) & 1; }
  void clear() { std::fill(words_.begin(), words_.end(), 0); }
  // Ids of the set bits, ascending.
  std::vector<int32_t> ids() const;

 private:
  std::vector<uint64_t> words_;
};

// Adds the trigrams of `text` to `bits`: interior trigrams, plus "^^c0" and
// "^c0c1" when anchored at the start and "cn^^" and "cn-1cn^" when anchored
// at the end.
void add_literal_trigrams(trigram_bitmap& bits, std::string_view text, bool anchored_start,
                          bool anchored_end);

// The ascending, distinct trigram ids of a literal cut as above.
std::vector<int32_t> literal_trigram_ids(std::string_view text, bool anchored_start, bool anchored_end);

// The trigram-set node of a literal cut as above (possibly with no ids).
trigram_query_ptr literal_trigrams(std::string_view text, bool anchored_start, bool anchored_end);

// Evaluates a query against the trigrams present in a line. A null node, and
// any node without ids or members, means "no constraint" and accepts.
bool trigram_query_accepts(const trigram_query* q, const trigram_bitmap& present);
