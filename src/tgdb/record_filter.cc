#include "tgdb/record_filter.h"

#include <vector>

bool time_filter(const record_filters& f, int64_t first_seen, int64_t last_seen) {
  if (f.has_time_first_before && first_seen > f.time_first_before) return false;
  if (f.has_time_first_after && first_seen < f.time_first_after) return false;
  if (f.has_time_last_before && last_seen > f.time_last_before) return false;
  if (f.has_time_last_after && last_seen < f.time_last_after) return false;
  return true;
}

bool count_filter(const record_filters& f, uint64_t count) {
  return count >= f.count_min && (f.count_max == 0 || count <= f.count_max);
}

bool type_filter(const record_filters& f, uint16_t rrtype) { return f.rrtype_filter == 0 || f.rrtype_filter == rrtype; }

bool file_time_filter(const record_filters& f, int64_t first_seen, int64_t last_seen) {
  if (!f.has_time_first_after && !f.has_time_first_before && !f.has_time_last_after && !f.has_time_last_before)
    return true;
  if (f.has_time_first_after || f.has_time_last_before) return true;
  if (f.has_time_first_before && f.time_first_before > first_seen) return true;
  if (f.has_time_last_after) return f.time_last_after < last_seen;
  return false;
}

bool finish_result(const record_filters& f, search_result& res) {
  std::vector<search_entry> kept;
  kept.reserve(res.entries.size());
  for (search_entry e : res.entries) {
    if (e.time_last == 0) e.time_last = e.time_first;
    if (e.count == 0) e.count = 1;  // a line without a count was still seen once
    if (type_filter(f, e.rrtype) && time_filter(f, e.time_first, e.time_last) && count_filter(f, e.count))
      kept.push_back(e);
  }
  if (kept.empty()) return false;
  res.entries = std::move(kept);
  return true;
}
