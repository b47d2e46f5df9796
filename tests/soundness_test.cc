// The trigram query must be a necessary condition: whenever the compiled
// pattern confirms a key, the key's trigrams (cut as the index cuts keys)
// satisfy the query. Random expressions of the whole dialect, random keys
// built largely from the expressions' own strings.
//
// VORN_PROPERTY_COUNT sets the number of expression/key pairs (default
// 24000); VORN_PROPERTY_SEED changes the seed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "reparse/reparse.h"
#include "tests/support/property.h"
#include "trigram/matcher.h"
#include "trigram/trigram.h"

namespace {

constexpr int LINES_PER_EXPRESSION = 16;

class generator {
 public:
  explicit generator(uint64_t seed) : rng_(seed) {}

  size_t below(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }
  bool chance(int percent) { return static_cast<int>(below(100)) < percent; }
  // One of the space-separated words.
  std::string pick(std::string_view words) {
    std::vector<std::string_view> w;
    for (size_t at = 0, end; at < words.size(); at = end + 1) {
      end = std::min(words.find(' ', at), words.size());
      w.push_back(words.substr(at, end - at));
    }
    return std::string(w[below(w.size())]);
  }

  std::string regex(int depth) {
    std::string out = sequence(depth);
    while (chance(25)) {
      out += '|';
      out += sequence(depth);
    }
    return out;
  }

  std::string glob() {
    std::string out;
    for (size_t n = 1 + below(6); n-- > 0;)
      out += pick("a b A x - . 0 1 _ ^ * ? [ab] [!a] [a-c] [^.] \\* \\? ab Ba .c @ { $");
    return out;
  }

  // A key: often a string the expression itself produces, in mixed case and
  // with neighbours; sometimes mutated or random.
  std::string key(const re_elem& tree) {
    std::string out;
    if (chance(50)) out += junk(below(3));
    if (!chance(10)) sample(tree, out);
    if (chance(50)) out += junk(below(3));
    if (chance(25) && !out.empty()) {  // drop, double or replace a character
      const size_t at = below(out.size()), how = below(3);
      if (how == 0) out.erase(at, 1);
      if (how == 1) out.insert(at, 1, out[at]);
      if (how == 2) out[at] = junk(1)[0];
    }
    return out;
  }

 private:
  std::string sequence(int depth) {
    std::string out;
    if (chance(20)) out += "^";
    // Now and then a long one, so that classes and groups multiply past the
    // permutation budget.
    for (size_t n = chance(10) ? 6 + below(8) : 1 + below(4); n-- > 0;) out += item(depth);
    if (chance(20)) out += "$";
    return out;
  }

  std::string item(int depth) {
    std::string atom;
    const size_t kind = below(depth > 0 ? 10 : 8);
    if (kind < 4)
      atom = pick("a b ab abc Ba x 0 01 - . _ \\. \\^ \\* @ / a.b AbA } ] c-1");
    else if (kind < 5)
      atom.push_back('.');
    else if (kind < 8)
      atom = pick(
          "[ab] [a-c] [A-C] [^ab] [[:digit:]] [[:alpha:]] [[:upper:]] [.-_] [^[:alnum:]] [a^] [*/] [0-9a] [^-] [xX] "
          "[[:punct:]] [^a-z] []a] [[:space:]a] [b-dB] [^.]");
    else
      atom.append(1, '(').append(regex(depth - 1)).append(1, ')');
    if (chance(35)) atom += pick("* + ? {2} {3} {0,2} {1,3} {2,} {0,0} {4} {2,5} {7} {9} {4,9} {3,} {14}");
    return atom;
  }

  std::string junk(size_t n) {
    static const char alphabet[] = "abcxABX01.-_^@/ *";
    std::string out;
    for (size_t i = 0; i < n; ++i) out += alphabet[below(sizeof alphabet - 1)];
    return out;
  }

  void sample(const re_elem& e, std::string& out) {
    if (out.size() > 80) return;
    const uint32_t top = e.max == RE_UNBOUNDED ? e.min + 3 : e.max;
    const uint32_t reps = e.min + static_cast<uint32_t>(below(std::min<uint32_t>(top - e.min, 3) + 1));
    for (uint32_t r = 0; r < reps; ++r) {
      switch (e.type) {
        case re_elem_literal:
          for (char c : e.text) out += chance(30) && isalpha(static_cast<unsigned char>(c)) ? c ^ 0x20 : c;
          break;
        case re_elem_class: {
          std::string members;
          for (int b = 1; b < 256; ++b)
            if (b != '\n' && e.class_has(static_cast<unsigned char>(b))) members += static_cast<char>(b);
          if (!members.empty())
            out += chance(70) && e.class_count() > 100 ? junk(1)[0] : members[below(members.size())];
          break;
        }
        case re_elem_group:
          if (!e.children.empty()) sample(*e.children[below(e.children.size())], out);
          break;
        case re_elem_sequence:
          for (const re_elem_ptr& c : e.children) sample(*c, out);
          break;
      }
    }
  }

  std::mt19937_64 rng_;
};

TEST(soundness, confirmed_keys_satisfy_the_query) {
  const size_t pairs = property_count(24000);
  const char* seed = getenv("VORN_PROPERTY_SEED");
  generator gen(seed ? strtoull(seed, nullptr, 10) : 20240611);
  size_t tried = 0, confirmed = 0, filtered = 0, expressions = 0;
  while (tried < pairs) {
    const bool is_glob = gen.chance(20);
    const std::string expression = is_glob ? gen.glob() : gen.regex(2);
    re_elem_ptr tree = is_glob ? glob_parse(expression.c_str(), nullptr) : regex_parse(expression.c_str(), nullptr);
    search_context ctx;
    std::string error;
    if (!tree || !compile_search(ctx, expression.c_str(), is_glob, nullptr, &error)) continue;
    ++expressions;
    if (ctx.query) ++filtered;
    for (int i = 0; i < LINES_PER_EXPRESSION; ++i, ++tried) {
      const std::string key = gen.key(*tree);
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
