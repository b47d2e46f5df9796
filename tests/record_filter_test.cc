// The record filters: per record inclusive, per file strict.
#include "tgdb/record_filter.h"

#include <gtest/gtest.h>

#include "tgdb/record_line.h"
#include "tgdb/search_context.h"

namespace {

using strings = std::vector<std::string>;

TEST(record_filter, finishing_fills_last_seen_and_count_before_filtering) {
  const std::tuple<uint16_t, uint64_t, int64_t, strings> cases[] = {
      // type, count and last-seen filters, result
      {0, 1, 100, {"\tn:64:1 4:64,1:2"}},
      {1, 0, 0, {"\t4:64,1:2"}},
      {0, 2, 0, {"\t4:64,1:2"}},
      {0, 0, 101, {"\t4:64,1:2"}},
      {0, 3, 0, {}},
  };
  for (const auto& [type_filter, count_min, last_after, want] : cases) {
    search_context ctx;
    set_rrtype_filter(ctx, type_filter);
    set_count_filter(ctx, count_min, 0);
    if (last_after) set_time_last_after(ctx, last_after);
    search_result r;
    r.entries = {{2, 0, 100, 0}, {1, 2, 100, 101}};
    const bool kept = finish_result(ctx.filters, r);
    EXPECT_EQ(kept ? strings{rrname_line("", r.entries)} : strings{}, want) << count_min << " " << last_after;
  }
}

TEST(record_filter, time_filters_are_inclusive_per_record_and_strict_per_file) {
  enum : int { FB = 1, FA = 2, LB = 4, LA = 8 };
  struct {
    int set;
    int64_t bound, first, last;  // the one bound goes to every filter set
    bool record, file;
  } cases[] = {
      {0, 0, 10, 20, true, true},     {FB, 10, 10, 20, true, false},     {FB, 11, 10, 20, true, true},
      {FB, 9, 10, 20, false, false},  {LA, 20, 10, 20, true, false},     {LA, 19, 10, 20, true, true},
      {LA, 21, 10, 20, false, false}, {FA, 11, 10, 20, false, true},     {LB, 20, 10, 20, true, true},
      {LB, 19, 10, 20, false, true},  {FB | LA, 10, 10, 20, true, true}, {FB | LA, 10, 10, 10, true, false},
  };
  for (const auto& c : cases) {
    search_context ctx;
    if (c.set & FB) set_time_first_before(ctx, c.bound);
    if (c.set & FA) set_time_first_after(ctx, c.bound);
    if (c.set & LB) set_time_last_before(ctx, c.bound);
    if (c.set & LA) set_time_last_after(ctx, c.bound);
    EXPECT_EQ(time_filter(ctx.filters, c.first, c.last), c.record) << c.set << " " << c.bound;
    EXPECT_EQ(file_time_filter(ctx.filters, c.first, c.last), c.file) << c.set << " " << c.bound;
  }
}

}  // namespace
