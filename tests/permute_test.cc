#include "trigram/permute.h"

#include <gtest/gtest.h>

namespace {

re_elem_ptr parse(const char* regex) {
  re_elem_ptr e = regex_parse(regex, nullptr);
  EXPECT_NE(e, nullptr) << regex;
  return e;
}

std::string alternatives(const re_elem_ptr& group) {
  if (!group) return "null";
  std::string out;
  for (const re_elem_ptr& alt : group->children) out.append(out.empty() ? "" : ",").append(alt->text);
  return out;
}

const char* const abc_runs = "(aaa|aab|aba|abb|baa|bab|bba|bbb)";

TEST(permute, reduction) {
  const std::string split = std::string(abc_runs) + ".*" + abc_runs;
  const std::pair<const char*, std::string> rows[] = {  // expression, reduced
      {"[ab]{13}", "[ab]{13}"},  // 8192 strings: kept
      {"[ab]{14}", split},       // one more: the run is cut to three, head and tail
      {"x[ab]{14}", "x" + split},
      {"[0-9]{4}", ".*"},  // three digits would be 1000 strings: too many to extend
      {"[a-j]{2,}", "[a-j]{2,}"},
      {"[a-k]{2,}", "[a-k].*[a-k]"},
      {".[ab](c|d|e)", ".[ab](c|d|e)"},  // the universal class is no factor
      {"[a-p][a-p]x[a-p][a-h]", ".*[a-p]x[a-p][a-h]"},  // the first of the largest goes first
      {"^(a|b|c|d)[a-z][a-z][a-z]$", "^(a|b|c|d).*[a-z][a-z]$"},
  };
  for (const auto& [regex, reduced] : rows) {
    re_elem_ptr out = reduce_permutations(parse(regex));
    ASSERT_NE(out, nullptr) << regex;
    EXPECT_EQ(re_elem_serialize(*out), reduced) << regex;
  }
}

TEST(permute, class_pairs_runs_and_extensions) {
  // Members keep their trigram code: upper case folds, '^' stays, '*' shares '@'.
  EXPECT_EQ(alternatives(permute_class_pair(*parse("[aB]"), *parse("[*^]"))), "b@,b^,a@,a^");
  EXPECT_EQ(permute_class_pair(*parse("."), *parse("[ab]")), nullptr);

  EXPECT_EQ(alternatives(permute_class_run(*parse("[ab]{3}"))), "aaa,aab,aba,abb,baa,bab,bba,bbb");
  EXPECT_EQ(permute_class_run(*parse("[ab]")), nullptr);      // shorter than 2
  EXPECT_EQ(permute_class_run(*parse("[a-e]{3}")), nullptr);  // 125 strings
  EXPECT_EQ(permute_class_run(*parse("[ab]{9}")), nullptr);   // capped at 8 and refused at 128

  re_elem_ptr eight = parse("(a|b|c|d|e|f|g|h)"), nine = parse("[1-9]");
  EXPECT_EQ(extend_literal_group(*eight, *nine, PERMUTE_APPEND, false), nullptr);  // 72 strings
  EXPECT_EQ(extend_literal_group(*eight, *nine, PERMUTE_APPEND, true)->children.size(), 72u);
  const re_elem_ptr at_limit = extend_literal_group(*eight, *parse("[1-8]"), PERMUTE_APPEND, false);
  ASSERT_NE(at_limit, nullptr);
  EXPECT_EQ(at_limit->children.size(), 64u);
  EXPECT_EQ(alternatives(extend_literal_group(*parse("(ab|c)"), *parse("[xY]"), PERMUTE_PREPEND, false)),
            "yab,xab,yc,xc");
  EXPECT_EQ(extend_literal_group(*parse("(ab|c.)"), *nine, PERMUTE_APPEND, true), nullptr);
}

}  // namespace
