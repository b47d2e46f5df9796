// Writes a complete trigram index file from record lines that are already
// sorted in the order of the file's kind. Each line is indexed under the
// trigrams of its key (the text before the first tab), anchored at both ends.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct tgdb_write_options {
  bool rdata = false;           // keyed by record data rather than owner name
  bool has_time_range = false;  // first_seen/last_seen below are valid
  uint32_t first_seen = 0;      // earliest first-seen of the file's records
  uint32_t last_seen = 0;       // latest last-seen of the file's records
  bool sync = true;             // flush to stable storage before the rename
};

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

// Encodes an ascending list of distinct line numbers (each below 2^37) as
// posting list entries: ranges for runs, packed deltas where they fit,
// singles otherwise.
std::vector<uint8_t> encode_posting_list(std::span<const uint64_t> lines);

// The same encoding, fed one line number at a time.
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
  void drain(bool final);

  std::vector<uint8_t> out_;
  uint64_t pending_[5] = {};
  uint8_t npending_ = 0;
  bool in_run_ = false;  // a run long enough for a range is being extended
  uint64_t run_start_ = 0, run_end_ = 0;
  bool has_base_ = false;  // the last entry can serve as a packed entry's base
  uint64_t base_ = 0;
  uint64_t values_ = 0;
};
