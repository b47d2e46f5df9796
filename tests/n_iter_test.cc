#include "tgdb/n_iter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "tests/support/property.h"

namespace {

// An iterator over a sorted vector.
n_iter_ptr vec_iter(std::vector<uint64_t> v) {
  auto data = std::make_shared<std::vector<uint64_t>>(std::move(v));
  auto pos = std::make_shared<size_t>(0);
  auto at = [data, pos](uint64_t& out) { return *pos < data->size() && (out = (*data)[*pos], true); };
  auto seek = [data, pos](uint64_t t) { *pos = std::lower_bound(data->begin() + *pos, data->end(), t) - data->begin(); };
  return n_iter_init(seek, at, at, [] {});
}

std::vector<uint64_t> drain(n_iter& it) {
  std::vector<uint64_t> out;
  for (uint64_t v; n_iter_next(it, v);) out.push_back(v);
  return out;
}

n_iter_ptr combine(bool is_union, const std::vector<std::vector<uint64_t>>& lists) {
  n_iter_builder b = is_union ? n_iter_union_new() : n_iter_intersection_new();
  for (const auto& l : lists) b.add(vec_iter(l));
  return b.finish();
}

TEST(n_iter, combinations_match_set_operations_with_seeks) {
  std::mt19937_64 rng(42);
  for (size_t round = 0; round < property_count(300); ++round) {
    std::vector<std::vector<uint64_t>> lists(1 + rng() % 5);
    const uint64_t span = 10 + rng() % 500;
    std::map<uint64_t, size_t> lists_holding;
    for (auto& l : lists) {
      std::set<uint64_t> s;
      for (size_t n = rng() % 60; n--;) s.insert(rng() % span);
      l.assign(s.begin(), s.end());
      for (uint64_t v : s) ++lists_holding[v];
    }
    for (bool is_union : {true, false}) {
      std::vector<uint64_t> want;
      for (auto [v, n] : lists_holding)
        if (is_union || n == lists.size()) want.push_back(v);
      auto it = combine(is_union, lists);
      ASSERT_EQ(drain(*it), want) << round;
      // Jumping ahead lands on the first member at or after the target.
      it = combine(is_union, lists);
      for (uint64_t t = rng() % 20; t < span + 5; t += 1 + rng() % 40) {
        it->op_seek(t);
        uint64_t got;
        auto lb = std::lower_bound(want.begin(), want.end(), t);
        ASSERT_EQ(it->op_get(got), lb != want.end());
        if (lb != want.end()) {
          ASSERT_EQ(got, *lb);
        }
      }
    }
  }
}

TEST(n_iter, edge_cases) {
  EXPECT_TRUE(drain(*combine(true, {{}, {}})).empty());
  EXPECT_TRUE(drain(*combine(false, {})).empty());
  // Once a child runs out, the intersection stays exhausted.
  auto it = combine(false, {{1, 2, 3, 100}, {2}});
  uint64_t v;
  EXPECT_TRUE(n_iter_next(*it, v) && v == 2);
  it->op_seek(100);
  EXPECT_FALSE(it->op_get(v) || it->op_est(v));
}

}  // namespace
