// Runs one search over several index files and merges equal records.
//
// Each added file contributes a stream of candidate lines; a heap keeps one
// entry per file ordered by record key, so the lines of all files come out
// as one sorted sequence. The first line of every key is confirmed with the
// matcher; every line with that key from every file is then folded into one
// search_result, which is filtered by type, time and count before it is
// handed out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "libmy/heap.h"
#include "tgdb/search_result.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_iter.h"
#include "trigram/search_context.h"

class tgdb_merger {
 public:
  // Over owner-name files, or over rdata files when `rdata` is set; files of
  // the other kind are ignored.
  tgdb_merger(search_context& ctx, bool rdata);
  ~tgdb_merger();
  tgdb_merger(const tgdb_merger&) = delete;
  tgdb_merger& operator=(const tgdb_merger&) = delete;

  // Admits one index file, unless the file-level time filter rules it out
  // or it has no candidate line. A deadline that passes here finishes the
  // whole search.
  void add_file(std::shared_ptr<const tgdb> index);

  // The next merged and filtered result in key order; null when the search
  // is over or the deadline passed during this call.
  std::unique_ptr<search_result> next();

  bool rdata() const { return rdata_; }
  bool finished() const { return finished_; }

 private:
  struct file_entry;
  using entry_ptr = std::unique_ptr<file_entry>;
  using compare_fn = int (*)(std::string_view, std::string_view);
  using merge_fn = void (*)(std::unique_ptr<search_result>& slot, std::string_view line);
  struct entry_order {
    compare_fn compare;
    int operator()(const entry_ptr& a, const entry_ptr& b) const;
  };

  std::unique_ptr<search_result> gather();
  std::unique_ptr<search_result> finish(std::unique_ptr<search_result> res) const;
  void count_read(file_entry& entry);

  search_context& ctx_;
  compare_fn compare_;
  merge_fn merge_;
  heap<entry_ptr, entry_order> heap_;
  std::string current_key_;  // whole line that opened the key being gathered
  bool has_key_ = false;
  bool rdata_;
  bool finished_ = false;
  int64_t earliest_first_seen_ = 0;  // over the added files with a time range; 0: none yet
  int64_t latest_last_seen_ = 0;
};

// The driver's names for the merger's life cycle.
std::unique_ptr<tgdb_merger> search_create(search_context& ctx, bool rdata);
void search_add_index(tgdb_merger& search, std::shared_ptr<const tgdb> index);
std::unique_ptr<search_result> search_next(tgdb_merger& search);
inline void search_free(std::unique_ptr<tgdb_merger>& search) { search.reset(); }

// Folds one line into the result in `slot`, creating the result when the
// slot is empty. A line that does not parse contributes nothing (and leaves
// a slot it would have filled empty).
void merge_rrname(std::unique_ptr<search_result>& slot, std::string_view line);
void merge_rdata(std::unique_ptr<search_result>& slot, std::string_view line);

// Readies a gathered result for output: a last-seen of 0 becomes the
// first-seen, a count of 0 becomes 1, and only the entries that pass the
// type, time and count filters stay (in their order). False when none does.
bool finish_result(const search_context& ctx, search_result& res);

// Record-level filters (all bounds inclusive).
bool time_filter(const search_context& ctx, int64_t first_seen, int64_t last_seen);
bool count_filter(const search_context& ctx, uint64_t count);
bool type_filter(const search_context& ctx, uint16_t rrtype);

// Whether a file whose records span [first_seen, last_seen] can hold a
// result. Deliberately strict, and the two open-interval bounds combine by
// "or"; the complete-mode bounds are checked for the whole search instead.
bool file_time_filter(const search_context& ctx, int64_t first_seen, int64_t last_seen);
