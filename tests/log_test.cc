#include "log/log.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/log_capture.h"

namespace {

TEST(log, levels) {
  EXPECT_STREQ(log_level_name(6), "trace");
  EXPECT_STREQ(log_level_name(7), "<invalid>");
  for (const auto& [text, level] : {std::pair{"Trace", 6}, {"DEBUG", 4}, {"stat", 3}, {"2", -1}, {"", -1}})
    EXPECT_EQ(log_level_parse(text), level) << text;

  log_capture cap(LOG_INFO);
  log_set_level(7);  // out of range: ignored
  log_set_level(-1);
  log_set_prefix("search-%u", 7u);
  log_printf(LOG_STAT, "hidden");
  log_printf(LOG_INFO, "shown %d", 1);
  EXPECT_EQ(cap.text(), "search-7: shown 1\n");
}

TEST(log, prefix_is_cut_at_37_characters) {
  log_capture cap;
  log_set_prefix("%s", std::string(50, 'x').c_str());
  EXPECT_EQ(std::string(log_get_prefix()), std::string(37, 'x') + ": ");
  log_set_prefix_text("100%s-literal");
  EXPECT_STREQ(log_get_prefix(), "100%s-literal: ");
  const char* empty = "";
  log_set_prefix(empty);
  EXPECT_STREQ(log_get_prefix(), "");
}

TEST(log, context_stack_restores_the_outer_prefix_and_shares_the_top_slot) {
  log_capture cap;
  log_set_prefix("outer");
  const int base = log_context_depth();
  log_context_push();
  log_set_prefix("inner");
  EXPECT_STREQ(log_get_prefix(), "inner: ");
  log_context_pop();
  EXPECT_STREQ(log_get_prefix(), "outer: ");

  // Past the last slot, pushes share it: a change made deep down survives
  // the pops that return to slot 99.
  const int to_top = LOG_CONTEXT_SLOTS - 1 - base;
  for (int i = 0; i < to_top + 5; ++i) log_context_push();
  log_set_prefix("deep");
  for (int i = 0; i < 5; ++i) log_context_pop();
  EXPECT_STREQ(log_get_prefix(), "deep: ");
  for (int i = 0; i < to_top; ++i) log_context_pop();
  EXPECT_EQ(log_context_depth(), base);
}

TEST(log, search_timing_report_has_nine_lines_only_at_its_level) {
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
