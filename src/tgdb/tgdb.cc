#include "tgdb/tgdb.h"

#include <unistd.h>

#include "libmy/my_regular_file.h"
#include "libmy/my_text.h"
#include "libmy/ubuf.h"
#include "log/log.h"
#include "tgdb/kind_lines.h"
#include "tgdb/record_line.h"

namespace {

// Closes a descriptor when the scope ends.
struct fd_guard {
  int fd = -1;
  ~fd_guard() {
    if (fd >= 0) close(fd);
  }
};

// Every posting list the directory names must be readable where it lies.
bool check_directory(const tgdb& db, std::string& err) {
  const uint8_t* dir = db.file().data() + db.layout().directory_offset;
  for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
    const char* why = tgdb_posting_misplaced(tgdb_dir_entry_at(dir, t), db.layout(), db.file().size());
    if (!why) continue;
    char name[4];
    trigram_name(t, name);
    err = ubuf_fmt("Error: trigram index region %s: posting list %s", why, name);
    return false;
  }
  return true;
}

// A flipped kind flag would have every line parsed the wrong way, and the
// file answer nothing: the flags must name a kind, and the first line must be
// of that kind.
bool check_kind(const tgdb& db, tgdb_kind& kind, std::string& err) {
  const auto named = tgdb_kind_of_flags(db.flags());
  if (!named) {
    err = ubuf_fmt("Error: trigram index flags 0x%x name no kind of index this version reads", db.flags());
    return false;
  }
  kind = *named;
  const std::string_view table = db.string_table();
  const std::string_view first = table.substr(0, table.find('\n'));
  if (first.empty()) return true;
  if (tgdb_kind_linked(kind)) {
    if (!kind_line_entries(kind, first).empty()) return true;
    err = ubuf_fmt("Error: trigram index is flagged as %s, but its first line is not a %s line", tgdb_kind_name(kind),
                   tgdb_kind_name(kind));
    return false;
  }
  const size_t tab = first.find('\t');
  const bool has_data = tab != std::string_view::npos && value_has_wire_form(first.substr(tab + 1));
  if (has_data == (kind == tgdb_kind::rdata)) return true;
  err = kind == tgdb_kind::rdata
            ? "Error: trigram index is flagged as rdata, but its first line holds no record data"
            : "Error: trigram index is flagged as owner names, but its first line holds record data";
  return false;
}

}  // namespace

posting_list tgdb::posting(int32_t id) const {
  posting_list p;
  if (id < 0 || id >= TRIGRAM_COUNT) return p;
  const tgdb_dir_entry e = tgdb_dir_entry_at(file_.data() + layout_.directory_offset, id);
  if (!e.empty()) {
    p.entries = file_.data() + e.offset;
    p.count = e.count;
  }
  if (layout_.nref_offset) p.nref = tgdb_get_u64(file_.data() + layout_.nref_offset + size_t(id) * 8);
  return p;
}

tgdb_ptr tgdb_load(const char* path, std::string& err) {
  std::shared_ptr<tgdb> db(new tgdb());
  size_t size = 0;
  std::string why;
  fd_guard fd{my_open_regular(path, why, &size)};
  if (fd.fd < 0) {
    err = ubuf_fmt("Error opening database file \"%s\": %s", visible_text(path).c_str(), why.c_str());
    return nullptr;
  }
  if (size > 0 && !db->file_.map(fd.fd, size, why)) {
    err = "mmap: " + why;
    return nullptr;
  }
  if (!tgdb_locate(db->file(), db->header_, db->layout_, err)) return nullptr;
  db->file_.set_text_region(db->layout_.string_table_offset, db->layout_.string_table_size);
  if (!check_directory(*db, err) || !check_kind(*db, db->kind_, err)) return nullptr;
  db->path_ = path;
  return db;
}

tgdb_ptr tgdb_open(const char* path) {
  std::string err;
  tgdb_ptr db = tgdb_load(path, err);
  if (!db) {
    log_printf(LOG_ERROR, "%s", err.c_str());
    log_printf(LOG_ERROR, "Error: could not deserialize trigram index from file: %s", visible_text(path).c_str());
    return nullptr;
  }
  log_printf(LOG_DEBUG, "String table successfully loaded (%zu bytes).", db->string_table().size());
  log_printf(LOG_DEBUG, "Index successfully loaded (%zu bytes).", db->line_index().size());
  return db;
}

tgdb_line_cursor::tgdb_line_cursor(const tgdb& index)
    : base_(index.string_table().data()),
      end_(index.string_table().data() + index.string_table().size()),
      index_(index.line_index()) {}

std::optional<std::string_view> tgdb_line_cursor::line(uint64_t n) {
  // Stepping on costs a newline search per line; the line index gets within
  // 16 lines of any line (n % 16 steps), plus its own lookup.
  const bool ahead = valid_ && n >= number_ && n - number_ <= n % TGDB_LINES_PER_CHECKPOINT + 1;
  if (!(ahead ? step_to(n) : seek_to(n))) {
    valid_ = false;
    return std::nullopt;
  }
  return std::string_view(start_, size_t(stop_ - start_));
}

// Sets stop_ at the newline that ends the line at start_ (or the end).
void tgdb_line_cursor::end_line() {
  const void* nl = memchr(start_, '\n', size_t(end_ - start_));
  stop_ = nl ? static_cast<const char*>(nl) : end_;
}

bool tgdb_line_cursor::step_to(uint64_t n) {
  while (number_ < n) {
    start_ = stop_ + 1;
    if (start_ >= end_) return false;
    end_line();
    ++number_;
  }
  return true;
}

bool tgdb_line_cursor::seek_to(uint64_t n) {
  const uint64_t k = n / TGDB_LINES_PER_ENTRY;
  if (k >= index_.size() / TGDB_LINE_ENTRY_SIZE) return false;
  const tgdb_line_entry e = tgdb_line_entry_at(index_, k);
  const uint64_t size = uint64_t(end_ - base_);
  uint64_t offset = e.offset;
  uint64_t reached = k * TGDB_LINES_PER_ENTRY;
  const unsigned quarter = (n / TGDB_LINES_PER_CHECKPOINT) % 4;
  for (unsigned j = 0; j < quarter && e.half_distance[j] != 0; ++j) {
    if (offset > size) return false;
    offset += 2 * uint64_t{e.half_distance[j]};
    reached += TGDB_LINES_PER_CHECKPOINT;
  }
  if (offset >= size) return false;
  const char* p = base_ + offset;
  // An offset may name the newline before its line; anywhere else but a
  // line start it would make a line out of the tail of another.
  if (*p == '\n') {
    ++p;
  } else if (p != base_ && p[-1] != '\n') {
    damaged_ = true;
    return false;
  }
  if (p >= end_) return false;
  start_ = p;
  end_line();
  number_ = reached;
  valid_ = true;
  __builtin_prefetch(p);
  return step_to(n);
}
