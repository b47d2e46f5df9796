#include "libmy/heap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

namespace {

using item = std::shared_ptr<std::pair<int, int>>;  // (key, tag); null means none
int by_key(const item& a, const item& b) { return a->first - b->first; }
item mk(int key, int tag = 0) { return std::make_shared<std::pair<int, int>>(key, tag); }

TEST(heap, push_pop_and_heapify_give_sorted_order) {
  std::mt19937 rng(7);
  for (int round = 0; round < 50; ++round) {
    std::vector<int> keys(rng() % 40);
    for (int& k : keys) k = int(rng() % 20);
    heap<item> pushed(by_key), built(by_key);
    for (int k : keys) pushed.push(mk(k)), built.append(mk(k));
    built.heapify();
    std::sort(keys.begin(), keys.end());
    for (heap<item>* h : {&pushed, &built}) {
      std::vector<int> out;
      while (item x = h->pop()) out.push_back(x->first);
      EXPECT_EQ(out, keys);
    }
  }
}

TEST(heap, siftup_moves_right_child_up_on_a_tie) {
  heap<item> h(by_key);
  for (auto [k, tag] : {std::pair{9, 0}, {4, 1}, {4, 2}}) h.append(mk(k, tag));
  h.siftup(0);
  EXPECT_EQ(h.element(0)->second, 2);
  EXPECT_EQ(h.element(2)->second, 0);
}

}  // namespace
