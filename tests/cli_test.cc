#include "cli.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr int64_t kNow = 1700000000;

TEST(cli, parse_time_spec_forms) {
  struct tcase {
    const char* text;
    bool ok;
    int64_t want;
  };
  const tcase cases[] = {
      {"2020-01-02", true, 1577923200},
      {"2020-01-02 03:04:05", true, 1577923200 + 3 * 3600 + 4 * 60 + 5},
      {"", true, kNow},
      {"3600", true, 3600},
      {"-3600", true, kNow - 3600},
      {"1d", true, kNow - 86400},
      {"1h30m", true, kNow - 5400},
      {"2w1d", true, kNow - 15 * 86400},
      {"10S5s", true, kNow - 15},
      {"1D1d", true, kNow - 2 * 86400},
      {"-1d", false, 0},
      {"1d5", false, 0},
      {"1x", false, 0},
      {"d", false, 0},
      {"1d ", false, 0},
      {" 1d", false, 0},
      {"2020-01-02x", false, 0},
  };
  for (const auto& c : cases) {
    int64_t out = -1;
    EXPECT_EQ(parse_time_spec(c.text, out, kNow), c.ok) << "'" << c.text << "'";
    if (c.ok) {
      EXPECT_EQ(out, c.want) << "'" << c.text << "'";
    }
  }
}

std::string usage_text(const std::string& name) {
  return "\nUsage: " + name +
         " <-f fileset | -l idxfile [-l idxfile2 ...]> [-s search_expr] [-g] [-j | -r] [-L #limit] [-t timeout] "
         "[-v[v]]\n"
         "-f  performs a search against the contents of a tgdb fileset.\n"
         "-l  specifies that the trigram index be loaded from the specified file or files, for multi-search.\n"
         "-s  indicates an optional search string; otherwise, input will be read from stdin.\n"
         "-g  enables globbing mode (default is regular expressions).\n"
         "-j  enables output of results in json mode (ala vornbackendd).\n"
         "-r  produces results in raw mode (as intermediate data).\n"
         "-t  specify timeout in seconds since last search result. May be a decimal number for sub-second "
         "timeout.\n"
         "-L  specifies a limit for results in search mode (default = 10000).\n"
         "-v  can be specified multiple times and increases output verbosity.\n"
         "-A  specifies time after.\n"
         "-B  specifies time before.\n"
         "-c  selects 'complete' time matching.\n"
         "Ex. 1: " +
         name + " -l /path/to/index\nEx. 2: " + name + " -l /path/to/index1 -l /path/to/index2\n\n";
}

TEST(cli, option_errors_and_exit_statuses) {
  const std::string usage = usage_text(VORNSEARCH_BIN);
  const std::string missing = "Error: must supply at least one of -l or -f\n" + usage;
  struct tcase {
    std::vector<std::string> args;
    std::string err;
  };
  const tcase cases[] = {
      {{}, missing},
      {{"-s", "x", "-g", "-c"}, missing},
      {{"-j", "-r"}, "Error: cannot supply -j and -r options together.\n"},
      {{"-r", "-L", "5", "-j"}, "Error: cannot supply -j and -r options together.\n"},
      {{"-L", "0"}, "Invalid search limit specified: 0\n"},
      {{"-L", "abc"}, "Invalid search limit specified: abc\n"},
      {{"-L", "4294967296"}, "Invalid search limit specified: 4294967296\n"},
      {{"-L", "-1"}, missing},
      {{"-t", "abc"}, missing},
      {{"-A", "1x"}, "invalid time '1x'\n"},
      {{"-B", "-1d"}, "invalid time '-1d'\n"},
      {{"-A", "", "-B", "2020-01-02"}, missing},
      {{"-f", "/nonexistent/set"}, "Error: could not access fileset /nonexistent/set: No such file or directory\n"},
  };
  for (const auto& c : cases) {
    run_result r = run_vornsearch(c.args);
    std::string joined;
    for (const auto& a : c.args) joined += a + " ";
    EXPECT_EQ(r.status, 1) << joined;
    EXPECT_EQ(r.err, c.err) << joined;
    EXPECT_EQ(r.out, "") << joined;
  }
}

TEST(cli, unknown_option_prints_the_systems_message_then_usage) {
  run_result r = run_vornsearch({"-x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("invalid option -- 'x'"), std::string::npos);
  EXPECT_NE(r.err.find(usage_text(VORNSEARCH_BIN)), std::string::npos);
}

TEST(cli, unreadable_index_file_fails_through_the_loader) {
  temp_dir dir;
  std::string path = dir.write("tiny.tgdb", "not an index");
  run_result r = run_vornsearch({"-l", path, "-s", "x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Failed to add file " + path + "\n"), std::string::npos);
  EXPECT_EQ(r.err.find("Starting"), std::string::npos);
}

TEST(cli, invalid_log_level_warns_and_keeps_going) {
  run_result r = run_vornsearch({}, "", {{"VORN_LOGLEVEL", "4"}});
  EXPECT_EQ(r.err.rfind("Warning: invalid log level '4' in VORN_LOGLEVEL\n", 0), 0u);
  EXPECT_EQ(r.status, 1);
}

}  // namespace
