// The trigram query must be a necessary condition: whenever the compiled
// pattern confirms a key, the key's trigrams (cut as the index cuts keys)
// satisfy the query. Random expressions of the whole dialect, random keys
// built largely from the expressions' own strings.
//
// VORN_PROPERTY_COUNT sets the number of expression/key pairs (default
// 24000); VORN_PROPERTY_SEED changes the seed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "reparse/reparse.h"
#include "tests/support/expression_gen.h"
#include "tests/support/property.h"
#include "trigram/matcher.h"
#include "trigram/trigram.h"

namespace {

constexpr int LINES_PER_EXPRESSION = 16;

std::string junk(expression_gen& g, size_t n) {
  static const char alphabet[] = "abcxABX01.-_^@/ *";
  std::string out;
  for (size_t i = 0; i < n; ++i) out += alphabet[g.below(sizeof alphabet - 1)];
  return out;
}

// Appends a string that `e` matches, letters in either case (a class wider
// than 100 members mostly gives a junk character instead).
void sample(expression_gen& g, const re_elem& e, std::string& out) {
  if (out.size() > 80) return;
  const uint32_t top = e.max == RE_UNBOUNDED ? e.min + 3 : e.max;
  const uint32_t reps = e.min + static_cast<uint32_t>(g.below(std::min<uint32_t>(top - e.min, 3) + 1));
  for (uint32_t r = 0; r < reps; ++r) {
    if (e.type == re_elem_literal) {
      for (char c : e.text) out += g.chance(30) && isalpha(static_cast<unsigned char>(c)) ? c ^ 0x20 : c;
    } else if (e.type == re_elem_class) {
      std::string members;
      for (int b = 1; b < 256; ++b)
        if (b != '\n' && e.class_has(static_cast<unsigned char>(b))) members += static_cast<char>(b);
      if (!members.empty())
        out += g.chance(70) && e.class_count() > 100 ? junk(g, 1)[0] : members[g.below(members.size())];
    } else if (e.type == re_elem_group) {
      if (!e.children.empty()) sample(g, *e.children[g.below(e.children.size())], out);
    } else {
      for (const re_elem_ptr& c : e.children) sample(g, *c, out);
    }
  }
}

// A key: often a string the expression itself produces, with neighbours;
// sometimes mutated or random.
std::string key(expression_gen& g, const re_elem& tree) {
  std::string out;
  if (g.chance(50)) out += junk(g, g.below(3));
  if (!g.chance(10)) sample(g, tree, out);
  if (g.chance(50)) out += junk(g, g.below(3));
  if (g.chance(25) && !out.empty()) {  // drop, double or replace a character
    const size_t at = g.below(out.size()), how = g.below(3);
    if (how == 0) out.erase(at, 1);
    if (how == 1) out.insert(at, 1, out[at]);
    if (how == 2) out[at] = junk(g, 1)[0];
  }
  return out;
}

TEST(soundness, confirmed_keys_satisfy_the_query) {
  const size_t pairs = property_count(24000);
  const char* seed = getenv("VORN_PROPERTY_SEED");
  expression_gen gen(seed ? strtoull(seed, nullptr, 10) : 20240611, false);
  size_t tried = 0, confirmed = 0, filtered = 0, expressions = 0;
  while (tried < pairs) {
    const bool is_glob = gen.chance(20);
    const std::string expression = is_glob ? gen.glob() : gen.regex(2);
    re_elem_ptr tree = is_glob ? glob_parse(expression.c_str(), nullptr) : regex_parse(expression.c_str(), nullptr);
    search_match ctx;
    std::string error;
    if (!tree || !compile_search(ctx, expression.c_str(), is_glob, nullptr, &error)) continue;
    ++expressions;
    if (ctx.query) ++filtered;
    for (int i = 0; i < LINES_PER_EXPRESSION; ++i, ++tried) {
      const std::string key = ::key(gen, *tree);
      if (!match_line(ctx, key.data(), key.size())) continue;
      ++confirmed;
      trigram_bitmap present;
      add_literal_trigrams(present, key, true, true);
      ASSERT_TRUE(trigram_query_accepts(ctx.query.get(), present))
          << "expression: " << expression << (is_glob ? " (glob)" : " (regex)") << "\npattern:    " << *ctx.pattern
          << "\nkey:        " << testing::PrintToString(key) << "\nquery:      " << trigram_query_to_text(ctx.query.get());
    }
  }
  printf("%zu expressions (%zu with a trigram filter), %zu keys, %zu confirmed\n", expressions, filtered, tried,
         confirmed);
  // The keys are built to match often enough for the check to bite.
  EXPECT_GT(confirmed, tried / 5);
  EXPECT_GT(filtered, expressions / 3);
}

}  // namespace
