#include "tgdb/n_iter.h"

#include <gtest/gtest.h>

#include <algorithm>
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

n_iter_ptr combine(bool is_union, const std::vector<std::vector<uint64_t>>& lists) {
  n_iter_builder b(is_union ? n_iter_builder::kind::union_of : n_iter_builder::kind::intersection_of);
  for (const auto& l : lists) b.add(vec_iter(l));
  return b.finish();
}

// A leaf whose estimate after a seek is only a lower bound (the target), as
// a combination's is; settling makes it exact.
n_iter_ptr loose_iter(std::vector<uint64_t> v) {
  auto data = std::make_shared<std::vector<uint64_t>>(std::move(v));
  auto pos = std::make_shared<size_t>(0);
  auto bound = std::make_shared<uint64_t>(0);
  auto get = [data, pos, bound](uint64_t& out) {
    return *pos < data->size() && (out = *bound = (*data)[*pos], true);
  };
  auto est = [data, pos, bound](uint64_t& out) { return *pos < data->size() && (out = *bound, true); };
  auto seek = [data, pos, bound](uint64_t t) {
    *bound = std::max(*bound, t);
    *pos = std::lower_bound(data->begin() + *pos, data->end(), t) - data->begin();
  };
  return n_iter_init(seek, get, est, [] {});
}

// A random tree of unions and intersections over exact and loose leaves,
// with the set it must yield.
n_iter_ptr random_tree(std::mt19937_64& rng, int depth, uint64_t span, std::set<uint64_t>& want) {
  if (depth == 0 || rng() % 3 == 0) {
    std::set<uint64_t> s;
    for (size_t n = rng() % 60; n--;) s.insert(rng() % span);
    want = s;
    std::vector<uint64_t> v(s.begin(), s.end());
    return rng() % 2 ? vec_iter(std::move(v)) : loose_iter(std::move(v));
  }
  const bool is_union = rng() % 2;
  n_iter_builder b(is_union ? n_iter_builder::kind::union_of : n_iter_builder::kind::intersection_of);
  for (size_t i = 0, n = 1 + rng() % 5; i < n; ++i) {
    std::set<uint64_t> child;
    b.add(random_tree(rng, depth - 1, span, child));
    if (i == 0 || is_union) {
      want.insert(child.begin(), child.end());
    } else {
      std::erase_if(want, [&](uint64_t v) { return !child.count(v); });
    }
  }
  return b.finish();
}

// Flat and nested combinations, over leaves whose estimates may be only
// bounds, with children that run out mid-walk; seeks and reads interleave at
// random.
TEST(n_iter, nested_trees_with_loose_estimates_match_set_operations) {
  std::mt19937_64 rng(7);
  for (size_t round = 0; round < property_count(2000); ++round) {
    const uint64_t span = 5 + rng() % 400;
    std::set<uint64_t> want;
    auto it = random_tree(rng, 3, span, want);
    uint64_t at = 0;  // everything below has been passed
    for (int step = 0; step < 100; ++step) {
      if (rng() % 2) {
        at = std::max(at, uint64_t(rng() % (span + 5)));
        it->op_seek(at);
      }
      const auto next = want.lower_bound(at);
      uint64_t est;
      // An estimate never passes the next value, and says "exhausted" only when it is.
      if (it->op_est(est)) {
        ASSERT_TRUE(next == want.end() || est <= *next) << round;
      } else {
        ASSERT_EQ(next, want.end()) << round;
      }
      uint64_t got;
      ASSERT_EQ(it->op_get(got), next != want.end()) << round;
      if (next == want.end()) break;
      ASSERT_EQ(got, *next) << round;
      if (rng() % 2) {
        at = got + 1;
        it->op_seek(at);
      }
    }
  }
}

TEST(n_iter, edge_cases) {
  uint64_t v;
  EXPECT_FALSE(combine(true, {{}, {}})->op_get(v));
  EXPECT_FALSE(combine(false, {})->op_get(v));
  // Once a child runs out, the intersection stays exhausted, even when a
  // later seek lands the other child on a value.
  auto it = combine(false, {{2, 50, 100}, {2, 3}});
  EXPECT_TRUE(n_iter_next(*it, v) && v == 2);
  EXPECT_FALSE(n_iter_next(*it, v));
  it->op_seek(100);
  EXPECT_FALSE(it->op_est(v));
  EXPECT_FALSE(it->op_get(v));
}

}  // namespace
