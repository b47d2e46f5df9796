// A loaded trigram index file: header, posting directory, string table of
// record lines and the line index, all memory-mapped read-only.
//
// Layout (little-endian; N = TRIGRAM_COUNT, R = nref table length):
//   0   magic "QXVTRI\0\0"       8   flags (u32)        12  R (u32)
//   16  string table length S   24  line index length L
//   32  line count (not read)   40  earliest first-seen  44  latest last-seen
//   48  nref table (R bytes, when flag 0x4000), then N directory entries of
//       {u64 entry count, u64 file offset of the first 5-byte entry}
//   P1 = round-up(48 + 16N + R, 4096): string table (S bytes)
//   P2 = round-up(P1 + S, 4096): line index (L bytes, 14 per 64 lines)
// Posting lists lie wherever the directory points.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "trigram/trigram.h"

inline constexpr uint32_t TGDB_FLAG_TIME_RANGE = 0x200;
inline constexpr uint32_t TGDB_FLAG_NREF = 0x4000;
inline constexpr uint32_t TGDB_FLAG_RDATA = 0x8000;

inline constexpr char TGDB_MAGIC[8] = {'Q', 'X', 'V', 'T', 'R', 'I', 0, 0};
inline constexpr size_t TGDB_HEADER_SIZE = 48;
inline constexpr size_t TGDB_DIR_ENTRY_SIZE = 16;
inline constexpr size_t TGDB_MIN_SIZE = TGDB_HEADER_SIZE + size_t{TRIGRAM_COUNT} * TGDB_DIR_ENTRY_SIZE;
inline constexpr size_t TGDB_NREF_SIZE = size_t{TRIGRAM_COUNT} * 8;
inline constexpr size_t TGDB_PAGE = 4096;
inline constexpr size_t TGDB_LINE_ENTRY_SIZE = 14;
inline constexpr size_t TGDB_LINES_PER_ENTRY = 64;
inline constexpr size_t TGDB_REF_SIZE = 5;

// Posting list entries: 5-byte big-endian 40-bit values whose top bits give
// the kind (see tgdb_iter.h).
inline constexpr uint64_t TGDB_REF_RANGE_START = uint64_t{1} << 39;
inline constexpr uint64_t TGDB_REF_RANGE_END = uint64_t{1} << 38;
inline constexpr uint64_t TGDB_REF_PACKED = uint64_t{1} << 37;
inline constexpr uint64_t TGDB_REF_PACKED_SHORT = uint64_t{1} << 36;

inline uint64_t tgdb_ref_at(const uint8_t* entries, uint64_t i) {
  const uint8_t* p = entries + i * TGDB_REF_SIZE;
  return uint64_t{p[0]} << 32 | uint64_t{p[1]} << 24 | uint64_t{p[2]} << 16 | uint64_t{p[3]} << 8 | p[4];
}

constexpr uint64_t tgdb_round_up(uint64_t x) { return (x + TGDB_PAGE - 1) / TGDB_PAGE * TGDB_PAGE; }

// Little-endian reads from unaligned file bytes.
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

// A read-only shared mapping, unmapped on destruction. An empty region maps
// nothing.
class tgdb_mapping {
 public:
  tgdb_mapping() = default;
  tgdb_mapping(void* addr, size_t len) : addr_(addr), len_(len) {}
  ~tgdb_mapping();
  tgdb_mapping(tgdb_mapping&& o) noexcept;
  tgdb_mapping& operator=(tgdb_mapping&& o) noexcept;

  const uint8_t* data() const { return static_cast<const uint8_t*>(addr_); }
  size_t size() const { return len_; }

 private:
  void* addr_ = nullptr;
  size_t len_ = 0;
};

// One trigram's posting list: `count` 5-byte entries at `entries`, or none.
struct tgdb_posting {
  const uint8_t* entries = nullptr;
  uint64_t count = 0;
  uint64_t nref = 0;  // lines holding the trigram, when the file says so
  bool empty() const { return entries == nullptr || count == 0; }
};

class tgdb {
 public:
  ~tgdb();
  tgdb(const tgdb&) = delete;
  tgdb& operator=(const tgdb&) = delete;

  const std::string& path() const { return path_; }
  uint32_t flags() const { return tgdb_get_u32(file_.data() + 8); }
  bool is_rdata() const { return flags() & TGDB_FLAG_RDATA; }
  bool has_time_range() const { return flags() & TGDB_FLAG_TIME_RANGE; }
  uint32_t first_seen() const { return tgdb_get_u32(file_.data() + 40); }
  uint32_t last_seen() const { return tgdb_get_u32(file_.data() + 44); }
  // The word the writer uses for the line count (not needed for reading).
  uint64_t line_count_hint() const { return tgdb_get_u64(file_.data() + 32); }
  int32_t trigram_count() const { return TRIGRAM_COUNT; }

  std::string_view string_table() const {
    return {reinterpret_cast<const char*>(strings_.data()), strings_.size()};
  }
  std::span<const uint8_t> line_index() const { return {index_.data(), index_.size()}; }
  std::span<const uint8_t> file() const { return {file_.data(), file_.size()}; }

  // The posting list of trigram `id`; empty for ids out of range.
  tgdb_posting posting(int32_t id) const;

  // Identifies this handle for the per-thread line cache.
  uint64_t serial() const { return serial_; }

 private:
  friend std::shared_ptr<tgdb> tgdb_open(const char* path);
  tgdb() = default;

  std::string path_;
  tgdb_mapping file_;
  tgdb_mapping strings_;
  tgdb_mapping index_;
  const uint8_t* directory_ = nullptr;
  const uint8_t* nref_ = nullptr;  // null when the file has no nref table
  uint64_t serial_ = 0;
};

using tgdb_ptr = std::shared_ptr<tgdb>;

// Maps and checks an index file; logs and returns null on failure. The
// handle stays mapped while any holder keeps a reference.
std::shared_ptr<tgdb> tgdb_open(const char* path);

// The trigram's three-character name; -1 when `index` is given and the id
// is out of its range.
int tgdb_trigram_name(int32_t id, char out[4], const tgdb* index);

// Start of line `n` in the string table, or null when there is no such
// line. A line ends at its newline (or at the end of the table). Consecutive
// lookups n, n+1 on one thread cost one newline search.
const char* tgdb_line(const tgdb& index, uint64_t n);

// The line that starts at `p` (as returned by tgdb_line), without its newline.
std::string_view tgdb_line_text(const tgdb& index, const char* p);
