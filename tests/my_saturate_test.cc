#include "libmy/my_saturate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

TEST(my_saturate, stops_at_the_largest_value) {
  constexpr uint64_t top = std::numeric_limits<uint64_t>::max();
  const struct {
    uint64_t a, b, sum, product;
  } rows[] = {
      {0, 0, 0, 0},
      {3, 4, 7, 12},
      {top, 0, top, 0},
      {0, top, top, 0},
      {top, 1, top, top},
      {top / 2, top / 2, top - 1, top},
      {uint64_t{1} << 32, uint64_t{1} << 32, uint64_t{1} << 33, top},
      {(uint64_t{1} << 32) - 1, (uint64_t{1} << 32) + 1, uint64_t{1} << 33, top},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(saturating_add(r.a, r.b), r.sum) << r.a << " + " << r.b;
    EXPECT_EQ(saturating_mul(r.a, r.b), r.product) << r.a << " * " << r.b;
    EXPECT_EQ(saturating_mul(r.b, r.a), r.product) << r.b << " * " << r.a;
  }
  EXPECT_EQ(saturating_mul<uint16_t>(256, 256), 65535);
}

}  // namespace
