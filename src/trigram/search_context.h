// The state of one search: the confirming matcher's databases, the trigram
// query, the time and record filters, the deadline and the per-call counters.
#pragma once

#include <hs/hs.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "trigram/trigram_query.h"

struct hs_database_deleter {
  void operator()(hs_database_t* db) const { hs_free_database(db); }
};
struct hs_scratch_deleter {
  void operator()(hs_scratch_t* s) const { hs_free_scratch(s); }
};
using hs_database_ptr = std::unique_ptr<hs_database_t, hs_database_deleter>;
using hs_scratch_ptr = std::unique_ptr<hs_scratch_t, hs_scratch_deleter>;

// Called when the deadline has passed, with the deadline (which it may move)
// and the current seconds; true lets the search continue.
using timeout_callback_fn = std::function<bool(timespec& deadline, int64_t now_seconds)>;

struct search_context {
  // Slot 0: the main pattern; slot 1: the exclude pattern. A null main
  // database confirms every candidate.
  hs_database_ptr databases[2];
  hs_scratch_ptr scratches[2];
  trigram_query_ptr query;  // null: no trigram filter (table scan)

  int64_t time_first_after = 0;
  int64_t time_first_before = 0;
  int64_t time_last_after = 0;
  int64_t time_last_before = 0;
  bool has_time_first_after = false;
  bool has_time_first_before = false;
  bool has_time_last_after = false;
  bool has_time_last_before = false;
  bool has_time_filter = false;

  uint16_t rrtype_filter = 0;  // 0: any type
  uint64_t count_min = 0;
  uint64_t count_max = 0;      // 0: no maximum
  uint32_t wide_setting = 1;   // the 32-bit setting; nothing reads it yet

  timespec deadline{};
  bool has_deadline = false;
  timeout_callback_fn timeout_callback;

  // Work of the latest call that fetched a result.
  uint64_t candidates = 0;
  uint64_t pattern_matches = 0;
  uint64_t bytes_read = 0;
  uint64_t pages_read = 0;
  timespec first_match{};

  std::optional<std::string> pattern;          // serialized main pattern
  std::optional<std::string> exclude_pattern;  // serialized exclude pattern
};

inline void set_time_first_before(search_context& ctx, int64_t t) {
  ctx.time_first_before = t;
  ctx.has_time_first_before = ctx.has_time_filter = true;
}
inline void set_time_first_after(search_context& ctx, int64_t t) {
  ctx.time_first_after = t;
  ctx.has_time_first_after = ctx.has_time_filter = true;
}
inline void set_time_last_before(search_context& ctx, int64_t t) {
  ctx.time_last_before = t;
  ctx.has_time_last_before = ctx.has_time_filter = true;
}
inline void set_time_last_after(search_context& ctx, int64_t t) {
  ctx.time_last_after = t;
  ctx.has_time_last_after = ctx.has_time_filter = true;
}
inline void set_deadline_time(search_context& ctx, const timespec* deadline) {
  ctx.has_deadline = deadline != nullptr;
  if (deadline) ctx.deadline = *deadline;
}
inline void set_timeout_callback(search_context& ctx, timeout_callback_fn callback) {
  ctx.timeout_callback = std::move(callback);
}
inline void set_rrtype_filter(search_context& ctx, uint16_t rrtype) { ctx.rrtype_filter = rrtype; }
inline void set_count_filter(search_context& ctx, uint64_t min, uint64_t max) {
  ctx.count_min = min;
  ctx.count_max = max;
}
inline bool take_first_match_time(const search_context& ctx, timespec& out) {
  if (ctx.pattern_matches == 0) return false;
  out = ctx.first_match;
  return true;
}
