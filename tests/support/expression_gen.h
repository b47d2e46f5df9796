// Random regular expressions and globs over the whole dialect, for property
// tests. The same seed gives the same expressions.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

class expression_gen {
 public:
  // A `stable` generator leaves out what the writer does not write back the
  // way it reads: bracket members "-", "\", "]", "^" (escaped with a
  // backslash, which a bracket reads as a member of its own) and the classes
  // [:cntrl:], [:space:], [:blank:] (members written raw, not printable).
  expression_gen(uint64_t seed, bool stable) : rng_(seed), stable_(stable) {}

  // Alternatives of sequences, with groups nested up to `depth` levels deep.
  std::string regex(int depth = 2) { return alternatives(depth, true); }
  std::string glob();

  size_t below(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }
  bool chance(int percent) { return static_cast<int>(below(100)) < percent; }
  // One of the space-separated words.
  std::string pick(std::string_view words);

 private:
  std::string alternatives(int depth, bool outermost);
  std::string sequence(int depth, bool outermost);
  char text_char() { return "abcXYZ019]}-,:_ ~!%@=/'\"<>$()*+.?[\\^{|"[below(38)]; }
  std::string bracket(char negation);

  std::mt19937_64 rng_;
  bool stable_;
};
