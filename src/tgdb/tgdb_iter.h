// Walking posting lists: the tracker (one trigram's list as an ascending
// sequence of line numbers, with galloping seek), the tracker tree built from
// a trigram query, and the candidate sources that turn it (or a scan of
// every line) into candidate lines.
//
// A posting list is a sequence of 5-byte big-endian 40-bit entries:
//   bits 39-37 clear  single line number
//   bit 39            range start (the next entry, with bit 38, ends it)
//   bit 38            range end
//   bit 37            one to four deltas from the entry before it, which must
//                     be a single or a range end; bits 35-32 flag deltas 1-4
//                     in bytes 3..0; a delta is 16 bits wide when the next one
//                     is absent (8 when bit 36 is set and it is the last one)
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "tgdb/n_iter.h"
#include "tgdb/tgdb.h"
#include "trigram/search_context.h"

class tracker final : public n_iter {
 public:
  // Over trigram `trigram` of a loaded index; the tracker keeps it mapped.
  tracker(std::shared_ptr<const tgdb> index, search_context& ctx, int32_t trigram);
  // Over raw entries that the caller keeps alive (`trigram` names it in logs).
  tracker(std::span<const uint8_t> entries, search_context& ctx, int32_t trigram);

  // Decodes the entry at the current entry number (load_tracker); false
  // after logging when the entry is corrupt.
  bool load();

  void op_seek(uint64_t target) override;
  bool op_get(uint64_t& out) override;
  bool op_est(uint64_t& out) override { return op_get(out); }

  bool finished() const { return finished_ || entry_ >= count_; }
  uint64_t entry() const { return entry_; }

 private:
  uint64_t ref(uint64_t i) const { return tgdb_ref_at(entries_, i); }
  bool is_range_end(uint64_t i) const { return ref(i) & TGDB_REF_RANGE_END; }
  // Decodes entry `i` (after stepping back from a range end to its start);
  // sets finished on failure.
  bool load_at(uint64_t i);
  void place(uint64_t t);

  std::shared_ptr<const tgdb> index_;
  search_context& ctx_;
  const uint8_t* entries_ = nullptr;
  uint64_t count_ = 0;
  bool finished_ = false;
  int32_t trigram_;
  uint64_t entry_ = 0;
  uint64_t current_ = 0;
  uint64_t last_ = 0;
  uint64_t packed_[4] = {};
  uint8_t packed_count_ = 0;
  uint8_t packed_cursor_ = 0;
};

// Builds the iterator tree for `query` over one index: unions and
// intersections of trackers. Null when the index cannot hold an answer;
// `failed` is set when that is because the index is corrupt.
n_iter_ptr tracker_tree_fill(const std::shared_ptr<const tgdb>& index, search_context& ctx,
                             const trigram_query* query, bool& failed);

// A stream of candidate lines from one index file, in string-table order.
class candidate_source {
 public:
  explicit candidate_source(std::shared_ptr<const tgdb> index) : index_(std::move(index)) {}
  virtual ~candidate_source() = default;
  candidate_source(const candidate_source&) = delete;
  candidate_source& operator=(const candidate_source&) = delete;

  // The next candidate line, without its newline; line.data() points into
  // the mapped string table. False at the end. Throws search_timeout when
  // the deadline has passed.
  virtual bool get(std::string_view& line) = 0;

  const tgdb& index() const { return *index_; }

 protected:
  std::shared_ptr<const tgdb> index_;
};

// The tracker tree of ctx.query over `index`, or a scan of every line when
// the search has no query. Null (with `failed` telling an index error from
// "no possible answer") when the tree comes out empty.
std::unique_ptr<candidate_source> make_candidate_source(std::shared_ptr<const tgdb> index,
                                                        search_context& ctx, bool& failed);
