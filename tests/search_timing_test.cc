#include "search_timing.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/log_capture.h"

namespace {

TEST(search_timing, report_has_nine_lines_only_at_its_level) {
  search_timing t{.start = {100, 0}, .pattern_done = {100, 500000000}, .launched = {101, 0},
                  .first_match = {101, 250000000}, .search_time = {2, 0}, .end = {103, 100000000},
                  .candidates = 8, .pattern_matches = 4, .results = 2, .bytes_read = 1234, .pages_read = 3};
  EXPECT_EQ(logged(LOG_INFO, [&] { log_search_timing(LOG_STAT, t); }), "");
  EXPECT_EQ(logged(LOG_STAT, [&] { log_search_timing(LOG_STAT, t); }),
            "            Regex: 0.500000 s\n"
            "    First Trigram: 0.500000 s\n"
            "    First Pattern: 0.250000 s\n"
            "Total Search Time: 2.000000 s\n"
            " Total Bytes Read: 1234  (3 pages)\n"
            "  Trigram Matches: 8 (4.000000 /s)\n"
            "  Pattern Matches: 4 (2.000000 /s)\n"
            "          Results: 2 (1.000000 /s)\n"
            "    Total Elapsed: 3.100000 s\n");
  // Stamps never taken count as no time, and no search time as no rate.
  t = {.start = {100, 0}, .candidates = 5};
  const std::string zero = logged(LOG_STAT, [&] { log_search_timing(LOG_STAT, t); });
  for (const char* line : {"    First Trigram: 0.000000 s\n", "  Trigram Matches: 5 (0.000000 /s)\n",
                           "    Total Elapsed: 0.000000 s\n"})
    EXPECT_NE(zero.find(line), std::string::npos) << zero;
}

}  // namespace
