// The trigramization driver (statuses, messages, log lines, table-scan
// fallback) and the confirming matcher.
#include "trigram/trigramize.h"

#include <gtest/gtest.h>

#include "reparse/reparse.h"
#include "tests/support/log_capture.h"
#include "trigram/matcher.h"
#include "trigram/trigram.h"

namespace {

std::string times(const std::string& s, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += s;
  return out;
}

TEST(trigramize, statuses_patterns_and_table_scan_fallback) {
  const struct {
    const char* expression;
    bool glob;
    const char* pattern;  // "-": left as it was
    bool filtered;        // a query, or none (table scan)
    int status;
    const char* error;
    const char* info_log;  // what the default log level shows
  } rows[] = {
      {"a{3,2}", false, "-", false, 2, "Invalid bound at 1: 3 > 2", ""},
      {"[abc", true, "-", false, 4, "Unmatched [ at 0", ""},
      {"x{1,1}", false, "x", false, 0, "", "search expression {x{1,1}} converted to {x}\n"},
      {"a.*.*b", false, "a.*b", false, 0, "", "search expression {a.*.*b} converted to {a.*b}\n"},
      {"*.com", true, "^.*\\.com$", true, 0, "", ""},  // a glob is always converted: not worth a line
      {"abc", false, "abc", true, 0, "", ""},
      {".", false, ".", false, 0, "", ""},
      {"a", false, "a", false, 0, "", ""},
  };
  for (const auto& row : rows) {
    std::optional<std::string> pattern = "-";
    int status = -1;
    std::string error = "stale";
    trigram_query_ptr q;
    const std::string log =
        logged(LOG_INFO, [&] { q = trigramize(row.expression, &pattern, &status, &error, row.glob); });
    EXPECT_EQ(log, row.info_log) << row.expression;
    EXPECT_EQ(pattern, row.pattern);
    EXPECT_EQ(q != nullptr, row.filtered) << row.expression;
    EXPECT_EQ(status, row.status);
    EXPECT_EQ(error, row.error);
  }
  // Without a place for the pattern nothing is written out, so nothing is reported as converted.
  EXPECT_EQ(logged(LOG_INFO, [] { trigramize("x{1,1}", nullptr, nullptr, nullptr, false); }), "");
  // The dumps and the query print come at the debug levels only.
  EXPECT_NE(logged(LOG_TRACE, [] { trigramize("abc", nullptr, nullptr, nullptr, false); }), "");
}

TEST(matcher, confirms_caselessly_and_excludes) {
  search_match ctx;
  ASSERT_TRUE(compile_search(ctx, "abc", false, nullptr, nullptr));
  EXPECT_NE(ctx.query, nullptr);
  EXPECT_TRUE(match_line(ctx, "xxABCxx", 7));
  EXPECT_FALSE(match_line(ctx, "xxABCxx", 4));  // only the given length is scanned
  ASSERT_TRUE(compile_exclude(ctx, "*d", true, nullptr));
  EXPECT_EQ(ctx.exclude_pattern, "^.*d$");
  EXPECT_TRUE(match_line(ctx, "abc.", 4));
  EXPECT_FALSE(match_line(ctx, "abcd", 4));

  search_match empty;  // no main pattern: every candidate passes, exclusion is not consulted
  ASSERT_TRUE(compile_exclude(empty, "a", false, nullptr));
  EXPECT_TRUE(match_line(empty, "a", 1));

  search_match blank;  // a pattern that matches the empty string confirms every line
  ASSERT_TRUE(compile_search(blank, "x*", false, nullptr, nullptr));
  EXPECT_EQ(blank.query, nullptr);
  EXPECT_TRUE(match_line(blank, "", 0));
  EXPECT_TRUE(match_line(blank, "yyy", 3));
}

TEST(matcher, errors) {
  search_match ctx;
  std::string error;
  int status = -1;
  EXPECT_FALSE(compile_search(ctx, "a{3,2}", false, &status, &error));
  EXPECT_EQ(error, "Invalid bound at 1: 3 > 2");
  EXPECT_EQ(status, 2);
  EXPECT_FALSE(compile_exclude(ctx, "[a", false, &error));
  EXPECT_EQ(error, "Unmatched [ at 0");

  // Parsed, but refused by the matcher: the message names the main pattern, also for the exclude pattern.
  EXPECT_FALSE(compile_search(ctx, "a{65534}", false, nullptr, &error));
  EXPECT_EQ(error, "Internal regexp error: Bounded repeat is too large. (a{65534})");
  ASSERT_TRUE(compile_search(ctx, "abc", false, nullptr, &error));
  EXPECT_FALSE(compile_exclude(ctx, "b{65534}", false, &error));
  EXPECT_EQ(error, "Internal regexp error: Bounded repeat is too large. (abc)");
}

// Hostile patterns of up to 4,095 bytes, each refused with a position or
// compiled, with a query that lets through a key the pattern matches. How
// long they take is the benchmarks' business.
TEST(matcher, hostile_patterns_are_refused_or_compiled) {
  std::string words = "(x", nested = "abc";
  for (int i = 0; i < 700; ++i) words += "|w" + std::to_string(i) + "q";
  for (int i = 0; i < 495; ++i) nested = "(" + nested + "|xyz)w";  // near the deepest tree the parser gives
  const struct {
    std::string expression;
    bool glob;
    std::string outcome;  // "!" and the error, or a key the pattern must confirm
  } rows[] = {
      {times("*", 4095), true, "anything"},
      {times("*?", 600), true, "!Pattern too complex at 64: more than 64 classes, wildcards and repetitions"},
      {times("?", 4095), true, "!Pattern too complex at 64: more than 64 classes, wildcards and repetitions"},
      {"a" + times("*", 2000) + "." + times("*", 2000), true, "a.b"},
      {"^" + times(".*", 2000) + "$", false, "anything"},
      {times(".*a", 1300), false, "!Pattern too complex at 192: more than 64 classes, wildcards and repetitions"},
      {"^" + times(".?", 2000) + "$", false, "!Pattern too complex at 129: more than 64 classes, wildcards and repetitions"},
      {times("(a|b)?", 500), false, "!Pattern too complex at 198: too many optional parts in a row"},
      {"^" + times("(.*|a)", 600) + "$", false, "!Pattern too complex at 199: too many optional parts in a row"},
      {"((a|b)?){50}c", false, "!Pattern too complex at 0: too many optional parts in a row"},
      {times("a.c", 1365), false, "!Pattern too complex at 193: more than 64 classes, wildcards and repetitions"},
      {times("[ab]", 1000), false, "!Pattern too complex at 256: more than 64 classes, wildcards and repetitions"},
      {"(" + times(".", 1500) + "|zz)", false, "!Pattern too complex at 65: more than 64 classes, wildcards and repetitions"},
      {times("x.{1,100}", 20), false, "!Pattern too complex at 46: bounded repetitions span more than 512 characters"},
      {"x.{0,2000}y", false, "!Pattern too complex at 1: bounded repetitions span more than 512 characters"},
      {"(ab|cd){1000}", false, "!Pattern too complex at 0: repeated groups write out more than 1024 characters"},
      {"(a|b|c|d|e|f|g|h|i|j|k|l|m|n|o|p|q|r|s|t|u|v|w|x|y|z){50}", false,
       "!Pattern too complex at 0: repeated groups write out more than 1024 characters"},
      {"a{65535}", false, "!Internal regexp error: Bounded repeat is too large. (a{65535})"},
      {"[a-z]{1000}", false, times("k", 1000)},
      {times("x", 4095), false, times("X", 4095)},
      {words + ")", false, "w699q"},
      {times("(", 490) + "a" + times(")", 490), false, "a"},
      {nested, false, "xyzw"},
      {"x" + times("+", RE_MAX_REPEAT_NESTING), false, "xx"},
      // Spans that end where their class cannot go on count less: a label and its dot.
      {"^([a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?\\.){2,8}[a-z]{2,63}$", false, "mail.example.com"},
      {"^([a-z0-9-]{1,63}\\.){20}", false, times("a.", 20)},
      {"^([0-9a-f]{1,4}:){7}[0-9a-f]{1,4}$", false, "2001:db8:0:0:0:0:2:1"},
  };
  for (const auto& row : rows) {
    ASSERT_LE(row.expression.size(), 4095u);
    search_match ctx;
    std::string error;
    const bool compiled = compile_search(ctx, row.expression.c_str(), row.glob, nullptr, &error);
    const std::string shown = row.expression.substr(0, 60);
    if (row.outcome.starts_with("!")) {
      EXPECT_FALSE(compiled) << shown;
      EXPECT_EQ("!" + error, row.outcome) << shown;
      continue;
    }
    EXPECT_TRUE(compiled) << shown << ": " << error;
    if (!compiled) continue;
    EXPECT_TRUE(match_line(ctx, row.outcome.data(), row.outcome.size())) << shown;
    trigram_bitmap present;
    add_literal_trigrams(present, row.outcome, true, true);
    EXPECT_TRUE(trigram_query_accepts(ctx.query.get(), present)) << shown;
  }
}

}  // namespace
