// Selectivity of the trigram query: which trigrams a line must hold, checked
// by evaluating the query.
#include "trigram/extract.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

}  // namespace
