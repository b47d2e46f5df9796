// One merged record: the key and its per-type entries.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

struct search_entry {
  uint16_t rrtype = 0;
  uint64_t count = 0;
  int64_t time_first = 0;
  int64_t time_last = 0;
};

// Folds `e` into `into` (same type): counts add, saturating rather than
// wrapping; the seen span widens to cover both.
inline void fold_entry(search_entry& into, const search_entry& e) {
  constexpr uint64_t max = std::numeric_limits<uint64_t>::max();
  into.count = e.count > max - into.count ? max : into.count + e.count;
  into.time_first = std::min(into.time_first, e.time_first);
  into.time_last = std::max(into.time_last, e.time_last);
}

struct search_result {
  std::vector<search_entry> entries;
  std::vector<uint8_t> rdata;  // record data in rdata mode; empty otherwise
  bool wildcard = false;
  std::string name;            // the key: owner name, or rdata text

  bool has_rdata() const { return !rdata.empty(); }
};
