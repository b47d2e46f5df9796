// Folds observations into one entry per (owner name, type) and one per
// (record data, type): counts summed, first/last-seen widened. One per
// worker thread; the workers' tables are merged at the end.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tgdb/search_result.h"

struct time_range {
  bool set = false;
  uint32_t first = 0;
  uint32_t last = 0;
  void widen(int64_t f, int64_t l);
  void widen(const time_range& o);
};

// Lines kept back to back in one buffer: sorting views of one compact
// buffer touches far less memory than sorting millions of strings.
struct sorted_lines {
  std::string text;
  std::vector<std::string_view> lines;
};

// Sorts lines in the order of their file's kind (compare_rdata_lines or
// compare_rrname_lines) using `parts` threads; 0 picks by size and cores.
void sort_record_lines(std::vector<std::string_view>& lines, bool rdata, unsigned parts = 0);

class aggregator {
 public:
  // Adds to the owner's entry of entry.rrtype.
  void add_rrname(std::string_view owner, const search_entry& entry);
  // Adds to the entry of (wire, entry.rrtype). The key text comes from
  // `make_text()`, called only for a new pair unless `keep_smallest_text`
  // (then the smallest text seen is kept: record-line inputs may spell one
  // wire form differently). Rendering is costly, hence the callback.
  template <class MakeText>
  void add_rdata(std::span<const uint8_t> wire, const search_entry& entry, MakeText&& make_text,
                 bool keep_smallest_text = false);

  // Moves everything of `other` into this one.
  void merge(aggregator&& other);

  size_t rrname_count() const { return owners_.size(); }
  size_t rdata_count() const { return rdata_.size(); }
  const time_range& rrname_times() const { return rrname_times_; }
  const time_range& rdata_times() const { return rdata_times_; }

  // The record lines of each file, in the order the search merges them.
  // Each empties its table as it goes.
  sorted_lines take_rrname_lines();
  sorted_lines take_rdata_lines();

 private:
  struct rdata_value {
    std::string text;
    search_entry entry;
  };
  static void fold(search_entry& into, const search_entry& e);
  static void fold_into(std::vector<search_entry>& entries, const search_entry& e);

  // Owner name -> entries, one per type.
  std::unordered_map<std::string, std::vector<search_entry>> owners_;
  // Type (2 bytes, big-endian) followed by the wire form -> text and entry.
  std::unordered_map<std::string, rdata_value> rdata_;
  std::string key_scratch_;
  time_range rrname_times_, rdata_times_;
};

template <class MakeText>
void aggregator::add_rdata(std::span<const uint8_t> wire, const search_entry& entry, MakeText&& make_text,
                           bool keep_smallest_text) {
  key_scratch_.clear();
  key_scratch_ += char(entry.rrtype >> 8);
  key_scratch_ += char(entry.rrtype & 0xff);
  key_scratch_.append(reinterpret_cast<const char*>(wire.data()), wire.size());
  rdata_times_.widen(entry.time_first, entry.time_last);
  auto it = rdata_.find(key_scratch_);
  if (it == rdata_.end()) {
    rdata_.emplace(key_scratch_, rdata_value{std::string(make_text()), entry});
    return;
  }
  fold(it->second.entry, entry);
  if (keep_smallest_text) {
    auto&& text = make_text();
    if (text < it->second.text) it->second.text = std::string(text);
  }
}
