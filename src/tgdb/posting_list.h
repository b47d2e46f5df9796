// Posting lists: one trigram's ascending line numbers as 5-byte big-endian
// 40-bit entries, whose top bits give the kind:
//   bits 39-37 clear  a single line number
//   bit 39            range start; the next entry, with bit 38, ends it
//   bit 38            range end
//   bit 37            one to four deltas from the entry before it, which
//                     must be a single or a range end; bits 35-32 flag deltas
//                     1-4, held in bytes 3..0; a delta is 16 bits wide when
//                     the next one is absent, except that with bit 36 set
//                     the last one is always 8 bits wide
// Both the encoder (for the writer) and the decoder (for the readers and the
// verifier) live here.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tgdb/tgdb_format.h"

inline constexpr uint64_t TGDB_REF_RANGE_START = uint64_t{1} << 39;
inline constexpr uint64_t TGDB_REF_RANGE_END = uint64_t{1} << 38;
inline constexpr uint64_t TGDB_REF_PACKED = uint64_t{1} << 37;
inline constexpr uint64_t TGDB_REF_PACKED_SHORT = uint64_t{1} << 36;
inline constexpr uint64_t TGDB_REF_KIND_BITS = TGDB_REF_RANGE_START | TGDB_REF_RANGE_END | TGDB_REF_PACKED;

// One trigram's list: `count` entries at `entries`, or none.
struct posting_list {
  const uint8_t* entries = nullptr;
  uint64_t count = 0;
  uint64_t nref = 0;  // lines holding the trigram, when the file says so

  bool empty() const { return entries == nullptr || count == 0; }
  uint64_t ref(uint64_t i) const {
    const uint8_t* p = entries + i * TGDB_REF_SIZE;
    return uint64_t{p[0]} << 32 | uint64_t{p[1]} << 24 | uint64_t{p[2]} << 16 | uint64_t{p[3]} << 8 | p[4];
  }
  bool is_range_end(uint64_t i) const { return ref(i) & TGDB_REF_RANGE_END; }
};

// A list held in memory (for tests and benchmarks).
inline posting_list posting_list_of(std::span<const uint8_t> bytes) {
  return {bytes.data(), bytes.size() / TGDB_REF_SIZE};
}

enum class posting_fault : uint8_t {
  none,
  packed_first,       // a packed entry with nothing before it
  packed_bad_base,    // the entry before a packed one is not a single
  packed_empty,       // no delta flagged
  packed_zero_delta,  // a delta of 0 repeats a line
  range_end_first,    // a range end where an entry should start
  range_missing_end,  // a range start at the end of the list
  range_bad_end,      // a range start not followed by a range end
  range_reversed,     // a range that ends before it starts
  descending,         // an entry that does not follow its neighbour's lines
};

// One decoded entry: the lines from `first` to `last`, every one of them for
// a single or a range, only the `packed` values for a packed entry.
struct posting_entry {
  uint64_t first = 0;
  uint64_t last = 0;
  uint64_t packed[4] = {};
  uint8_t packed_count = 0;  // 0: a single or a range
  uint64_t end = 0;          // index of the entry's last 5-byte entry (a range's end)
};

// Decodes the entry that starts at index `i` (below list.count).
inline posting_fault decode_posting_entry(const posting_list& list, uint64_t i, posting_entry& out) {
  const uint64_t v = list.ref(i);
  out.end = i;
  out.packed_count = 0;
  if (v & TGDB_REF_PACKED) {
    if (i == 0) return posting_fault::packed_first;
    const uint64_t prev = list.ref(i - 1);
    if (prev & (TGDB_REF_RANGE_START | TGDB_REF_PACKED)) return posting_fault::packed_bad_base;
    const bool short_last = v & TGDB_REF_PACKED_SHORT;
    const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    int last_present = -1;
    for (int k = 0; k < 4; ++k)
      if ((v >> (35 - k)) & 1) last_present = k;
    uint64_t line = prev & ~TGDB_REF_KIND_BITS;
    uint8_t n = 0;
    for (int k = 0; k <= last_present; ++k) {
      if (!((v >> (35 - k)) & 1)) continue;
      const bool next_absent = k < 3 && !((v >> (34 - k)) & 1);
      const bool wide = next_absent && !(short_last && k == last_present);
      const uint64_t delta = wide ? (uint64_t{b[k]} << 8 | b[k + 1]) : b[k];
      if (delta == 0) return posting_fault::packed_zero_delta;
      line += delta;
      out.packed[n++] = line;
    }
    if (n == 0) return posting_fault::packed_empty;
    out.packed_count = n;
    out.first = out.packed[0];
    out.last = out.packed[n - 1];
    return posting_fault::none;
  }
  if (v & TGDB_REF_RANGE_END) return posting_fault::range_end_first;
  if (!(v & TGDB_REF_RANGE_START)) {
    out.first = out.last = v;
    return posting_fault::none;
  }
  if (i + 1 >= list.count) return posting_fault::range_missing_end;
  const uint64_t end = list.ref(i + 1);
  if (!(end & TGDB_REF_RANGE_END)) return posting_fault::range_bad_end;
  out.first = v & ~TGDB_REF_RANGE_START;
  out.last = end & ~TGDB_REF_RANGE_END;
  out.end = i + 1;
  return out.first <= out.last ? posting_fault::none : posting_fault::range_reversed;
}

// The log lines for `fault` met at entry `i` of trigram `trigram`'s list.
// `before` is the last line of the entry decoded before, for `descending`.
std::vector<std::string> describe_posting_fault(const posting_list& list, uint64_t i, posting_fault fault,
                                                int32_t trigram, uint64_t before = 0);

// Encodes ascending, distinct line numbers (each below 2^37) fed one at a
// time: ranges for runs, packed deltas where they fit, singles otherwise.
class posting_encoder {
 public:
  void add(uint64_t line);
  // Flushes what is pending; the output is complete afterwards.
  void finish();
  const std::vector<uint8_t>& bytes() const { return out_; }
  std::vector<uint8_t>& bytes() { return out_; }
  uint64_t values() const { return values_; }

 private:
  void put(uint64_t v);
  void put_run();
  void drain(bool final);
  int pack(uint64_t& entry) const;

  std::vector<uint8_t> out_;
  uint64_t pending_[5] = {};
  uint8_t npending_ = 0;
  bool in_run_ = false;  // a run long enough for a range is being extended
  uint64_t run_start_ = 0, run_end_ = 0;
  bool has_base_ = false;  // the last entry can serve as a packed entry's base
  uint64_t base_ = 0;
  uint64_t values_ = 0;
};

// The whole encoding of a list at once.
std::vector<uint8_t> encode_posting_list(std::span<const uint64_t> lines);
