#include "tests/support/strict_weak.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/property.h"

namespace {
int sign(int v) { return (v > 0) - (v < 0); }
}  // namespace

void expect_strict_weak(const line_compare& cmp, const std::function<std::string(std::mt19937_64&)>& make,
                        const std::function<std::string(const std::string&)>& group) {
  std::mt19937_64 rng(7);
  for (size_t round = 0; round < property_count(10); ++round) {
    std::vector<std::string> lines(60);
    for (auto& line : lines) line = make(rng);
    const size_t n = lines.size();
    std::vector<int> c(n * n);
    for (size_t i = 0; i < n * n; ++i) c[i] = sign(cmp(lines[i / n], lines[i % n]));
    for (size_t i = 0; i < n; ++i)
      for (size_t j = 0; j < n; ++j) {
        ASSERT_EQ(c[i * n + j], -c[j * n + i]) << lines[i] << " | " << lines[j];
        ASSERT_EQ(c[i * n + j] == 0, group(lines[i]) == group(lines[j])) << lines[i] << " | " << lines[j];
        for (size_t k = 0; k < n; ++k) {
          if (c[i * n + j] > 0 || c[j * n + k] > 0) continue;
          ASSERT_EQ(c[i * n + k], std::min(c[i * n + j], c[j * n + k])) << lines[i] << " | " << lines[k];
        }
      }
  }
}
