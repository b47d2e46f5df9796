// Selectivity of the trigram query: which trigrams a line must hold, checked
// by evaluating the query.
#include "trigram/extract.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "trigram/matcher.h"
#include "trigram/trigram.h"
#include "trigram/trigramize.h"

namespace {

// Whether `q` accepts a line holding every trigram but the `missing` ones
// (texts, '^' standing for the pad).
bool accepts_all_but(const trigram_query* q, const std::vector<std::string>& missing) {
  trigram_bitmap present;
  for (int32_t id = 0; id < TRIGRAM_COUNT; ++id)
    if (std::none_of(missing.begin(), missing.end(), [&](auto& t) { return trigram_id(t[0], t[1], t[2]) == id; }))
      present.set(id);
  return trigram_query_accepts(q, present);
}

bool accepts_key(const trigram_query* q, const std::string& key) {
  trigram_bitmap present;
  add_literal_trigrams(present, key, true, true);
  return trigram_query_accepts(q, present);
}

// The trigram texts with '?' replaced by each of `fill`.
std::vector<std::string> each(std::string pattern, const std::string& fill) {
  std::vector<std::string> out;
  const size_t at = pattern.find('?');
  for (char c : fill) out.push_back(pattern.replace(at, 1, 1, c));
  return out;
}

TEST(extract, selectivity) {
  const struct {
    const char* expression;
    bool glob;
    std::vector<std::string> required;  // each one alone is required
    std::vector<std::string> jointly;   // a line without all of these is rejected
    std::vector<std::string> accepted;  // matching keys
    std::vector<std::string> rejected;  // keys the index need not propose
  } rows[] = {
      // clang-format off
      {"abcdef", false, {"abc", "bcd", "cde", "def"}, {}, {"xxABCDEFxx"}, {"abcde"}},
      {"^mail\\.", false, {"^^m", "^ma", "mai", "ail", "il."}, {}, {"mail.example.com"}, {"email.com"}},
      {"\\.example\\.com$", false, {".ex", "exa", "xam", "amp", "mpl", "ple", "le.", "e.c", ".co", "com", "om^", "m^^"},
       {}, {"www.example.com"}, {"www.example.com.evil"}},
      {"(paypal|amazon)", false, {}, {"pay", "ama"}, {"paypal", "www.amazon.com"}, {"paypa amazo"}},
      {"login[0-9]+\\.", false, {"log", "ogi", "gin"}, each("in?", "0123456789"), {"login12.x"}, {"loginx.", "login."}},
      {"pay[a-z]?pal", false, {"pay", "pal"}, {}, {"paypal", "payxpal"}, {"pay-pal", "pay pal"}},
      {"^a$", false, {"^^a", "a^^"}, {}, {"a"}, {"ab", "ba"}},  // a one-character key has no (^,a,^)
      {"x[abcd]{7}y", false, {}, {}, {"xabcdabcy", "xdddddddy"}, {"x"}},
      {"a.c", false, {}, each("a?c", "abcdefghijklmnopqrstuvwxyz0123456789.-_^@"), {"a-c"}, {"ac"}},
      // clang-format on
  };
  for (const auto& row : rows) {
    std::string error;
    trigram_query_ptr q = trigramize(row.expression, nullptr, nullptr, &error, row.glob);
    ASSERT_NE(q, nullptr) << row.expression;
    const std::string shown = std::string(row.expression) + " -> " + trigram_query_to_text(q.get());
    EXPECT_TRUE(accepts_all_but(q.get(), {})) << shown;
    for (const std::string& t : row.required) EXPECT_FALSE(accepts_all_but(q.get(), {t})) << t << ": " << shown;
    if (!row.jointly.empty()) {
      EXPECT_FALSE(accepts_all_but(q.get(), row.jointly)) << shown;
      EXPECT_TRUE(accepts_all_but(q.get(), {row.jointly[0]})) << shown;  // no single one is required
    }
    for (const std::string& key : row.accepted) EXPECT_TRUE(accepts_key(q.get(), key)) << key << ": " << shown;
    for (const std::string& key : row.rejected) EXPECT_FALSE(accepts_key(q.get(), key)) << key << ": " << shown;
  }
}

// Capitals and mixed-case classes and ranges. Matching ignores case, while
// the index folds capitals and codes other bytes apart, so a class such as
// [Q-z] stands for letters, '^' and '@'-coded bytes at once. Over lines that
// match and lines that nearly do, every line the matcher confirms must pass
// the query (soundness), and the query must still require the trigrams the
// expression forces (selectivity).
TEST(extract, capitals_and_mixed_case_classes) {
  const struct {
    const char* expression;
    bool glob;
    std::vector<std::string> lines;     // each checked: confirmed means accepted
    std::vector<std::string> matching;  // those the matcher must confirm
    std::vector<std::string> required;  // each alone is required
    std::vector<std::string> rejected;  // near misses the query keeps out
  } rows[] = {
      // clang-format off
      {"x[A-Z]y", false, {"xAy", "xqy", "XZY", "x-y", "x1y", "xAAy"}, {"xAy", "xqy", "XZY"}, {}, {"x1y", "x-y"}},
      {"ab[Q-z]cd", false, {"abQcd", "abqcd", "ab_cd", "ab^cd", "ab`cd", "ab\\cd", "ab]cd", "ab-cd", "ab1cd", "abPcd"},
       {"abQcd", "ab_cd", "ab^cd", "ab`cd", "ab\\cd"}, {}, {"ab1cd", "ab-cd", "abcd"}},
      {"[^A-Z]ogin\\.", false, {"1ogin.", "-ogin.", "login.", "Login.", "ogin.", "x ogin."}, {"1ogin.", "-ogin."},
       {"ogi", "gin", "in."}, {}},
      {"^[A-Za-z0-9]{3}\\.com", false, {"ABC.com", "a1Z.COM", "ab.com", "a-c.com", "abcd.com"}, {"ABC.com", "a1Z.COM"},
       {".co", "com"}, {"abc.net"}},  // 36 symbols: too wide to expand
      {"LOGIN[0-9]+", false, {"login5", "LOGIN55", "LoGiN9x", "LOGINx", "LOGI5"}, {"login5", "LOGIN55", "LoGiN9x"},
       {"log", "ogi", "gin"}, {"loginx"}},
      {"[[:upper:]]{2}-mail", false, {"AB-mail", "ab-MAIL", "A-mail", "A1-mail"}, {"AB-mail", "ab-MAIL"},
       {"-ma", "mai", "ail"}, {"a1-mail"}},
      {"[!A-Z]bc.ORG", true, {"1bc.org", "_BC.ORG", "abc.org", "Zbc.org", "bc.org"}, {"1bc.org", "_BC.ORG"},
       {"bc.", "c.o", ".or", "org", "rg^"}, {}},
      // clang-format on
  };
  for (const auto& row : rows) {
    search_match ctx;
    std::string error;
    ASSERT_TRUE(compile_search(ctx, row.expression, row.glob, nullptr, &error)) << row.expression << ": " << error;
    const std::string shown = std::string(row.expression) + " -> " + trigram_query_to_text(ctx.query.get());
    for (const std::string& line : row.lines) {
      const bool confirmed = match_line(ctx, line.data(), line.size());
      // Soundness: a confirmed line passes; and the lines meant to match do.
      EXPECT_TRUE(!confirmed || accepts_key(ctx.query.get(), line)) << line << ": " << shown;
      const bool wanted = std::find(row.matching.begin(), row.matching.end(), line) != row.matching.end();
      EXPECT_TRUE(!wanted || confirmed) << line << ": " << row.expression;
    }
    ASSERT_NE(ctx.query, nullptr) << shown;
    EXPECT_TRUE(accepts_all_but(ctx.query.get(), {})) << shown;
    for (const std::string& t : row.required) EXPECT_FALSE(accepts_all_but(ctx.query.get(), {t})) << t << ": " << shown;
    for (const std::string& key : row.rejected) EXPECT_FALSE(accepts_key(ctx.query.get(), key)) << key << ": " << shown;
  }
}

}  // namespace
