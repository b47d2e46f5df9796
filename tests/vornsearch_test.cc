// The whole tool, run as a user runs it: small fixture indexes, a table of
// command lines, and the exact output, log lines and exit status of each.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/index_builder.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"

namespace {

// `n` bytes of made-up record data in hexadecimal.
std::string hex_bytes(size_t n, int seed, const char* digits = "0123456789abcdef") {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += {digits[(i * 7 + seed) >> 4 & 15], digits[(i * 7 + seed) & 15]};
  return out;
}

std::string rdata_line(const std::string& key, size_t len, int seed, const std::string& item) {
  return key + "\t" + std::to_string(len) + "/" + hex_bytes(len, seed) + " " + item;
}

class vornsearch : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new temp_dir;
    write_index(dir->file("a.rrname.tgdb"),
                {"www.example.com\t4:65000000,100:c 6:65000000:1",
                 "mail.example.com\tm:65000000:2 4:65000010,20:3",
                 "login12.bank.test\t4:66000000:1",
                 "login7.bank.test\t4:66000000,10:0",
                 "paypa1-login.com\tn:64000000,1000:5",
                 "unknown.example.org\t65:65000000:1 300:65000000:2",
                 "bad\xff" "name.test\t4:65000000:1"});
    write_index(dir->file("b.rrname.tgdb"), {"www.example.com\t4:64000000,10:3 n:65000000:1"});
    write_index(dir->file("c.rdata.tgdb"),
                {rdata_line("192.0.2.1", 4, 0, "4:65000000:2"),
                 rdata_line("txt-exact32", 32, 1, "t:65000000:1"),
                 rdata_line("txt-long33", 33, 2, "t:65000000:1"),
                 rdata_line("txt-big511", 511, 3, "t:65000000:1"),
                 rdata_line("txt-big512", 512, 4, "t:65000000:1"),
                 rdata_line("soa.example.com", 8, 5, "s:65000000:1")},
                {.rdata = true});
    dir->write("rrname.set", "a.rrname.tgdb\n" + dir->file("b.rrname.tgdb") + "\n");
  }
  static void TearDownTestSuite() { delete dir; }

  static run_result run(std::vector<std::string> args, const std::string& input = "") {
    for (auto& a : args)
      if (a.starts_with("@")) a = dir->file(a.substr(1));
    return run_vornsearch(args, input, {{"TZ", "UTC"}});
  }

  static temp_dir* dir;
};

temp_dir* vornsearch::dir = nullptr;

// Every line of `want` must appear as a whole line of `text`.
void expect_lines(const std::string& text, const std::vector<std::string>& want, const std::string& label) {
  std::string padded = "\n" + text;
  for (const auto& line : want)
    EXPECT_NE(padded.find("\n" + line + "\n"), std::string::npos) << label << ": missing line [" << line
                                                                   << "] in\n" << text;
}

struct golden {
  const char* label;
  std::vector<std::string> args;
  std::string out;
  std::vector<std::string> err = {};  // whole lines the log must hold
  int status = 0;
  std::string input = "";
};

