#include "tgdb/n_iter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>

namespace {

// An iterator over a sorted vector.
n_iter_ptr vec_iter(std::vector<uint64_t> v) {
  auto data = std::make_shared<std::vector<uint64_t>>(std::move(v));
  auto pos = std::make_shared<size_t>(0);
  auto at = [data, pos](uint64_t& out) {
    if (*pos >= data->size()) return false;
    out = (*data)[*pos];
    return true;
  };
  return n_iter_init(
      [data, pos](uint64_t t) { *pos = size_t(std::lower_bound(data->begin() + *pos, data->end(), t) - data->begin()); },
      at, at, [] {});
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

int property_count() {
  const char* s = getenv("VORN_PROPERTY_COUNT");
  return s ? atoi(s) : 300;
}

TEST(n_iter, combinations_match_set_operations_with_seeks) {
  std::mt19937_64 rng(42);
  for (int round = 0; round < property_count(); ++round) {
    std::vector<std::vector<uint64_t>> lists(1 + rng() % 5);
    const uint64_t span = 10 + rng() % 500;
    for (auto& l : lists) {
      std::set<uint64_t> s;
      for (size_t n = rng() % 60; n--;) s.insert(rng() % span);
      l.assign(s.begin(), s.end());
    }
    std::set<uint64_t> uni, inter(lists[0].begin(), lists[0].end());
    for (const auto& l : lists) {
      uni.insert(l.begin(), l.end());
      std::set<uint64_t> keep;
      for (uint64_t v : l)
        if (inter.count(v)) keep.insert(v);
      inter = keep;
    }
    for (bool is_union : {true, false}) {
      const std::set<uint64_t>& want = is_union ? uni : inter;
      auto it = combine(is_union, lists);
      ASSERT_EQ(drain(*it), std::vector<uint64_t>(want.begin(), want.end())) << round;
      // Jumping ahead lands on the first member at or after the target.
      it = combine(is_union, lists);
      for (uint64_t t = rng() % 20; t < span + 5; t += 1 + rng() % 40) {
        it->op_seek(t);
        uint64_t got;
        auto lb = want.lower_bound(t);
        ASSERT_EQ(it->op_get(got), lb != want.end());
        if (lb != want.end()) {
          ASSERT_EQ(got, *lb);
        }
      }
    }
  }
}

TEST(n_iter, worked_examples) {
  EXPECT_EQ(drain(*combine(true, {{1, 5, 9}, {5, 6}})), (std::vector<uint64_t>{1, 5, 6, 9}));
  EXPECT_EQ(drain(*combine(false, {{1, 5, 9}, {5, 9, 12}, {0, 5, 7, 9}})), (std::vector<uint64_t>{5, 9}));
  EXPECT_TRUE(drain(*combine(true, {{}, {}})).empty());
  EXPECT_TRUE(drain(*combine(false, {})).empty());
  // Once a child runs out, the intersection stays exhausted.
  auto it = combine(false, {{1, 2, 3, 100}, {2}});
  uint64_t v;
  EXPECT_TRUE(n_iter_next(*it, v) && v == 2);
  it->op_seek(100);
  EXPECT_FALSE(it->op_get(v) || it->op_est(v));
}

TEST(n_iter, single_child_is_returned_as_is) {
  for (auto kind : {n_iter_builder::kind::union_of, n_iter_builder::kind::intersection_of}) {
    n_iter_builder b(kind);
    n_iter_ptr child = vec_iter({1});
    n_iter* raw = child.get();
    b.add(std::move(child));
    EXPECT_EQ(b.finish().get(), raw);
  }
}

}  // namespace
