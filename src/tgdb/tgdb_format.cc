#include "tgdb/tgdb_format.h"

#include "libmy/ubuf.h"

namespace {

bool outside(std::string& err, const char* region) {
  err.clear();
  ubuf_add_fmt(err, "Error: trigram index region lies outside the file: %s", region);
  return false;
}

// [offset, offset + size) overlaps [begin, begin + length).
bool overlaps(uint64_t offset, uint64_t size, uint64_t begin, uint64_t length) {
  return length != 0 && offset < begin + length && begin < offset + size;
}

}  // namespace

void tgdb_header_encode(const tgdb_header& h, uint8_t* out) {
  using namespace tgdb_field;
  memset(out, 0, TGDB_HEADER_SIZE);
  memcpy(out, TGDB_MAGIC, sizeof TGDB_MAGIC);
  tgdb_put_le(out + flags, h.flags, 4);
  tgdb_put_le(out + nref_length, h.nref_length, 4);
  tgdb_put_le(out + string_table_size, h.string_table_size, 8);
  tgdb_put_le(out + line_index_size, h.line_index_size, 8);
  tgdb_put_le(out + line_count, h.line_count, 8);
  tgdb_put_le(out + first_seen, h.first_seen, 4);
  tgdb_put_le(out + last_seen, h.last_seen, 4);
}

tgdb_header tgdb_header_decode(const uint8_t* in) {
  using namespace tgdb_field;
  tgdb_header h;
  h.flags = tgdb_get_u32(in + flags);
  h.nref_length = tgdb_get_u32(in + nref_length);
  h.string_table_size = tgdb_get_u64(in + string_table_size);
  h.line_index_size = tgdb_get_u64(in + line_index_size);
  h.line_count = tgdb_get_u64(in + line_count);
  h.first_seen = tgdb_get_u32(in + first_seen);
  h.last_seen = tgdb_get_u32(in + last_seen);
  return h;
}

bool tgdb_locate(std::span<const uint8_t> file, tgdb_header& h, tgdb_layout& out, std::string& err) {
  const uint64_t size = file.size();
  if (size < TGDB_MIN_SIZE) {
    err.clear();
    ubuf_add_fmt(err, "Error: trigram index was smaller than minimum header size of %zu bytes", TGDB_MIN_SIZE);
    return false;
  }
  const uint8_t* f = file.data();
  if (memcmp(f, TGDB_MAGIC, sizeof TGDB_MAGIC) != 0) {
    err = "Error: trigram database was missing magic header value!";
    return false;
  }
  h = tgdb_header_decode(f);

  const uint64_t r = h.nref_size();
  if (r != 0 && r < TGDB_NREF_SIZE) {
    err = "Error: real nref table was shorter than expected!";
    return false;
  }
  out.nref_offset = r ? TGDB_HEADER_SIZE : 0;
  out.directory_offset = TGDB_HEADER_SIZE + r;
  out.directory_end = out.directory_offset + TGDB_DIR_SIZE;
  if (out.directory_end > size) return outside(err, "posting directory");

  // The sizes may be anything: compare against what is left of the file
  // rather than add them up.
  const uint64_t s = h.string_table_size, l = h.line_index_size;
  const uint64_t p1 = tgdb_string_table_offset(r);
  if (p1 > size || s > size - p1) return outside(err, "string table");
  const uint64_t p2 = tgdb_line_index_offset(p1, s);
  if (p2 > size || l > size - p2) return outside(err, "line index");
  out.string_table_offset = p1;
  out.string_table_size = s;
  out.line_index_offset = p2;
  out.line_index_size = l;
  out.end = tgdb_round_up(p2 + l);
  return true;
}

const char* tgdb_posting_misplaced(const tgdb_dir_entry& e, const tgdb_layout& layout, uint64_t file_size) {
  if (e.empty()) return nullptr;
  if (e.count > file_size / TGDB_REF_SIZE || e.offset > file_size - e.count * TGDB_REF_SIZE)
    return "lies outside the file";
  const uint64_t bytes = e.count * TGDB_REF_SIZE;
  if (e.offset < layout.directory_end) return "points into the header";
  if (overlaps(e.offset, bytes, layout.string_table_offset, layout.string_table_size))
    return "overlaps the string table";
  if (overlaps(e.offset, bytes, layout.line_index_offset, layout.line_index_size)) return "overlaps the line index";
  return nullptr;
}

void tgdb_line_entry_encode(const tgdb_line_entry& entry, uint8_t* out) {
  tgdb_put_le(out, entry.offset, 8);
  for (int j = 0; j < 3; ++j) tgdb_put_le(out + 8 + 2 * j, entry.half_distance[j], 2);
}

std::vector<int32_t> tgdb_line_trigrams(std::string_view line) {
  return literal_trigram_ids(line.substr(0, line.find('\t')), true, true);
}
