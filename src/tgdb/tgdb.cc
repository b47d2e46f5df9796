#include "tgdb/tgdb.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "log/log.h"

namespace {

std::atomic<uint64_t> next_serial{1};

// Closes a descriptor when the scope ends.
struct fd_guard {
  int fd = -1;
  ~fd_guard() {
    if (fd >= 0) close(fd);
  }
};

// Maps `len` bytes at `offset` of `path` through a descriptor of its own.
// Failures are reported perror-style as "open" or "mmap".
bool map_region(const char* path, uint64_t offset, uint64_t len, tgdb_mapping& out) {
  if (len == 0) return true;
  fd_guard fd{open(path, O_RDONLY | O_CLOEXEC)};
  if (fd.fd < 0) {
    perror("open");
    return false;
  }
  void* addr = mmap(nullptr, len, PROT_READ, MAP_SHARED, fd.fd, static_cast<off_t>(offset));
  if (addr == MAP_FAILED) {
    perror("mmap");
    return false;
  }
  out = tgdb_mapping(addr, len);
  return true;
}

// Fills the handle; false after logging the specific failure.
bool load(tgdb_mapping& file_map, const char* path, uint64_t& nref_offset, uint64_t& dir_offset) {
  fd_guard fd{open(path, O_RDONLY | O_CLOEXEC)};
  if (fd.fd < 0) {
    log_printf(LOG_ERROR, "Error opening database file \"%s\": %s", path, strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(fd.fd, &st) != 0) {
    log_printf(LOG_ERROR, "fstat: %s", strerror(errno));
    return false;
  }
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size < TGDB_MIN_SIZE) {
    log_printf(LOG_ERROR, "Error: trigram index was smaller than minimum header size of %zu bytes",
               TGDB_MIN_SIZE);
    return false;
  }
  void* addr = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.fd, 0);
  if (addr == MAP_FAILED) {
    log_printf(LOG_ERROR, "mmap: %s", strerror(errno));
    return false;
  }
  file_map = tgdb_mapping(addr, size);
  const uint8_t* f = file_map.data();
  if (memcmp(f, TGDB_MAGIC, sizeof TGDB_MAGIC) != 0) {
    log_printf(LOG_ERROR, "Error: trigram database was missing magic header value!");
    return false;
  }
  uint64_t r = 0;
  if ((tgdb_get_u32(f + 8) & TGDB_FLAG_NREF) && tgdb_get_u32(f + 12) != 0) {
    r = tgdb_get_u32(f + 12);
    if (r < TGDB_NREF_SIZE) {
      log_printf(LOG_ERROR, "Error: real nref table was shorter than expected!");
      return false;
    }
    nref_offset = TGDB_HEADER_SIZE;
  }
  dir_offset = TGDB_HEADER_SIZE + r;

  // The file may come from anywhere: every region it names must lie inside
  // it, so that no later read can leave the mapping.
  const uint64_t s = tgdb_get_u64(f + 16);
  const uint64_t l = tgdb_get_u64(f + 24);
  const uint64_t p1 = tgdb_round_up(TGDB_MIN_SIZE + r);
  if (p1 > size || s > size - p1) {
    log_printf(LOG_ERROR, "Error: trigram index region lies outside the file: %s", "string table");
    return false;
  }
  const uint64_t p2 = tgdb_round_up(p1 + s);
  if (p2 > size || l > size - p2) {
    log_printf(LOG_ERROR, "Error: trigram index region lies outside the file: %s", "line index");
    return false;
  }
  const uint8_t* dir = f + dir_offset;
  for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
    const uint8_t* e = dir + size_t(t) * TGDB_DIR_ENTRY_SIZE;
    uint64_t count = tgdb_get_u64(e), offset = tgdb_get_u64(e + 8);
    if (count == 0 || offset == 0) continue;
    if (count > size / TGDB_REF_SIZE || offset > size - count * TGDB_REF_SIZE) {
      char name[4];
      trigram_name(t, name);
      log_printf(LOG_ERROR, "Error: trigram index region lies outside the file: posting list %s", name);
      return false;
    }
  }
  return true;
}

struct line_cache {
  uint64_t serial = 0;
  uint64_t number = 0;
  const char* ptr = nullptr;
};
thread_local line_cache cached_line;

}  // namespace

tgdb_mapping::~tgdb_mapping() {
  if (addr_) munmap(addr_, len_);
}

tgdb_mapping::tgdb_mapping(tgdb_mapping&& o) noexcept
    : addr_(std::exchange(o.addr_, nullptr)), len_(std::exchange(o.len_, 0)) {}

tgdb_mapping& tgdb_mapping::operator=(tgdb_mapping&& o) noexcept {
  if (this != &o) {
    if (addr_) munmap(addr_, len_);
    addr_ = std::exchange(o.addr_, nullptr);
    len_ = std::exchange(o.len_, 0);
  }
  return *this;
}

tgdb::~tgdb() = default;

