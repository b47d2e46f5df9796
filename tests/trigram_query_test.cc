#include "trigram/trigram_query.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/property.h"
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

// Hand-built trees rebuilt through the constructors: each row one
// simplification, checked by the tree it gives.
TEST(trigram_query, constructors_simplify_as_they_build) {
  const std::pair<trigram_query_ptr (*)(), const char*> rows[] = {
      {[] { return S({3, 1, 3}); }, "{O=1/2:1,3}"},
      // Common trigrams go in front: (x AND a) OR (x AND b) is x AND (a OR b).
      {[] { return U(S({1, 2, 3}), S({2, 3, 4})); }, "{O=2/2:{O=1/2:2,3},{O=0/2:{O=1/1:1},{O=1/1:4}}}"},
      {[] { return U(S({1, 2}), S({1, 2})); }, "{O=1/2:1,2}"},
      // An alternative needing a superset of another's trigrams adds nothing.
      {[] { return U(S({1}), S({1, 2}), S({3})); }, "{O=0/2:{O=1/1:1},{O=1/1:3}}"},
      {[] { return U(S({1, 2}), S({1, 2, 3})); }, "{O=1/2:1,2}"},
      {[] { return I(S({1, 2}), S({2, 3})); }, "{O=1/3:1,2,3}"},
      {[] { return I(I(U(S({5}), S({6})), S({1})), S({3})); }, "{O=2/2:{O=1/2:1,3},{O=0/2:{O=1/1:5},{O=1/1:6}}}"},
      {[] { return U(U(S({1}), S({2})), U(S({3}), S({4}))); }, "{O=0/4:{O=1/1:1},{O=1/1:2},{O=1/1:3},{O=1/1:4}}"},
      // A union kept once, however often it is required.
      {[] { return I(U(S({1}), S({2})), S({7}), U(S({1}), S({2}))); }, "{O=2/2:{O=1/1:7},{O=0/2:{O=1/1:1},{O=1/1:2}}}"},
      // A member without constraint frees a union and means nothing in an intersection.
      {[] { return U(S({1, 2}), S({}), S({3})); }, "null"},
      {[] { return U(S({1, 2}), nullptr); }, "null"},
      {[] { return I(S({1}), nullptr, S({}), U()); }, "{O=1/1:1}"},
      {[] { return I(); }, "null"},
  };
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(text(trigram_query_reduce(rows[i].first())), rows[i].second) << "row " << i;
}

TEST(trigram_query, caps_only_drop_requirements) {
  const trigram_query_ptr both = trigram_query_reduce(I(S({1, 2, 3}), U(S({4}), S({5}))));
  EXPECT_EQ(text(trigram_query_shrink(both, 5)), text(both));
  EXPECT_EQ(text(trigram_query_shrink(both, 3)), "{O=1/3:1,2,3}");
  EXPECT_EQ(text(trigram_query_shrink(both, 2)), "{O=1/2:1,2}");
  EXPECT_EQ(trigram_query_shrink(both->members[1], 1), nullptr);  // a union that does not fit is given up

  std::vector<trigram_query_ptr> many;
  for (int32_t id = 0; id <= static_cast<int32_t>(QUERY_MAX_UNION_LEAVES); ++id) many.push_back(trigram_query_set({id}));
  EXPECT_EQ(trigram_query_or(many), nullptr);
  many.pop_back();
  EXPECT_EQ(trigram_query_or(many)->members.size(), QUERY_MAX_UNION_LEAVES);

  std::vector<int32_t> ids(QUERY_MAX_AND_IDS + 10);
  for (size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<int32_t>(i);
  EXPECT_EQ(trigram_query_and(trigram_query_set(ids), trigram_query_set({0}))->ids.size(), QUERY_MAX_AND_IDS);
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
