#include "cli.h"

#include <gtest/gtest.h>

#include "libmy/version.h"
#include <optional>
#include <string>
#include <vector>

#include "tests/support/index_builder.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"

namespace {

const std::string bin = VORNSEARCH_BIN;
const std::string logged = vornsearch_log_prefix();  // the cut name log lines start with
const std::string usage =
    "\nUsage: " + bin +
    " <-f fileset | -l idxfile [-l idxfile2 ...]> [-s search_expr] [-g] [-j | -r] [-L #limit] [-t timeout] [-v[v]]\n"
    "-f  performs a search against the contents of a tgdb fileset.\n"
    "-l  specifies that the trigram index be loaded from the specified file or files, for multi-search.\n"
    "-s  indicates an optional search string; otherwise, input will be read from stdin.\n"
    "-g  enables globbing mode (default is regular expressions).\n"
    "-j  enables output of results in json mode (ala vornbackendd).\n"
    "-r  produces results in raw mode (as intermediate data).\n"
    "-t  specify timeout in seconds since last search result. May be a decimal number for sub-second timeout.\n"
    "-L  specifies a limit for results in search mode (default = 10000).\n"
    "-v  can be specified multiple times and increases output verbosity.\n"
    "-A  specifies time after.\n"
    "-B  specifies time before.\n"
    "-c  selects 'complete' time matching.\n"
    "Ex. 1: " + bin + " -l /path/to/index\nEx. 2: " + bin + " -l /path/to/index1 -l /path/to/index2\n\n";

// Every start-up error: the exact standard error, nothing on standard
// output, exit status 1.
TEST(cli, start_up_errors) {
  temp_dir dir;
  const std::string names = write_index(dir.file("n.tgdb"), {"a.example\t4:1:1"});
  const std::string junk = dir.write("junk.tgdb", "not an index"), set = dir.write("set", "n.tgdb\n");
  const std::string missing = "Error: must supply at least one of -l or -f\n" + usage;
  const std::string both = "Error: cannot supply -j and -r options together.\n";
  const struct {
    std::vector<std::string> args;
    std::string err;
    std::vector<std::pair<std::string, std::string>> env = {};
  } cases[] = {
      {{}, missing},
      {{"-j", "-r"}, both},  // checked before the missing source
      {{"-L", "0"}, "Invalid search limit specified: 0\n"},
      {{"-L", "4294967296"}, "Invalid search limit specified: 4294967296\n"},
      {{"-L", "-1"}, missing},
      {{"-t", "abc"}, missing},
      {{"-A", "1x"}, "invalid time '1x'\n"},
      {{"-B", "-1d"}, "invalid time '-1d'\n"},
      {{"-A", "", "-B", "2020-01-02"}, missing},
      {{"-x"}, bin + ": invalid option -- 'x'\n" + usage},
      // Long options add names; the short letters keep theirs.
      {{"-h"}, bin + ": invalid option -- 'h'\n" + usage},
      {{"--bogus"}, bin + ": unrecognized option '--bogus'\n" + usage},
      {{"-L", "0", "--help"}, "Invalid search limit specified: 0\n"},  // options act as they are read
      // An operand left over would be a file that is never searched, or
      // make standard input be read without -s.
      {{"-l", names, "-s", "x", "b.tgdb"}, "unexpected argument 'b.tgdb': give each index file with its own -l\n"},
      {{"-l", names, "login2", "-j", "-r"}, "unexpected argument 'login2': give each index file with its own -l\n"},
      {{"x\r", "-l", names}, "unexpected argument 'x\\r': give each index file with its own -l\n"},
      {{}, "Warning: invalid log level '4' in VORN_LOGLEVEL\n" + missing, {{"VORN_LOGLEVEL", "4"}}},
      {{"-f", "/nonexistent/set"}, "Error: could not access fileset /nonexistent/set: No such file or directory\n"},
      // The option named is the second one, whichever it is.
      {{"-l", names, "-f", set}, "-f may not be used with -l\n" + usage},
      {{"-f", set, "-l", names}, logged + "Loading fileset: " + set + "\n-l may not be used with -f\n" + usage},
      {{"-l", junk, "-s", "x"},
       logged + "Error: trigram index was smaller than minimum header size of 1102784 bytes\n" + logged +
           "Error: could not deserialize trigram index from file: " + junk + "\nFailed to add file " + junk + "\n"},
  };
  for (const auto& c : cases) {
    run_result r = run_vornsearch(c.args, "", c.env);
    const std::string joined = testing::PrintToString(c.args);
    EXPECT_EQ(r.status, 1) << joined;
    EXPECT_EQ(r.err, c.err) << joined;
    EXPECT_EQ(r.out, "") << joined;
  }
}

// --help and --version answer on standard output and end the run well.
TEST(cli, help_and_version) {
  const std::string help_start = usage + "Times for -A and -B";
  const struct {
    std::vector<std::string> args;
    std::string out_start;
    std::vector<const char*> holds = {};
  } cases[] = {
      {{"--help"}, help_start,
       {"2025-12-01T13:45:00Z", "\n-L -1 means no limit", "\nWithout -s, expressions",
        "\nA set file (-f)", "\nExit status: 0"}},
      {{"-v", "--help", "-x"}, help_start},  // the run ends at --help
  };
  for (const auto& c : cases) {
    const run_result r = run_vornsearch(c.args);
    const std::string joined = testing::PrintToString(c.args);
    EXPECT_EQ(r.status, 0) << joined;
    EXPECT_EQ(r.err, "") << joined;
    EXPECT_EQ(r.out.substr(0, c.out_start.size()), c.out_start) << joined;
    for (const char* text : c.holds) EXPECT_NE(r.out.find(text), std::string::npos) << joined << ": " << text;
  }
  EXPECT_EQ(run_vornsearch({"--version"}).out, std::string("vornsearch ") + VORN_VERSION + "\n");
}

// The invocation name is the log prefix as it is: as a format, "%s%n" would
// read and write through pointers that were never passed.
TEST(cli, program_name_is_not_a_format) {
  temp_dir dir;
  const std::string names = write_index(dir.file("n.tgdb"), {"a.example\t4:1:1"});
  const run_result r = run_vornsearch({"-l", names, "-s", "zzz"}, "", {}, "%s%n%s%n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.err.starts_with("%s%n%s%n: Starting, logging level 'info'\nsearch-1")) << r.err;
}

}  // namespace
