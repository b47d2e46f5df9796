// Runs one search over several index files and merges equal records.
//
// Each added file contributes a stream of candidate lines; a heap keeps one
// entry per file ordered by record key, so the lines of all files come out
// as one sorted sequence. The first line of every key is confirmed with the
// matcher (once for consecutive keys with the same text, such as the records
// of one name in byname files); every line with that key from every file is
// then folded into one search_result, which is filtered by type, time and
// count before it is handed out.
//
// A file whose part of the search ends early (damage, a file that shrank)
// or that could not take part at all makes the search incomplete: the other
// files go on, and incomplete() tells the driver that the answer is partial.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "libmy/heap.h"
#include "tgdb/search_context.h"
#include "tgdb/search_result.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_iter.h"

class tgdb_merger {
 public:
  // Over the files of one kind; files of another kind are ignored.
  tgdb_merger(search_context& ctx, tgdb_kind kind);
  ~tgdb_merger();
  tgdb_merger(const tgdb_merger&) = delete;
  tgdb_merger& operator=(const tgdb_merger&) = delete;

  // Admits one index file, unless the file-level time filter rules it out
  // or it has no candidate line. A deadline that passes here finishes the
  // whole search.
  void add_file(tgdb_ptr index);

  // The next merged and filtered result in key order; null when the search
  // is over or the deadline passed during this call.
  std::unique_ptr<search_result> next();

  // Counts a file of the search that could not take part (the caller has
  // said why).
  void file_failed() { ++failed_files_; }
  // True when some file's part of the search failed: the results are then
  // not the whole answer.
  bool incomplete() const { return failed_files_ != 0; }

  tgdb_kind kind() const { return kind_; }
  bool finished() const { return finished_; }

 private:
  struct file_entry;
  using entry_ptr = std::unique_ptr<file_entry>;
  using compare_fn = int (*)(std::string_view, std::string_view);
  using merge_fn = void (*)(std::unique_ptr<search_result>& slot, std::string_view line);
  // How the lines of one kind fold into results; they come in the kind's
  // order (kind_lines.h).
  static merge_fn merge_of(tgdb_kind kind);
  struct entry_order {
    compare_fn compare;
    int operator()(const entry_ptr& a, const entry_ptr& b) const;
  };

  std::unique_ptr<search_result> gather();
  std::unique_ptr<search_result> finish(std::unique_ptr<search_result> res) const;
  // Moves the entry's source to its next line; false (with a failed source
  // counted) when it has none.
  bool advance(file_entry& entry);
  // Whether the pattern matches `key`, asked once for a run of results
  // with the same key.
  bool key_matches(std::string_view key);
  void count_read(file_entry& entry);

  search_context& ctx_;
  compare_fn compare_;
  merge_fn merge_;
  heap<entry_ptr, entry_order> heap_;
  std::string current_key_;  // whole line that opened the key being gathered
  bool has_key_ = false;
  tgdb_kind kind_;
  std::string matched_key_;  // the key last handed to the matcher, and its verdict
  bool has_matched_key_ = false;
  bool key_matched_ = false;
  bool finished_ = false;
  int64_t earliest_first_seen_ = 0;  // over the added files with a time range; 0: none yet
  int64_t latest_last_seen_ = 0;
  size_t failed_files_ = 0;
};

// The driver's name for fetching a result.
inline std::unique_ptr<search_result> search_next(tgdb_merger& search) { return search.next(); }

// Folds one line into the result in `slot`, creating the result when the
// slot is empty. A line that does not parse contributes nothing (and leaves
// a slot it would have filled empty).
void merge_rrname(std::unique_ptr<search_result>& slot, std::string_view line);
void merge_rdata(std::unique_ptr<search_result>& slot, std::string_view line);
