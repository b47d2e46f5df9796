// The one description of a tgdb index file, for the loader, the writer and
// the verifier. Integers are little-endian; offsets count from the start of
// the file. N = TRIGRAM_COUNT, R = the nref table's length.
//
//   0   magic "QXVTRI\0\0"          8   flags (u32)          12  R (u32)
//   16  string table length S      24  line index length L
//   32  line count (the writer's; the reader ignores it)
//   40  earliest first-seen (u32)   44  latest last-seen (u32)
//   48  nref table, R bytes when flag 0x4000 and R != 0: N u64 line counts
//   48 + R  directory: N entries {u64 entry count, u64 offset of the first
//       5-byte posting entry}; a zero count or offset means no list
//   P1 = round-up(48 + R + 16N, 4096)   string table: S bytes of lines
//   P2 = round-up(P1 + S, 4096)         line index: one 14-byte entry per 64
//                                       lines {u64 offset of line 64k, then
//                                       three u16 half-distances to lines
//                                       64k+16, +32, +48 (0: not recorded)}
//   round-up(P2 + L, 4096)              end of the fixed regions; the writer
//                                       puts the posting lists from here on
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "trigram/trigram.h"

inline constexpr uint32_t TGDB_FLAG_TIME_RANGE = 0x200;
inline constexpr uint32_t TGDB_FLAG_NREF = 0x4000;
inline constexpr uint32_t TGDB_FLAG_RDATA = 0x8000;
// With TGDB_FLAG_RDATA: the lines link owner names and values (tgdb_kind.h).
inline constexpr uint32_t TGDB_FLAG_BYNAME = 0x10000;
inline constexpr uint32_t TGDB_FLAG_BYVALUE = 0x20000;

inline constexpr char TGDB_MAGIC[8] = {'Q', 'X', 'V', 'T', 'R', 'I', 0, 0};
inline constexpr size_t TGDB_HEADER_SIZE = 48;
inline constexpr size_t TGDB_DIR_ENTRY_SIZE = 16;
inline constexpr size_t TGDB_DIR_SIZE = size_t{TRIGRAM_COUNT} * TGDB_DIR_ENTRY_SIZE;
inline constexpr size_t TGDB_MIN_SIZE = TGDB_HEADER_SIZE + TGDB_DIR_SIZE;
inline constexpr size_t TGDB_NREF_SIZE = size_t{TRIGRAM_COUNT} * 8;
inline constexpr size_t TGDB_PAGE = 4096;
inline constexpr size_t TGDB_LINE_ENTRY_SIZE = 14;
inline constexpr size_t TGDB_LINES_PER_ENTRY = 64;
inline constexpr size_t TGDB_LINES_PER_CHECKPOINT = 16;
inline constexpr size_t TGDB_REF_SIZE = 5;  // one posting entry

constexpr uint64_t tgdb_round_up(uint64_t x) { return (x + TGDB_PAGE - 1) / TGDB_PAGE * TGDB_PAGE; }

// Little-endian reads and writes of unaligned file bytes.
template <class T>
inline T tgdb_get_le(const uint8_t* p) {
  T v;
  memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::big) {
    T r = 0;
    for (size_t i = 0; i < sizeof v; ++i) r = T(r << 8 | p[sizeof v - 1 - i]);
    v = r;
  }
  return v;
}
inline uint64_t tgdb_get_u64(const uint8_t* p) { return tgdb_get_le<uint64_t>(p); }
inline uint32_t tgdb_get_u32(const uint8_t* p) { return tgdb_get_le<uint32_t>(p); }
inline uint16_t tgdb_get_u16(const uint8_t* p) { return tgdb_get_le<uint16_t>(p); }
inline void tgdb_put_le(uint8_t* p, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = uint8_t(v >> (8 * i));
}

// Where each header field lies.
namespace tgdb_field {
inline constexpr size_t flags = 8, nref_length = 12, string_table_size = 16, line_index_size = 24, line_count = 32,
                        first_seen = 40, last_seen = 44;
}

