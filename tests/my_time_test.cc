#include "libmy/my_time.h"

#include <gtest/gtest.h>

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
  };
  for (const auto& [text, want] : cases) {
    int64_t out = -1;
    EXPECT_EQ(parse_time_spec(text, out, kNow) ? std::optional(out) : std::nullopt, want) << "'" << text << "'";
  }
}

}  // namespace