tgdb_posting tgdb::posting(int32_t id) const {
  tgdb_posting p;
  if (id < 0 || id >= TRIGRAM_COUNT) return p;
  const uint8_t* e = directory_ + size_t(id) * TGDB_DIR_ENTRY_SIZE;
  p.count = tgdb_get_u64(e);
  uint64_t offset = tgdb_get_u64(e + 8);
  if (offset != 0 && p.count != 0) p.entries = file_.data() + offset;
  if (nref_) p.nref = tgdb_get_u64(nref_ + size_t(id) * 8);
  return p;
}

std::shared_ptr<tgdb> tgdb_open(const char* path) {
  std::shared_ptr<tgdb> db(new tgdb());
  uint64_t nref_offset = 0, dir_offset = 0;
  bool ok = load(db->file_, path, nref_offset, dir_offset);
  if (ok) {
    const uint8_t* f = db->file_.data();
    const uint64_t s = tgdb_get_u64(f + 16), l = tgdb_get_u64(f + 24);
    const uint64_t p1 = tgdb_round_up(dir_offset + size_t{TRIGRAM_COUNT} * TGDB_DIR_ENTRY_SIZE);
    const uint64_t p2 = tgdb_round_up(p1 + s);
    if (!map_region(path, p1, s, db->strings_)) {
      log_printf(LOG_ERROR, "Error: could not map string table from unified tgdb file: %s", path);
      ok = false;
    } else {
      log_printf(LOG_DEBUG, "String table successfully loaded (%zu bytes).", size_t(s));
      if (!map_region(path, p2, l, db->index_)) {
        log_printf(LOG_ERROR, "Error: could not map index table from unified tgdb file: %s", path);
        ok = false;
      } else {
        log_printf(LOG_DEBUG, "Index successfully loaded (%zu bytes).", size_t(l));
      }
    }
    if (ok) {
      db->directory_ = f + dir_offset;
      db->nref_ = nref_offset ? f + nref_offset : nullptr;
    }
  }
  if (!ok) {
    log_printf(LOG_ERROR, "Error: could not deserialize trigram index from file: %s", path);
    return nullptr;
  }
  db->path_ = path;
  db->serial_ = next_serial.fetch_add(1, std::memory_order_relaxed);
  return db;
}

int tgdb_trigram_name(int32_t id, char out[4], const tgdb* index) {
  return trigram_name(id, out, index ? index->trigram_count() : 0);
}

const char* tgdb_line(const tgdb& index, uint64_t n) {
  line_cache& c = cached_line;
  const std::string_view table = index.string_table();
  const char* const base = table.data();
  const char* const end = base + table.size();

  if (c.serial == index.serial() && c.ptr) {
    if (n == c.number) return c.ptr;
    if (n == c.number + 1) {
      // Cached pointers are always inside the table, so end - 1 >= c.ptr.
      const void* nl = memchr(c.ptr, '\n', size_t(end - 1 - c.ptr));
      c.number = n;
      c.ptr = nl ? static_cast<const char*>(nl) + 1 : nullptr;
      return c.ptr;
    }
  }
  c.serial = index.serial();
  c.number = n;
  c.ptr = nullptr;

  const std::span<const uint8_t> lines = index.line_index();
  const uint64_t entries = lines.size() / TGDB_LINE_ENTRY_SIZE;
  if (n >= (entries + 1) * TGDB_LINES_PER_ENTRY) return nullptr;
  const uint64_t k = n / TGDB_LINES_PER_ENTRY;
  // The last block's line numbers pass the check above without an entry.
  if (k >= entries) return nullptr;

  const uint8_t* e = lines.data() + k * TGDB_LINE_ENTRY_SIZE;
  uint64_t offset = tgdb_get_u64(e);
  uint64_t reached = k * TGDB_LINES_PER_ENTRY;
  const unsigned quarter = (n / 16) % 4;
  for (unsigned j = 0; j < quarter; ++j) {
    uint16_t d = tgdb_get_u16(e + 8 + 2 * j);
    if (d == 0) break;
    if (offset > table.size()) return nullptr;
    offset += 2 * uint64_t{d};
    reached += 16;
  }
  if (offset >= table.size()) return nullptr;
  const char* p = base + offset;
  if (*p == '\n') ++p;
  if (p >= end) return nullptr;
  while (reached < n) {
    const void* nl = memchr(p, '\n', size_t(end - p));
    if (!nl) return nullptr;
    p = static_cast<const char*>(nl) + 1;
    if (p >= end) return nullptr;
    ++reached;
  }
  __builtin_prefetch(p);
  c.ptr = p;
  return p;
}

std::string_view tgdb_line_text(const tgdb& index, const char* p) {
  const std::string_view table = index.string_table();
  const size_t rest = size_t(table.data() + table.size() - p);
  const void* nl = memchr(p, '\n', rest);
  return {p, nl ? size_t(static_cast<const char*>(nl) - p) : rest};
}
