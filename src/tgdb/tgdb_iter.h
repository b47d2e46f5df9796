// Walking one index file: the tracker (one trigram's posting list as an
// ascending sequence of line numbers, with galloping seek), the tracker tree
// built from a trigram query, and the candidate sources that turn it (or a
// scan of every line) into candidate lines.
//
// Damage met on the way (a posting list that does not decode or ascend, a
// line index that points into the middle of a line, a line number past the
// end, a file that shrank under its mapping) ends the file's candidate
// stream with an error that names the file and the region; the stream never
// hands out a line it did not find where the format says lines are.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tgdb/deadline.h"
#include "tgdb/n_iter.h"
#include "tgdb/posting_list.h"
#include "tgdb/tgdb.h"
#include "trigram/trigram_query.h"

// What the trackers over one file share: the search's deadline, and the
// first damage any of them met.
class index_walk {
 public:
  explicit index_walk(search_deadline* deadline = nullptr) : deadline_(deadline) {}
  void check_deadline() {
    if (deadline_) deadline_->check();
  }
  // Records damage in `region`; only the first counts.
  void damage(std::string region) {
    if (!damaged_) region_ = std::move(region);
    damaged_ = true;
  }
  bool damaged() const { return damaged_; }
  const std::string& region() const { return region_; }

 private:
  search_deadline* deadline_;
  bool damaged_ = false;
  std::string region_;
};

class tracker final : public n_iter {
 public:
  // Over one posting list that the caller keeps mapped; `trigram` names it
  // in messages.
  tracker(const posting_list& list, index_walk& walk, int32_t trigram);

  // Decodes the entry at the current entry number (first: entry 0). False
  // after logging and recording the damage when the entry is corrupt.
  bool load();

  void op_seek(uint64_t target) override;
  bool op_get(uint64_t& out) override;
  bool op_est(uint64_t& out) override { return op_get(out); }

  bool finished() const { return finished_ || entry_ >= list_.count; }
  uint64_t entry() const { return entry_; }

 private:
  // Decodes the entry that covers index `i` (stepping back from a range end
  // to its start); sets finished on failure.
  bool load_at(uint64_t i);
  bool decode(uint64_t i);
  void place(uint64_t t);

  posting_list list_;
  index_walk& walk_;
  int32_t trigram_;
  bool finished_ = false;
  uint64_t start_ = 0;  // first and last 5-byte entry of the decoded entry
  uint64_t entry_ = 0;
  posting_entry decoded_entry_;
  uint64_t current_ = 0;
  uint8_t packed_cursor_ = 0;
};

// A stream of candidate lines from one index file, in string-table order.
class candidate_source {
 public:
  explicit candidate_source(tgdb_ptr index) : index_(std::move(index)) {}
  virtual ~candidate_source() = default;
  candidate_source(const candidate_source&) = delete;
  candidate_source& operator=(const candidate_source&) = delete;

  // The next candidate line, without its newline; line.data() points into
  // the mapped string table. False at the end, also when damage ended the
  // stream (failed() then says so). Throws search_timeout when the deadline
  // has passed.
  virtual bool get(std::string_view& line) = 0;

  // True once the stream ended because of damage to the file (logged).
  bool failed() const { return failed_; }
  const tgdb& index() const { return *index_; }

 protected:
  // Ends the stream with the error naming the file and what is wrong.
  bool fail_lost();
  bool fail_damaged(const std::string& region);

  tgdb_ptr index_;
  bool failed_ = false;
};

// The tracker tree of `query` over `index`, or a scan of every line without
// a query. Null when the tree comes out empty: `failed` is then set when
// that is because the index is damaged (logged), and clear when the file
// cannot hold an answer.
std::unique_ptr<candidate_source> make_candidate_source(tgdb_ptr index, const trigram_query* query,
                                                        search_deadline* deadline, bool& failed);
