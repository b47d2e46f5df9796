// The tree fix-up before extraction, seen through the written form of the
// rewritten tree.
#include "trigram/fixup.h"

#include <gtest/gtest.h>

namespace {

TEST(fixup, tree_preparation) {
  const std::pair<const char*, const char*> rows[] = {
      {"x[A-C*^]y", "x[@\\^a-c]y"},           // onto the alphabet; '^' kept
      {"x[ab]{2,5}y", "x[ab]{2}.*[ab]{2}y"},  // variable run: head, gap, tail
      {"xb{3}", "xbbb"},                 // fixed repetition written out
      {"(a{2,4}|bc)", "(aaa{0,2}|bc)"},  // in a group: two copies, then the rest
      {"xa{3,5}", "xaaaa{0,2}"},         // bounded short literal
      {"x[a-z0-9_]y", "x.y"},            // wider than 30 members
      {"(^ab){2}x", "(^ab){2}x"},        // an anchor inside a repetition stays inside
  };
  for (const auto& [regex, prepared] : rows) {
    re_elem_ptr tree = fixup_tree(regex_parse(regex, nullptr));
    ASSERT_NE(tree, nullptr) << regex;
    EXPECT_EQ(re_elem_serialize(*tree), prepared) << regex;
  }
  // The bytes a class's written form matches: a run reaching byte 255 is cut to its first byte.
  EXPECT_EQ(class_written_bits({0, 0, 0, ~uint64_t{0}}), (re_class_bits{0, 0, 0, 1}));
}

}  // namespace
