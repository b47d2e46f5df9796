// The record filters of a search: the four time bounds, the record type and
// the count bounds, with the tests the merger applies to files and records.
//
// Without -c, -A sets time_last_after and -B time_first_before, keeping
// records whose seen span overlaps the range; with -c they set
// time_first_after and time_last_before, keeping records wholly inside it.
#pragma once

#include <cstdint>

#include "tgdb/search_result.h"

struct record_filters {
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
  uint64_t count_max = 0;  // 0: no maximum
};

// Record-level filters (all bounds inclusive).
bool time_filter(const record_filters& f, int64_t first_seen, int64_t last_seen);
bool count_filter(const record_filters& f, uint64_t count);
bool type_filter(const record_filters& f, uint16_t rrtype);

// Whether a file whose records span [first_seen, last_seen] can hold a
// result. Deliberately strict, and the two open-interval bounds combine by
// "or"; the complete-mode bounds are checked for the whole search instead.
bool file_time_filter(const record_filters& f, int64_t first_seen, int64_t last_seen);

// Readies a gathered result for output: a last-seen of 0 becomes the
// first-seen, a count of 0 becomes 1, and only the entries that pass the
// type, time and count filters stay (in their order). False when none does.
bool finish_result(const record_filters& f, search_result& res);
