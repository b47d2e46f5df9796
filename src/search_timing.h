// The timing report of one search: its time stamps and counters, filled by
// the search driver and logged when the search ends.
#pragma once

#include <cstdint>
#include <ctime>

// Counters and time stamps of one search, all zero to start. A stamp never
// taken counts as no time in the report.
struct search_timing {
  timespec start{};         // before the pattern is compiled
  timespec pattern_done{};  // after it compiled
  timespec launched{};      // after the data source started the search
  timespec first_match{};   // when the matcher first accepted a line
  timespec first_result{};  // recorded, never reported
  timespec search_time{};   // spent starting the search and fetching results
  timespec end{};
  uint64_t candidates = 0;  // lines handed to the matcher
  uint64_t pattern_matches = 0;
  uint64_t results = 0;     // results printed
  uint64_t bytes_read = 0;
  uint64_t pages_read = 0;
};

// Nine lines at `level`, or nothing when the log is quieter than that.
void log_search_timing(int level, const search_timing& timing);