TEST_F(vornsearch, golden_command_lines) {
  const std::string www_text =
      "www.example.com       A/15 [2023-03-02 01:46:40 / 2023-09-12 06:11:12]\t"
      "AAAA/1 [2023-09-12 06:06:56 / 2023-09-12 06:06:56]\t"
      "NS/1 [2023-09-12 06:06:56 / 2023-09-12 06:06:56]\n";
  const std::string sep12 = " [2023-09-12 06:06:56 / 2023-09-12 06:06:56]\n\t";
  const std::string bank = "login7.bank.test\t4:66000000,10:1\nlogin12.bank.test\t4:66000000:1\n";
  const std::string mail = "mail.example.com\tm:65000000:2 4:65000010,20:3\n";
  const golden cases[] = {
      {"text, two files merged", {"-l", "@a.rrname.tgdb", "-l", "@b.rrname.tgdb", "-s", "^www\\."}, www_text,
       {"search-1: Dispatching search: [^www\\.]", "search-1: Search completed after 1 results"}},
      {"json, count 0 counts as 1, unknown types", {"-l", "@a.rrname.tgdb", "-j", "-s", "login7|unknown"},
       "{\"details\":{\"rrname\":\"unknown.example.org\",\"rrtype\":\"HTTPS\",\"count\":1,"
       "\"time_first\":1694498816,\"time_last\":1694498816}}\n"
       "{\"details\":{\"rrname\":\"unknown.example.org\",\"rrtype\":\"TYPE300\",\"count\":2,"
       "\"time_first\":1694498816,\"time_last\":1694498816}}\n"
       "{\"details\":{\"rrname\":\"login7.bank.test\",\"rrtype\":\"A\",\"count\":1,"
       "\"time_first\":1711276032,\"time_last\":1711276048}}\n"},
      {"glob, count 0 counts as 1", {"-l", "@a.rrname.tgdb", "-g", "-r", "-s", "*.bank.test"}, bank},
      {"limit", {"-l", "@a.rrname.tgdb", "-r", "-L", "1", "-s", "example"},
       "www.example.com\t4:65000000,100:c 6:65000000:1\n", {"search-1: Search completed after 1 results"}},
      {"after: last seen at or after; before: first seen at or before",
       {"-l", "@a.rrname.tgdb", "-l", "@b.rrname.tgdb", "-r", "-A", "2023-06-01", "-B", "2023-06-01", "-s", "com$"},
       "www.example.com\t4:64000000,1000100:f\n"},
      {"complete: the whole interval inside",
       {"-l", "@a.rrname.tgdb", "-l", "@b.rrname.tgdb", "-r", "-c", "-A", "2023-06-01", "-B", "2023-12-31", "-s",
        "com$"},
       "www.example.com\t6:65000000:1 n:65000000:1\n" + mail},
      {"standard input: numbering, a failing expression ends the loop", {"-l", "@a.rrname.tgdb", "-r"},
       "paypa1-login.com\tn:64000000,1000:5\n" + mail,
       {"search-1: Search completed after 1 results", "search-2: Search completed after 1 results",
        "search-3: Error in regex pattern: Premature end of regexp"},
       1, "paypa1\n\r\n\nmail\n(\nwww\n"},
      {"standard input to the end", {"-l", "@a.rrname.tgdb", "-r"}, "",
       {"search-1: Search completed after 0 results", "EOF"}, 0, "zzz\n"},
      {"fileset", {"-f", "@rrname.set", "-s", "^www\\."}, www_text},
      {"rdata text: ordered by wire form; short, 32 and 33 bytes, soa as wildcard",
       {"-l", "@c.rdata.tgdb", "-s", "^(192|txt-exact|txt-long|soa)"},
       "192.0.2.1       A/2" + sep12 + hex_bytes(4, 0) + "\ntxt-exact32       TXT/1" + sep12 + hex_bytes(32, 1) +
           "\ntxt-long33       TXT/1" + sep12 + "[partial/33 bytes] " + hex_bytes(32, 2) +
           "...\nsoa.example.com       SOA/1" + sep12 + "[wildcard] " + hex_bytes(8, 5) + "\n"},
      {"rdata raw", {"-l", "@c.rdata.tgdb", "-r", "-s", "^192"}, "192.0.2.1\t4/" + hex_bytes(4, 0) + " 4:65000000:2\n"},
      {"json rdata: 511 bytes written, 512 refused", {"-l", "@c.rdata.tgdb", "-j", "-s", "txt-big"},
       "{\"details\":{\"rdata\":\"txt-big511\",\"rrtype\":\"TXT\",\"count\":1,\"time_first\":1694498816,"
       "\"time_last\":1694498816,\"raw_rdata\":\"" + hex_bytes(511, 3, "0123456789ABCDEF") + "\"}}\n",
       {"Error: too much rdata to return as raw_rdata"}},
      {"json: invalid UTF-8 ends the object", {"-l", "@a.rrname.tgdb", "-j", "-s", "^bad"},
       "{\"details\":{\"rrname\"\n", {"search-1: Error: function yajl_gen_string() returned 7 {unknown}"}},
  };
  for (const auto& c : cases) {
    run_result r = run(c.args, c.input);
    EXPECT_EQ(r.out, c.out) << c.label << "\nstderr:\n" << r.err;
    expect_lines(r.err, c.err, c.label);
    EXPECT_EQ(r.status, c.status) << c.label << "\nstderr:\n" << r.err;
  }
}

// VORN_LOGLEVEL names in any case, each -v one level more; from "stat" on, a
// report (its layout is the log's) counts what the search did.
TEST_F(vornsearch, start_up_levels_and_the_timing_report) {
  const std::tuple<std::vector<std::string>, std::string, std::string> levels[] = {
      {{}, "", "info"},   {{"-v"}, "", "stat"},          {{"-v", "-v"}, "", "debug"},
      {{"-vvvvvvvv"}, "", "trace"}, {{}, "DEBUG", "debug"}, {{"-v"}, "Error", "info"},
  };
  for (const auto& [extra, env, level] : levels) {
    std::vector<std::string> args = {"-l", dir->file("a.rrname.tgdb"), "-r", "-s", "example"};
    args.insert(args.end(), extra.begin(), extra.end());
    const run_result r = env.empty() ? run_vornsearch(args) : run_vornsearch(args, "", {{"VORN_LOGLEVEL", env}});
    expect_lines(r.err, {vornsearch_log_prefix() + "Starting, logging level '" + level + "'"}, level);
    for (const char* line : {"search-1:     Total Elapsed: ", "search-1:   Trigram Matches: 3 (",
                             "search-1:   Pattern Matches: 3 (", "search-1:           Results: 3 ("})
      EXPECT_EQ(r.err.find(line) != std::string::npos, level != "info") << level << "\n" << r.err;
  }
}

TEST(vornsearch_timeout, stalls_time_out_but_steady_results_do_not) {
  temp_dir dir;
  std::vector<std::string> lines;
  for (int i = 0; i < 1000000; ++i) lines.push_back("host" + std::to_string(i) + ".example\t4:65000000:1");
  write_index(dir.file("big.rrname.tgdb"), std::move(lines));

  // Nothing to index and nothing matches: a full scan that stalls.
  run_result r = run_vornsearch({"-l", dir.file("big.rrname.tgdb"), "-t", "0.05", "-s", "a.*z"});
  EXPECT_NE(r.err.find("search-1: Search timed out after 0 results\n"), std::string::npos) << r.err;
  EXPECT_EQ(r.status, 0);

  // Every line matches: results keep coming, so the time-out never fires
  // although the whole search takes far longer than it.
  r = run_vornsearch({"-l", dir.file("big.rrname.tgdb"), "-v", "-r", "-L", "-1", "-t", "0.1", "-s", "host"});
  EXPECT_NE(r.err.find("search-1: Search completed after 1000000 results\n"), std::string::npos) << r.err;
  EXPECT_EQ(r.status, 0);
  const size_t at = r.err.find("    Total Elapsed: ");
  ASSERT_NE(at, std::string::npos) << r.err;
  EXPECT_GT(std::stod(r.err.substr(at + 19)), 0.1) << "the search should outlast its time-out";
}

}  // namespace
