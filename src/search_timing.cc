#include "search_timing.h"

#include "log/log.h"

void log_search_timing(int level, const search_timing& t) {
  if (!log_enabled(level)) return;
  const int64_t sec = t.search_time.tv_sec, nsec = t.search_time.tv_nsec;
  log_interval(level, "            Regex", t.start, t.pattern_done);
  log_interval(level, "    First Trigram", t.pattern_done, t.launched);
  log_interval(level, "    First Pattern", t.launched, t.first_match);
  log_duration(level, "Total Search Time", sec, nsec);
  log_printf(level, " Total Bytes Read: %zu  (%zu pages)", static_cast<size_t>(t.bytes_read),
             static_cast<size_t>(t.pages_read));
  log_rate(level, "  Trigram Matches", t.candidates, sec, nsec);
  log_rate(level, "  Pattern Matches", t.pattern_matches, sec, nsec);
  log_rate(level, "          Results", t.results, sec, nsec);
  log_interval(level, "    Total Elapsed", t.start, t.end);
}
