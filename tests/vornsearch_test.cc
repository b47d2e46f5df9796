// The whole tool, run as a user runs it: small fixture indexes, a table of
// command lines, and the exact output, log lines and exit status of each.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "tests/support/index_builder.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr const char* old_line = "example.old\t4:65a47580,28de80:1";  // 2024-01-15 to 2024-02-15
constexpr const char* new_line = "example.new\t4:66d3ae80,278d00:1";  // 2024-09-01 to 2024-10-01

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
    // Two files whose time ranges do not meet: January to February and
    // September to October 2024.
    write_index(dir->file("old.rrname.tgdb"), {old_line});
    write_index(dir->file("new.rrname.tgdb"), {new_line});
    // Seen an hour ago, for ages counted back from now.
    recent = "recent.example\t4:" + hex(time(nullptr) - 3600) + ":1\n";
    write_index(dir->file("recent.rrname.tgdb"), {recent.substr(0, recent.size() - 1)});
  }
  static void TearDownTestSuite() { delete dir; }

  static std::string hex(int64_t n) {
    char text[24];
    snprintf(text, sizeof text, "%llx", static_cast<long long>(n));
    return text;
  }

  static run_result run(std::vector<std::string> args, const std::string& input = "",
                        const std::string& zone = "UTC") {
    for (auto& a : args)
      if (a.starts_with("@")) a = dir->file(a.substr(1));
    return run_vornsearch(args, input, {{"TZ", zone}});
  }

  static temp_dir* dir;
  static std::string recent;  // the raw line of recent.rrname.tgdb
};

temp_dir* vornsearch::dir = nullptr;
std::string vornsearch::recent;

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
  std::vector<std::string> absent = {};  // whole lines the log must not hold
  std::string zone = "UTC";
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
       "www.example.com\t4:65000000,100:c 6:65000000:1\n",
       {"search-1: Search completed after 1 results",
        "search-1: Search stopped at its limit of 1 results; more exist (-L)"}},
      {"limit with more left, then a limit met exactly", {"-l", "@a.rrname.tgdb", "-g", "-r", "-L", "2"},
       "login7.bank.test\t4:66000000,10:1\nlogin12.bank.test\t4:66000000:1\n" + bank,
       {"search-1: Search stopped at its limit of 2 results; more exist (-L)",
        "search-2: Search completed after 2 results"},
       0, "*.test\n*.bank.test\n", {"search-2: Search stopped at its limit of 2 results; more exist (-L)"}},
      {"glob negation", {"-l", "@a.rrname.tgdb", "-g", "-r", "-s", "login[!1]*.bank.test"},
       "login7.bank.test\t4:66000000,10:1\n"},
      {"after: last seen at or after; before: first seen at or before",
       {"-l", "@a.rrname.tgdb", "-l", "@b.rrname.tgdb", "-r", "-A", "2023-06-01", "-B", "2023-06-01", "-s", "com$"},
       "www.example.com\t4:64000000,1000100:f\n"},
      {"complete: the whole interval inside",
       {"-l", "@a.rrname.tgdb", "-l", "@b.rrname.tgdb", "-r", "-c", "-A", "2023-06-01", "-B", "2023-12-31", "-s",
        "com$"},
       "www.example.com\t6:65000000:1 n:65000000:1\n" + mail},
      {"ISO 8601 times, to the second", {"-l", "@a.rrname.tgdb", "-r", "-A", "2024-03-24T10:27:13Z", "-s", "bank"},
       "login7.bank.test\t4:66000000,10:1\n"},
      {"ISO 8601 times: an offset", {"-l", "@a.rrname.tgdb", "-r", "-A", "2024-03-24T05:27:13-05:00", "-s", "bank"},
       "login7.bank.test\t4:66000000,10:1\n"},
      {"ISO 8601 times: without seconds", {"-l", "@a.rrname.tgdb", "-r", "-A", "2024-03-24 10:27", "-s", "bank"},
       bank},
      // Ages lie in the past: a day ago is before the last sighting, an
      // hour ago; a day ahead would be after it.
      {"age: seen since a day ago", {"-l", "@recent.rrname.tgdb", "-r", "-A", "1d", "-s", "recent"}, recent},
      {"age: first seen before a day ago", {"-l", "@recent.rrname.tgdb", "-r", "-B", "1D", "-s", "recent"}, ""},
      {"age in seconds", {"-l", "@recent.rrname.tgdb", "-r", "-A", "-86400", "-s", "recent"}, recent},
      {"text in a zone with daylight saving, both sides of a change",
       {"-l", "@a.rrname.tgdb", "-l", "@b.rrname.tgdb", "-s", "^www\\."},
       "www.example.com       A/15 [2023-03-01 20:46:40 / 2023-09-12 02:11:12]\t"
       "AAAA/1 [2023-09-12 02:06:56 / 2023-09-12 02:06:56]\t"
       "NS/1 [2023-09-12 02:06:56 / 2023-09-12 02:06:56]\n",
       {}, 0, "", {}, "EST5EDT,M3.2.0,M11.1.0"},
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
    run_result r = run(c.args, c.input, c.zone);
    EXPECT_EQ(r.out, c.out) << c.label << "\nstderr:\n" << r.err;
    expect_lines(r.err, c.err, c.label);
    for (const auto& line : c.absent)
      EXPECT_EQ(("\n" + r.err).find("\n" + line + "\n"), std::string::npos) << c.label << ": " << line;
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

// With -c, the earliest first-seen and the latest last-seen over all files
// decide whether any file can hold a record wholly inside the range,
// whichever order the files come in.
TEST_F(vornsearch, complete_bounds_between_the_ranges_of_two_files) {
  for (const auto& [bound, want] : {std::pair{"-B", old_line}, {"-A", new_line}}) {
    for (const auto& [first, second] :
         {std::pair{"@old.rrname.tgdb", "@new.rrname.tgdb"}, {"@new.rrname.tgdb", "@old.rrname.tgdb"}}) {
      const run_result r = run({"-l", first, "-l", second, "-r", "-c", bound, "2024-06-01", "-s", "example"});
      EXPECT_EQ(r.out, std::string(want) + "\n") << bound << " " << first << " first";
    }
  }
}

// A time-out that is not a positive number means none; a huge one is far
// away. Neither ends a search early or slows it down.
TEST_F(vornsearch, absurd_time_outs) {
  for (const char* timeout : {"-1", "-inf", "nan", "abc", "3e9", "1e300", "inf"}) {
    const run_result r = run({"-l", "@a.rrname.tgdb", "-r", "-t", timeout, "-s", "bank"});
    EXPECT_EQ(r.out, "login7.bank.test\t4:66000000,10:1\nlogin12.bank.test\t4:66000000:1\n") << timeout;
    expect_lines(r.err, {"search-1: Search completed after 2 results"}, timeout);
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