struct tgdb_header {
  uint32_t flags = 0;
  uint32_t nref_length = 0;        // R as stored; a table only with TGDB_FLAG_NREF
  uint64_t string_table_size = 0;  // S
  uint64_t line_index_size = 0;    // L
  uint64_t line_count = 0;
  uint32_t first_seen = 0;  // valid with TGDB_FLAG_TIME_RANGE
  uint32_t last_seen = 0;

  bool has_time_range() const { return flags & TGDB_FLAG_TIME_RANGE; }
  // The nref table's length as the reader takes it: 0 without the flag.
  uint64_t nref_size() const { return flags & TGDB_FLAG_NREF ? nref_length : 0; }
};

// Writes the magic and the fields into the first TGDB_HEADER_SIZE bytes.
void tgdb_header_encode(const tgdb_header& h, uint8_t* out);
// Reads the fields of the first TGDB_HEADER_SIZE bytes (the magic is not
// checked here).
tgdb_header tgdb_header_decode(const uint8_t* in);

// Where the regions lie. Every offset and size is inside the file once
// tgdb_locate succeeded.
struct tgdb_layout {
  uint64_t nref_offset = 0;  // 0: no nref table
  uint64_t directory_offset = 0;
  uint64_t directory_end = 0;  // where the header's part of the file ends
  uint64_t string_table_offset = 0;
  uint64_t string_table_size = 0;
  uint64_t line_index_offset = 0;
  uint64_t line_index_size = 0;
  uint64_t end = 0;  // end of the fixed regions (page-aligned)
};

// The offsets of a file whose nref table is `nref_size` bytes and whose
// string table is `string_table_size` bytes (P1 and P2).
constexpr uint64_t tgdb_string_table_offset(uint64_t nref_size) { return tgdb_round_up(TGDB_MIN_SIZE + nref_size); }
constexpr uint64_t tgdb_line_index_offset(uint64_t string_table_offset, uint64_t string_table_size) {
  return tgdb_round_up(string_table_offset + string_table_size);
}

// Reads the header of `file` and places its regions, checking that each
// lies inside the file. False with the reason in `err`: the minimum size,
// the magic, the nref table's length, or the region outside the file.
bool tgdb_locate(std::span<const uint8_t> file, tgdb_header& header, tgdb_layout& layout, std::string& err);

struct tgdb_dir_entry {
  uint64_t count = 0;   // 5-byte posting entries
  uint64_t offset = 0;  // of the first entry in the file
  bool empty() const { return count == 0 || offset == 0; }
};
inline tgdb_dir_entry tgdb_dir_entry_at(const uint8_t* directory, int32_t trigram) {
  const uint8_t* e = directory + size_t(trigram) * TGDB_DIR_ENTRY_SIZE;
  return {tgdb_get_u64(e), tgdb_get_u64(e + 8)};
}

// Why the posting list a directory entry names cannot be read from a file
// of `file_size` bytes laid out as `layout`; null when it can. A list must
// lie inside the file, past the directory, and clear of the string table
// and the line index.
const char* tgdb_posting_misplaced(const tgdb_dir_entry& e, const tgdb_layout& layout, uint64_t file_size);

// One line index entry: where line 64k starts, and the distances to lines
// 64k+16, +32 and +48 in units of two bytes (0: not recorded, which ends the
// chain). An odd distance lands on the newline before the line.
struct tgdb_line_entry {
  uint64_t offset = 0;
  uint16_t half_distance[3] = {};
};
inline tgdb_line_entry tgdb_line_entry_at(std::span<const uint8_t> index, uint64_t k) {
  const uint8_t* e = index.data() + k * TGDB_LINE_ENTRY_SIZE;
  return {tgdb_get_u64(e), {tgdb_get_u16(e + 8), tgdb_get_u16(e + 10), tgdb_get_u16(e + 12)}};
}
void tgdb_line_entry_encode(const tgdb_line_entry& entry, uint8_t* out);

// The trigrams a line is indexed under: those of its key (the text before
// the first tab), anchored at both ends.
std::vector<int32_t> tgdb_line_trigrams(std::string_view line);
