// A loaded trigram index file (layout in tgdb_format.h): the whole file
// mapped once, read-only, with its header checked and its regions placed.
//
// Errors: a file that cannot serve as an index is the user's to fix, never
// a fatal error. tgdb_load gives the reason as a message; tgdb_open, the
// searches' loader, logs it (then "could not deserialize ... <path>") and
// returns null. Damage found later, while a search walks the file, ends
// that file's part of the search (see tgdb_iter.h).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tgdb/file_mapping.h"
#include "tgdb/posting_list.h"
#include "tgdb/tgdb_format.h"
#include "tgdb/tgdb_kind.h"

class tgdb {
 public:
  tgdb(const tgdb&) = delete;
  tgdb& operator=(const tgdb&) = delete;

  const std::string& path() const { return path_; }
  const tgdb_header& header() const { return header_; }
  const tgdb_layout& layout() const { return layout_; }
  uint32_t flags() const { return header_.flags; }
  tgdb_kind kind() const { return kind_; }
  bool is_rdata() const { return kind_ == tgdb_kind::rdata; }
  bool has_time_range() const { return header_.has_time_range(); }
  uint32_t first_seen() const { return header_.first_seen; }
  uint32_t last_seen() const { return header_.last_seen; }

  std::string_view string_table() const {
    return {reinterpret_cast<const char*>(file_.data() + layout_.string_table_offset),
            size_t(layout_.string_table_size)};
  }
  std::span<const uint8_t> line_index() const {
    return {file_.data() + layout_.line_index_offset, size_t(layout_.line_index_size)};
  }
  std::span<const uint8_t> file() const { return {file_.data(), file_.size()}; }

  // The posting list of trigram `id`; empty for ids out of range.
  posting_list posting(int32_t id) const;

  // True once the file was found to have shrunk while mapped: what is read
  // from it since cannot be trusted. Readers check after they read.
  bool lost() const { return file_.lost(); }

 private:
  friend std::shared_ptr<const tgdb> tgdb_load(const char* path, std::string& err);
  tgdb() = default;

  std::string path_;
  file_mapping file_;
  tgdb_header header_;  // a copy, so that it stays whatever happens to the file
  tgdb_kind kind_ = tgdb_kind::rrname;  // as its flags name it
  tgdb_layout layout_;
};

using tgdb_ptr = std::shared_ptr<const tgdb>;

// Opens, maps and checks an index file; null with the reason in `err`. Only
// regular files are opened. The handle stays mapped while any holder keeps
// a reference.
tgdb_ptr tgdb_load(const char* path, std::string& err);

// tgdb_load for the searches: failures are logged, success at debug level.
tgdb_ptr tgdb_open(const char* path);

// Finds lines of one index by number. Whoever walks the lines owns one; it
// remembers the line it gave last, so a walk that moves forward steps on from
// there instead of going back to the line index.
class tgdb_line_cursor {
 public:
  explicit tgdb_line_cursor(const tgdb& index);

  // Line `n` without its newline; none when the file has no such line, or
  // when the line index was found to point into the middle of a line
  // (damaged() then says so).
  std::optional<std::string_view> line(uint64_t n);
  bool damaged() const { return damaged_; }

 private:
  bool step_to(uint64_t n);
  bool seek_to(uint64_t n);
  void end_line();

  const char* base_;
  const char* end_;
  std::span<const uint8_t> index_;
  bool valid_ = false;  // number_, start_ and stop_ describe a line
  uint64_t number_ = 0;
  const char* start_ = nullptr;
  const char* stop_ = nullptr;  // its newline, or the end of the table
  bool damaged_ = false;
};
