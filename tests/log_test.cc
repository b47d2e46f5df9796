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

}  // namespace
