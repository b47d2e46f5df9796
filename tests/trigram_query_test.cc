#include "trigram/trigram_query.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "log/log.h"
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
template <class... M>
trigram_query_ptr U(M&&... m) { return node(TQ_UNION, std::forward<M>(m)...); }
template <class... M>
trigram_query_ptr I(M&&... m) { return node(TQ_INTERSECTION, std::forward<M>(m)...); }

// Collects what is logged while it lives.
class log_capture {
 public:
  explicit log_capture(int level, const char* prefix = "") {
    log_context_push();
    stream_ = open_memstream(&buf_, &len_);
    log_set_stream(stream_);
    log_set_level(level);
    log_set_prefix_text(prefix);
  }
  ~log_capture() {
    log_context_pop();
    fclose(stream_);
    free(buf_);
  }
  std::string text() {
    fflush(stream_);
    return std::string(buf_, len_);
  }

 private:
  FILE* stream_;
  char* buf_ = nullptr;
  size_t len_ = 0;
};

TEST(trigram_query, create_and_grow) {
  struct row {
    uint32_t type;
    size_t n, member_count;
    uint32_t member_type;
    const char* text;
  } rows[] = {
      {TQ_UNION, 2, 3, TQ_SET, "{O=0/2:{O=1/3:0,0,0},{O=1/3:0,0,0}}"},
      {TQ_UNION, 1, 2, TQ_UNION, "{O=0/1:{O=0/2:null,null}}"},
      {TQ_UNION, 2, 0, TQ_SET, "{O=0/2:null,null}"},
      {TQ_SET, 3, 5, TQ_SET, "{O=1/3:0,0,0}"},
      {TQ_INTERSECTION, 2, 4, TQ_SET, "{O=2/2:null,null}"},
      {7, 4, 0, TQ_SET, "{O=7/0:}"},
  };
  for (const row& r : rows)
    EXPECT_EQ(trigram_query_to_text(trigram_query_create(r.type, r.n, r.member_type, r.member_count).get()), r.text);

  auto set = S({4});
  trigram_query_grow(set.get(), 2);
  auto uni = U(S({1}));
  trigram_query_grow(uni.get(), 1);
  trigram_query_grow(nullptr, 3);
  EXPECT_EQ(trigram_query_to_text(set.get()), "{O=1/3:4,0,0}");
  EXPECT_EQ(trigram_query_to_text(uni.get()), "{O=0/2:{O=1/1:1},null}");
}

TEST(trigram_query, from_bitmap) {
  const uint8_t bits[] = {0x05, 0x00, 0x80};
  struct row {
    size_t nbits;
    const char* set;
  } rows[] = {
      {24, "{O=1/3:0,2,23}"},
      {23, "{O=1/2:0,2}"},
      {2, "{O=1/1:0}"},
      {1000, "{O=1/3:0,2,23}"},  // never reads past the buffer
  };
  for (const row& r : rows) EXPECT_EQ(trigram_query_to_text(trigram_query_from_bitmap(bits, r.nbits).get()), r.set);
  EXPECT_EQ(trigram_query_to_text(trigram_query_union_from_bitmap(bits, 24).get()),
            "{O=0/3:{O=1/1:0},{O=1/1:2},{O=1/1:23}}");

  trigram_bitmap big;
  big.set(68920);
  big.set(3403);
  EXPECT_EQ(trigram_query_to_text(trigram_query_from_bitmap(big).get()), "{O=1/2:3403,68920}");
  EXPECT_EQ(trigram_query_to_text(trigram_query_union_from_bitmap(big).get()), "{O=0/2:{O=1/1:3403},{O=1/1:68920}}");
}

TEST(trigram_query, merge_and_first_set_size) {
  auto a = S({1, 3, 5});
  auto b = S({2, 3, 6});
  EXPECT_EQ(trigram_query_to_text(trigram_query_merge(a.get(), b.get()).get()), "{O=1/5:1,2,3,5,6}");
  auto unsorted = S({6, 2, 2});
  EXPECT_EQ(trigram_query_to_text(trigram_query_merge(a.get(), unsorted.get()).get()), "{O=1/5:1,2,3,5,6}");
  auto u = U(S({1}));
  EXPECT_EQ(trigram_query_merge(a.get(), u.get()), nullptr);
  EXPECT_EQ(trigram_query_merge(nullptr, a.get()), nullptr);

  EXPECT_EQ(trigram_query_first_set_size(U(S({1, 2}), S({3})).get()), 2u);
  EXPECT_EQ(trigram_query_first_set_size(I(U(S({1})), S({3})).get()), 0u);
  EXPECT_EQ(trigram_query_first_set_size(U().get()), 0u);
  EXPECT_EQ(trigram_query_first_set_size(S({1}).get()), 0u);
  EXPECT_EQ(trigram_query_first_set_size(nullptr), 0u);
}

