#include "libmy/my_time.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <utility>

namespace {

constexpr int64_t kNow = 1700000000;

TEST(my_time, parse_time_spec_forms) {
  const std::pair<const char*, std::optional<int64_t>> cases[] = {
      {"2020-01-02", 1577923200}, {"2020-01-02 03:04:05", 1577923200 + 3 * 3600 + 4 * 60 + 5},
      {"", kNow},                 {"3600", 3600},
      {"-3600", kNow - 3600},     {"1d", kNow - 86400},
      {"1h30m", kNow - 5400},     {"2w1d", kNow - 15 * 86400},
      {"10S5s", kNow - 15},       {"1D1d", kNow - 2 * 86400},
      {"-1d", {}}, {"1d5", {}}, {"1x", {}}, {"d", {}}, {"1d ", {}}, {" 1d", {}}, {"2020-01-02x", {}},
      // ISO 8601, as feeds and `date -Iseconds` write it.
      {"2025-12-01T00:00:00Z", 1764547200},      {"2025-12-01T00:00:00", 1764547200},
      {"2025-12-01 00:00", 1764547200},          {"2025-12-01T01:30:00+01:30", 1764547200},
      {"2025-11-30T19:00:00-05:00", 1764547200}, {"2025-12-01T00:00:00.987Z", 1764547200},
      {"2025-11-30t23:00:00-0100", 1764547200},  {"2024-02-29T12:00:00+00", 1709208000},
      {"2023-02-29T00:00:00Z", {}}, {"2025-12-01T24:00:00", {}}, {"2025-12-01T00:60", {}},
      {"2025-12-01T00:00:00+24:00", {}}, {"2025-12-01T00:00:00Zx", {}}, {"2025-12-01T00:00:00.Z", {}},
      {"2025-13-01T00:00", {}}, {"2025-12-01T0:00", {}}, {"2025-12-01T", {}},
  };
  for (const auto& [text, want] : cases) {
    int64_t out = -1;
    EXPECT_EQ(parse_time_spec(text, out, kNow) ? std::optional(out) : std::nullopt, want) << "'" << text << "'";
  }
}

// -t: what is not a positive number means no time-out; a huge one is far away.
TEST(my_time, time_out_spans) {
  using span = std::optional<std::pair<int64_t, long>>;
  constexpr double inf = std::numeric_limits<double>::infinity();
  const std::pair<double, span> cases[] = {
      {0.25, {{0, 250000000}}}, {1.5, {{1, 500000000}}},  {3e9, {{3000000000, 0}}},
      {1e-9, {{0, 1}}},         {1e16, {{MY_TIME_FAR_AWAY, 0}}}, {1e300, {{MY_TIME_FAR_AWAY, 0}}},
      {inf, {{MY_TIME_FAR_AWAY, 0}}},
      {0, {}}, {-1, {}}, {-0.5, {}}, {-inf, {}}, {std::nan(""), {}}, {1e-12, {}},
  };
  for (const auto& [seconds, want] : cases) {
    const auto got = my_time_span(seconds);
    EXPECT_EQ(got ? span({got->tv_sec, got->tv_nsec}) : std::nullopt, want) << seconds;
  }
  // A far deadline stays far, whenever it is armed; a sum past the largest time stops there.
  const timespec now{1700000000, 999999999}, far{MY_TIME_FAR_AWAY, 0};
  EXPECT_EQ(my_time_add(now, far).tv_sec, 1700000000 + MY_TIME_FAR_AWAY);
  EXPECT_EQ(my_time_add(now, {0, 2}).tv_sec, 1700000001);
  EXPECT_EQ(my_time_add(now, {0, 2}).tv_nsec, 1);
  const timespec last = my_time_add({std::numeric_limits<time_t>::max(), 5}, {1, 999999999});
  EXPECT_EQ(last.tv_sec, std::numeric_limits<time_t>::max());
}

}  // namespace
