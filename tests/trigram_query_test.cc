#include "trigram/trigram_query.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/property.h"
#include "trigram/simplify.h"
#include "trigram/trigram.h"

namespace {

trigram_query_ptr S(std::vector<int32_t> ids) {
  auto q = trigram_query_create(TQ_SET, 0);
  q->ids = std::move(ids);
  return q;
}
template <class... M>
trigram_query_ptr node(uint32_t type, M&&... m) {
  auto q = trigram_query_create(type, 0);
  (q->members.push_back(std::forward<M>(m)), ...);
  return q;
}
template <class... M> trigram_query_ptr U(M&&... m) { return node(TQ_UNION, std::forward<M>(m)...); }
template <class... M> trigram_query_ptr I(M&&... m) { return node(TQ_INTERSECTION, std::forward<M>(m)...); }
std::string text(const trigram_query_ptr& q) { return trigram_query_to_text(q.get()); }

TEST(trigram_query, print) {
  auto tree = U(S({3403, 0}), nullptr, I(S({68920, 68921})));
  EXPECT_EQ(logged(LOG_FAILURE, [&] { trigram_query_print(tree.get(), 0, TRIGRAM_COUNT); }),
            "+ TGR: 0=(0), # union = 3\n"
            " + TGR: 0=(1), # intersection[s] = 2 | 3403(abc) 0(aaa) \n"
            " + TGR: 0=(2), # intersection[c] = 1\n"
            "  + TGR: 0=(1), # intersection[s] = 2 | 68920(@@@) 68921(?\?\?) \n"
            "\n");
  // A set at the root gets no closing empty line.
  EXPECT_EQ(logged(LOG_FAILURE, [&] { trigram_query_print(tree->members[0].get(), 0); }),
            "+ TGR: 0=(1), # intersection[s] = 2 | 3403(abc) 0(aaa) \n");
}

constexpr const char* emptied = "Warning: intersection difference resulted in empty node!\n";

TEST(trigram_query, rewrites_and_their_messages) {
  struct row {
    trigram_query_ptr (*apply)(trigram_query_ptr);
    trigram_query_ptr (*build)();
    const char* result;
    std::string log;  // up to the detail level
  } rows[] = {
      {trigram_query_factor, [] { return U(S({1, 2, 3}), S({2, 3, 4})); },
       "{O=2/2:{O=1/2:2,3},{O=0/2:{O=1/1:1},{O=1/1:4}}}", ""},
      // An emptied member accepts every line, so the common set is all that is left.
      {trigram_query_factor, [] { return U(S({1, 2}), S({1, 2})); }, "{O=1/2:1,2}", std::string(emptied) + emptied},
      {trigram_query_reduce, [] { return U(S({1}), S({1, 2}), S({3})); }, "{O=0/2:{O=1/1:1},{O=1/1:3}}",
       "Removed 1 of 3 items from redundant terms.\n"},
      {trigram_query_reduce, [] { return U(S({1, 2}), S({1, 2, 3})); }, "{O=1/2:1,2}", emptied},
      {trigram_query_simplify, [] { return I(S({1, 2}), S({2, 3})); }, "{O=1/3:1,2,3}",
       "Collapsed a total of 4 nested results in 2 nodes [2].\nCollapsed redundantly nested intersection pair.\n"},
      {trigram_query_simplify, [] { return I(I(U(S({5}), S({6})), S({1})), S({3})); },
       "{O=2/2:{O=0/2:{O=1/1:5},{O=1/1:6}},{O=1/2:1,3}}",
       "Collapsed a total of 2 nested results in 1 nodes [1].\n"
       "Collapsed a total of 2 nested results in 2 nodes [2].\n"},
      {trigram_query_simplify, [] { return U(U(S({1}), S({2})), U(S({3}), S({4}))); },
       "{O=0/4:{O=1/1:1},{O=1/1:2},{O=1/1:3},{O=1/1:4}}", "Collapsed parent union of 2 union elements into one.\n"},
      // One unconstrained member makes the whole union unconstrained.
      {trigram_query_simplify, [] { return U(S({1, 2}), S({}), S({3})); }, "null",
       "Collapsed an entire branch of 3 nodes.\n"},
      {trigram_query_simplify, [] { return I(S({1}), nullptr, S({})); }, "{O=1/1:1}",
       "Removed 2 of 3 nodes from collapsed branch.\nCollapsed redundantly nested intersection pair.\n"},
      {trigram_query_simplify, [] { return I(S({1}), U()); }, "{O=1/1:1}",
       "Reduced result set by an additional 1 child node(s).\nFolded redundant child result up into parent.\n"},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    trigram_query_ptr out = rows[i].build();
    std::string log = logged(LOG_DETAIL, [&] { out = rows[i].apply(std::move(out)); });
    EXPECT_EQ(text(out), rows[i].result) << "row " << i;
    EXPECT_EQ(log, rows[i].log) << "row " << i;
  }
}

// Random trees over few trigrams, so that members share and contain each
// other; empties and nulls are rare enough that most trees keep a filter.
// The same generator state builds the same tree again.
constexpr std::array<int32_t, 8> pool = {0, 1, 2, 41, 3403, 40000, 68919, 68920};

trigram_query_ptr random_tree(std::mt19937_64& rng, int depth = 4) {
  auto pick = [&rng](size_t n) { return static_cast<unsigned>(rng() % n); };
  unsigned roll = pick(100);
  if (roll < 2) return nullptr;
  auto q = trigram_query_create(depth == 0 || roll < 35 ? TQ_SET : roll < 70 ? TQ_UNION : TQ_INTERSECTION, 0);
  for (unsigned n = pick(100) < 4 ? 0 : 1 + pick(4); n > 0; --n) {
    if (q->type == TQ_SET)
      q->ids.push_back(pool[pick(pool.size())]);
    else
      q->members.push_back(random_tree(rng, depth - 1));
  }
  return q;
}

// What the index's tracker fill relies on: no nulls, no empty or single-member nodes.
bool well_formed(const trigram_query* q) {
  if (q->type == TQ_SET) return !q->ids.empty();
  return q->members.size() >= 2 &&
         std::all_of(q->members.begin(), q->members.end(), [](const auto& m) { return m && well_formed(m.get()); });
}

// The reduced tree must accept exactly the lines the original accepts (the
// evaluator reads a null branch or an empty node as "no constraint").
TEST(trigram_query, property_simplified_tree_accepts_the_same_lines) {
  const size_t count = property_count(100000);
  std::vector<trigram_bitmap> lines(1u << pool.size());  // every subset of the pool
  for (size_t mask = 0; mask < lines.size(); ++mask)
    for (size_t b = 0; b < pool.size(); ++b)
      if (mask & (1u << b)) lines[mask].set(pool[b]);

  std::mt19937_64 rng(0x7f4a7c15);
  for (size_t i = 0; i < count; ++i) {
    std::mt19937_64 again = rng;
    auto original = random_tree(rng);
    auto reduced = trigram_query_reduce(random_tree(again));
    auto what = [&] { return "case " + std::to_string(i) + ": " + text(original) + " -> " + text(reduced); };
    ASSERT_TRUE(!reduced || well_formed(reduced.get())) << what();
    for (int k = 0; k < 16; ++k) {
      const trigram_bitmap& line = lines[rng() % lines.size()];
      ASSERT_EQ(trigram_query_accepts(reduced.get(), line), trigram_query_accepts(original.get(), line)) << what();
    }
  }
}

int32_t id_of(std::string_view s) {
  auto c = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  return trigram_id(c(0), c(1), c(2));
}

TEST(trigram_numbering, ids_names_and_bound) {
  // The first character is the least significant digit and upper case folds;
  // bytes next to the alphabet's ranges and outside ASCII are all symbol 40.
  const std::pair<std::string, int32_t> ids[] = {
      {"abc", 3403}, {"aaa", 0}, {"AbC", 3403}, {"z9.", 25 + 41 * 35 + 1681 * 36}, {"-_^", 37 + 41 * 38 + 1681 * 39},
      {"@@@", 68920}, {"`{:", 68920}, {"/[ ", 68920}, {std::string("\0\x80\xff", 3), 68920}};
  for (const auto& [text, id] : ids) EXPECT_EQ(id_of(text), id) << text;

  char name[4];
  for (int32_t id = 0; id < TRIGRAM_COUNT; ++id) {  // decoding inverts the numbering
    ASSERT_EQ(trigram_name(id, name, TRIGRAM_COUNT), 0);
    ASSERT_EQ(id_of(name), id) << name;
  }
  EXPECT_EQ(trigram_name(68921, name, TRIGRAM_COUNT), -1);
  EXPECT_EQ(trigram_name(-1, name, TRIGRAM_COUNT), -1);
  EXPECT_EQ(trigram_name(68921, name), 0);  // only an index's count bounds it
}

}  // namespace
