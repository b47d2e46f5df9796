// Writes a complete trigram index file (layout in tgdb_format.h) from record
// lines that are already sorted in the order of the file's kind. Each line is
// indexed under tgdb_line_trigrams.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tgdb/tgdb_kind.h"

struct tgdb_write_options {
  tgdb_kind kind = tgdb_kind::rrname;
  bool rdata = false;           // the older spelling of kind = tgdb_kind::rdata, which it overrides
  bool has_time_range = false;  // first_seen/last_seen below are valid
  uint32_t first_seen = 0;      // earliest first-seen of the file's records
  uint32_t last_seen = 0;       // latest last-seen of the file's records
  bool sync = true;             // flush to stable storage before the rename
};

// The kind a file written with `opts` is flagged as.
inline tgdb_kind tgdb_write_kind(const tgdb_write_options& opts) {
  return opts.rdata ? tgdb_kind::rdata : opts.kind;
}

// Writes `lines` (each without its newline; none empty, none holding a
// newline) as an index file at `path`. The file is written under a
// temporary name and renamed into place, so `path` never holds a partial
// index. On failure returns false with a message in *err (when given).
bool tgdb_write(const std::string& path, std::span<const std::string_view> lines,
                const tgdb_write_options& opts, std::string* err);

// Streaming form of tgdb_write for callers that produce lines one by one.
class tgdb_writer {
 public:
  tgdb_writer();
  ~tgdb_writer();  // an unfinished writer removes its temporary file
  tgdb_writer(const tgdb_writer&) = delete;
  tgdb_writer& operator=(const tgdb_writer&) = delete;

  bool open(const std::string& path, const tgdb_write_options& opts, std::string* err);
  bool add(std::string_view line, std::string* err);
  // Writes the index, line index and posting lists, then renames the file
  // into place.
  bool finish(std::string* err);

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};
