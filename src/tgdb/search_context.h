// The state of one search, built from its parts: the match (trigram query
// and confirming patterns), the record filters, the deadline the index's
// iterators check, and the counters of the latest call that fetched a
// result.
#pragma once

#include <cstdint>
#include <ctime>

#include "tgdb/deadline.h"
#include "tgdb/record_filter.h"
#include "trigram/matcher.h"

// Work of the latest call that fetched a result.
struct search_counters {
  uint64_t candidates = 0;       // lines handed to the matcher
  uint64_t pattern_matches = 0;  // lines it accepted
  uint64_t bytes_read = 0;
  uint64_t pages_read = 0;
  timespec first_match{};  // when the first line was accepted
};

struct search_context {
  search_match match;
  record_filters filters;
  search_deadline deadline;
  search_counters counters;
};

// Sets one of the four time bounds and the flags that say it is set.
inline void set_time_bound(record_filters& f, int64_t record_filters::*bound, bool record_filters::*is_set, int64_t t) {
  f.*bound = t;
  f.*is_set = f.has_time_filter = true;
}
inline void set_time_first_before(search_context& ctx, int64_t t) {
  set_time_bound(ctx.filters, &record_filters::time_first_before, &record_filters::has_time_first_before, t);
}
inline void set_time_first_after(search_context& ctx, int64_t t) {
  set_time_bound(ctx.filters, &record_filters::time_first_after, &record_filters::has_time_first_after, t);
}
inline void set_time_last_before(search_context& ctx, int64_t t) {
  set_time_bound(ctx.filters, &record_filters::time_last_before, &record_filters::has_time_last_before, t);
}
inline void set_time_last_after(search_context& ctx, int64_t t) {
  set_time_bound(ctx.filters, &record_filters::time_last_after, &record_filters::has_time_last_after, t);
}
inline void set_rrtype_filter(search_context& ctx, uint16_t rrtype) { ctx.filters.rrtype_filter = rrtype; }
inline void set_count_filter(search_context& ctx, uint64_t min, uint64_t max) {
  ctx.filters.count_min = min;
  ctx.filters.count_max = max;
}
inline void set_deadline_time(search_context& ctx, const timespec* deadline) {
  ctx.deadline.armed = deadline != nullptr;
  if (deadline) ctx.deadline.at = *deadline;
}
inline void set_timeout_callback(search_context& ctx, timeout_callback_fn callback) {
  ctx.deadline.timeout_callback = std::move(callback);
}
inline bool take_first_match_time(const search_context& ctx, timespec& out) {
  if (ctx.counters.pattern_matches == 0) return false;
  out = ctx.counters.first_match;
  return true;
}
