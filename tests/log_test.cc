#include "log/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// Captures what the current log context writes, inside its own context.
class log_capture {
 public:
  explicit log_capture(int level) {
    log_context_push();
    stream_ = open_memstream(&data_, &size_);
    log_set_stream(stream_);
    log_set_level(level);
  }
  ~log_capture() {
    fclose(stream_);
    free(data_);
    log_context_pop();
  }
  std::string text() {
    fflush(stream_);
    return std::string(data_, size_);
  }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
  FILE* stream_;
};

TEST(log, level_names_and_parsing) {
  EXPECT_STREQ(log_level_name(0), "failure");
  EXPECT_STREQ(log_level_name(6), "trace");
  EXPECT_STREQ(log_level_name(7), "<invalid>");
  EXPECT_STREQ(log_level_name(-1), "<invalid>");
  EXPECT_EQ(log_level_parse("Trace"), 6);
  EXPECT_EQ(log_level_parse("DEBUG"), 4);
  EXPECT_EQ(log_level_parse("stat"), 3);
  EXPECT_EQ(log_level_parse("2"), -1);
  EXPECT_EQ(log_level_parse(""), -1);
}

TEST(log, messages_above_the_level_write_nothing) {
  log_capture cap(LOG_INFO);
  log_set_prefix("search-%u", 7u);
  log_printf(LOG_STAT, "hidden");
  log_printf(LOG_INFO, "shown %d", 1);
  EXPECT_EQ(cap.text(), "search-7: shown 1\n");
}

TEST(log, set_level_ignores_out_of_range_values) {
  log_capture cap(LOG_DEBUG);
  log_set_level(7);
  log_set_level(-1);
  EXPECT_EQ(log_get_level(), LOG_DEBUG);
}

TEST(log, prefix_is_cut_at_37_characters) {
  log_capture cap(LOG_INFO);
  std::string long_name(50, 'x');
  log_set_prefix("%s", long_name.c_str());
  EXPECT_EQ(std::string(log_get_prefix()), std::string(37, 'x') + ": ");
  log_set_prefix_text("100%s-literal");
  EXPECT_STREQ(log_get_prefix(), "100%s-literal: ");
  const char* empty = "";
  log_set_prefix(empty);
  EXPECT_STREQ(log_get_prefix(), "");
}

TEST(log, context_stack_restores_the_outer_prefix_and_shares_the_top_slot) {
  log_capture cap(LOG_INFO);
  log_set_prefix("outer");
  int base = log_context_depth();
  log_context_push();
  log_set_prefix("inner");
  EXPECT_STREQ(log_get_prefix(), "inner: ");
  log_context_pop();
  EXPECT_STREQ(log_get_prefix(), "outer: ");

  // Past the last slot, pushes share it: a change made deep down survives
  // the pops that return to slot 99.
  int to_top = LOG_CONTEXT_SLOTS - 1 - base;
  for (int i = 0; i < to_top + 5; ++i) log_context_push();
  log_set_prefix("deep");
  for (int i = 0; i < 5; ++i) log_context_pop();
  EXPECT_STREQ(log_get_prefix(), "deep: ");
  for (int i = 0; i < to_top; ++i) log_context_pop();
  EXPECT_EQ(log_context_depth(), base);
}

TEST(log, intervals_rates_and_durations) {
  log_capture cap(LOG_INFO);
  log_interval(LOG_INFO, "span", timespec{10, 900000000}, timespec{12, 100000000});
  log_interval(LOG_INFO, "unset", timespec{10, 0}, timespec{0, 0});
  log_rate(LOG_INFO, "rate", 10, 2, 500000000);
  log_rate(LOG_INFO, "zero", 10, 0, 0);
  log_duration(LOG_INFO, "dur", 1, 250000000);
  EXPECT_EQ(cap.text(),
            "span: 1.200000 s\n"
            "unset: 0.000000 s\n"
            "rate: 10 (4.000000 /s)\n"
            "zero: 10 (0.000000 /s)\n"
            "dur: 1.250000 s\n");
}

TEST(log, search_timing_report_has_nine_lines_only_at_its_level) {
  search_timing t;
  t.start = {100, 0};
  t.pattern_done = {100, 500000000};
  t.launched = {101, 0};
  t.first_match = {101, 250000000};
  t.search_time = {2, 0};
  t.end = {103, 0};
  t.candidates = 8;
  t.pattern_matches = 4;
  t.results = 2;
  t.bytes_read = 1234;
  t.pages_read = 3;
  {
    log_capture cap(LOG_INFO);
    log_search_timing(LOG_STAT, t);
    EXPECT_EQ(cap.text(), "");
  }
  log_capture cap(LOG_STAT);
  log_search_timing(LOG_STAT, t);
  EXPECT_EQ(cap.text(),
            "            Regex: 0.500000 s\n"
            "    First Trigram: 0.500000 s\n"
            "    First Pattern: 0.250000 s\n"
            "Total Search Time: 2.000000 s\n"
            " Total Bytes Read: 1234  (3 pages)\n"
            "  Trigram Matches: 8 (4.000000 /s)\n"
            "  Pattern Matches: 4 (2.000000 /s)\n"
            "          Results: 2 (1.000000 /s)\n"
            "    Total Elapsed: 3.000000 s\n");
}

}  // namespace
