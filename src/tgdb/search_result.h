// One merged record: the key and its per-type entries (one entry for rdata,
// byname and byvalue results).
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tgdb/tgdb_kind.h"

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
  tgdb_kind kind = tgdb_kind::rrname;  // of the files it came from
  std::string other{};  // byname and byvalue: the side that is not the key

  bool has_rdata() const { return !rdata.empty(); }
};