TEST(trigram_query, factor) {
  struct row {
    const char* name;
    trigram_query_ptr (*build)();
    const char* result;
    size_t warnings;
  } rows[] = {
      {"shared pair", [] { return U(S({1, 2, 3}), S({2, 3, 4})); },
       "{O=2/2:{O=1/2:2,3},{O=0/2:{O=1/1:1},{O=1/1:4}}}", 0},
      // An emptied member accepts every line, so only the common set is left.
      {"equal sets", [] { return U(S({1, 2}), S({1, 2})); }, "{O=1/2:1,2}", 2},
      {"subset member", [] { return U(S({1, 2}), S({3, 1, 2})); }, "{O=1/2:1,2}", 1},
      {"one member", [] { return U(S({8, 7})); }, "{O=1/2:7,8}", 1},
      {"nothing common", [] { return U(S({1}), S({2})); }, "{O=0/2:{O=1/1:1},{O=1/1:2}}", 0},
      {"empty member", [] { return U(S({1}), S({})); }, "{O=0/2:{O=1/1:1},{O=1/0:}}", 0},
      {"not all sets", [] { return U(S({1}), I(S({1}))); }, "{O=0/2:{O=1/1:1},{O=2/1:{O=1/1:1}}}", 0},
      {"not a union", [] { return I(S({1}), S({1})); }, "{O=2/2:{O=1/1:1},{O=1/1:1}}", 0},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    log_capture log(LOG_DEBUG);
    EXPECT_EQ(trigram_query_to_text(trigram_query_factor(r.build()).get()), r.result);
    std::string expected;
    for (size_t i = 0; i < r.warnings; ++i) expected += "Warning: intersection difference resulted in empty node!\n";
    EXPECT_EQ(log.text(), expected);
  }
  EXPECT_EQ(trigram_query_factor(nullptr), nullptr);
}

TEST(trigram_query, print) {
  log_capture log(LOG_FAILURE, "t");
  auto tree = U(S({3403, 0}), nullptr, I(S({68920, 68921})));
  trigram_query_print(tree.get(), 0, TRIGRAM_COUNT);
  EXPECT_EQ(log.text(),
            "t: + TGR: 0=(0), # union = 3\n"
            "t:  + TGR: 0=(1), # intersection[s] = 2 | 3403(abc) 0(aaa) \n"
            "t:  + TGR: 0=(2), # intersection[c] = 1\n"
            "t:   + TGR: 0=(1), # intersection[s] = 2 | 68920(@@@) 68921(?\?\?) \n"
            "\n");

  log_capture set_log(LOG_FAILURE);
  auto set = S({1});
  trigram_query_print(set.get(), 0);
  trigram_query_print(set.get(), 2);
  trigram_query_print(nullptr, 0);
  EXPECT_EQ(set_log.text(),
            "+ TGR: 0=(1), # intersection[s] = 1 | 1(baa) \n"
            "  + TGR: 0=(1), # intersection[s] = 1 | 1(baa) \n");
}

// The evaluator is the reference the simplifier is checked against: an empty
// node or a null branch places no constraint.
TEST(trigram_query, accepts) {
  trigram_bitmap line;
  line.set(1);
  line.set(2);
  struct row {
    const char* name;
    trigram_query_ptr (*build)();
    bool accepted;
  } rows[] = {
      {"null", [] { return trigram_query_ptr(); }, true},
      {"set present", [] { return S({1, 2}); }, true},
      {"set missing one", [] { return S({1, 3}); }, false},
      {"union any", [] { return U(S({3}), S({2})); }, true},
      {"union none", [] { return U(S({3}), S({4})); }, false},
      {"union with empty set", [] { return U(S({3}), S({})); }, true},
      {"union with null", [] { return U(S({3}), nullptr); }, true},
      {"empty union", [] { return U(); }, true},
      {"intersection all", [] { return I(S({1}), U(S({2}), S({5}))); }, true},
      {"intersection one fails", [] { return I(S({1}), S({4})); }, false},
      {"intersection ignores empties", [] { return I(S({1}), U(), nullptr, I()); }, true},
  };
  for (const row& r : rows) EXPECT_EQ(trigram_query_accepts(r.build().get(), line), r.accepted) << r.name;
}

}  // namespace
