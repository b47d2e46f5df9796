// The trigramization driver (statuses, messages, log lines, table-scan
// fallback) and the confirming matcher.
#include "trigram/trigramize.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "trigram/matcher.h"

namespace {

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(trigramize, statuses_log_lines_and_table_scan_fallback) {
  const struct {
    const char* expression;
    bool glob;
    int level;
    const char* pattern;  // "-": left as it was
    bool filtered;        // a query, or none (table scan)
    int status;
    const char* error;
    std::string log;  // exact, or with a leading "..." a part of it
  } rows[] = {
      {"a{3,2}", false, LOG_DEBUG, "-", false, 2, "Invalid bound at 1: 3 > 2",
       "Error parsing regex expression: Invalid bound at 1: 3 > 2\n"},
      {"[abc", true, LOG_DEBUG, "-", false, 4, "Unmatched [ at 0", "Error parsing glob expression: Unmatched [ at 0\n"},
      {"x{1,1}", false, LOG_INFO, "x", false, 0, "", "search expression {x{1,1}} converted to {x}\n"},
      {"*.com", true, LOG_INFO, "^.*\\.com$", true, 0, "", ""},
      {"*.com", true, LOG_DEBUG, "^.*\\.com$", true, 0, "", "...search expression {*.com} converted to {^.*\\.com$}\n"},
      {"abc", false, LOG_DEBUG, "abc", true, 0, "",
       "--- final result:\n+ TGR: 0=(1), # intersection[s] = 1 | 3403(abc) \n\n"},
      {"abc", false, LOG_TRACE, "abc", true, 0, "",
       "...--- end orig\n+literal [0] | 1    \"abc\"\n--- end fixup\n--- pre-optimized"},
      {".", false, LOG_INFO, ".", false, 0, "", ""},
      {".", false, LOG_DEBUG, ".", false, 0, "",
       "--- final result:\n(no trigram filter)\n\nWarning: overly broad expression fell back to table scan {.}\n"},
      {"a", false, LOG_DEBUG, "a", false, 0, "", "...fell back to table scan {a}\n"},
  };
  for (const auto& row : rows) {
    std::optional<std::string> pattern = "-";
    int status = -1;
    std::string error = "stale";
    trigram_query_ptr q;
    const std::string log =
        logged(row.level, [&] { q = trigramize(row.expression, &pattern, &status, &error, row.glob); });
    if (row.log.starts_with("..."))
      EXPECT_TRUE(contains(log, row.log.substr(3))) << row.expression << "\n" << log;
    else
      EXPECT_EQ(log, row.log) << row.expression;
    EXPECT_EQ(pattern, row.pattern);
    EXPECT_EQ(q != nullptr, row.filtered) << row.expression;
    EXPECT_EQ(status, row.status);
    EXPECT_EQ(error, row.error);
  }
  // Without a place for the pattern nothing is written out, so nothing is reported as converted.
  EXPECT_EQ(logged(LOG_INFO, [] { trigramize("x{1,1}", nullptr, nullptr, nullptr, false); }), "");
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
  const std::string log =
      logged(LOG_DEBUG, [&] { EXPECT_FALSE(compile_search(ctx, "a{3,2}", false, &status, &error)); });
  EXPECT_TRUE(contains(log, "Error in decomposition: Invalid bound at 1: 3 > 2\n"));
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

}  // namespace
