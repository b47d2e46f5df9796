// vornsearch over byname and byvalue files, run as a user runs it: the two
// lookups in every output form, merging, time filters and limits, lists and
// filesets of mixed kinds, and generated observations against a plain
// aggregate of them.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/index_builder.h"
#include "tests/support/property.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"
#include "tgdb/kind_lines.h"
#include "tgdb/linked_line.h"
#include "tgdb/tgdb_writer.h"

namespace {

using strings = std::vector<std::string>;

struct observed {
  std::string owner, rdata;
  search_entry entry;
};

// The lines of `records` in the form of `kind`.
strings lines_of(tgdb_kind kind, const std::vector<observed>& records) {
  strings out;
  for (const auto& r : records) out.push_back(linked_line(kind, {r.owner, r.rdata, r.entry}));
  return out;
}

// 2024-01-15, 2024-02-15, 2024-03-01, 2024-03-20, 2024-09-01, 2024-09-30,
// 2023-05-01 and 2025-01-01, all 00:00:00 UTC.
constexpr int64_t jan15 = 0x65a47580, feb15 = 0x65cd5400, mar1 = 0x65e11a80, mar20 = 0x65fa2700,
                  sep1 = 0x66d3ae80, sep30 = 0x66f9ea00, may23 = 0x644f0100, jan25 = 0x67748580;

class vornsearch_linked : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new temp_dir;
    const std::vector<observed> first = {
        {"login.example.com", "192.0.2.7", {1, 3, jan15, feb15}},
        {"login.example.com", "192.0.2.8", {1, 1, sep1, sep30}},
        {"login.example.com", "\"v=spf1 -all\"", {16, 16, may23, may23}},
        {"www.example.com", "192.0.2.7", {1, 1, jan15, jan15}},
        {"mail.example.net", "10 mail.example.net", {15, 2, may23, may23}},
        {"example.net", "ns1.example.net", {2, 7, may23, jan25}},
    };
    const std::vector<observed> second = {
        {"login.example.com", "192.0.2.7", {1, 2, mar1, mar20}},
        {"shop.example.org", "ns1.example.net", {2, 1, sep1, sep1}},
    };
    for (const auto& [name, records] : {std::pair{"1", first}, {"2", second}}) {
      for (tgdb_kind kind : {tgdb_kind::byname, tgdb_kind::byvalue})
        write_index(dir->file(name + std::string(".") + tgdb_kind_name(kind) + ".tgdb"), lines_of(kind, records),
                    {.kind = kind});
    }
    write_index(dir->file("a.rrname.tgdb"), {"login.example.com\t4:65a47580:1"});
    dir->write("names.set", "1.byname.tgdb\na.rrname.tgdb\n2.byname.tgdb\n");
  }
  static void TearDownTestSuite() { delete dir; }

  static run_result run(std::vector<std::string> args, const std::string& input = "") {
    for (auto& a : args)
      if (a.starts_with("@")) a = dir->file(a.substr(1));
    return run_vornsearch(args, input, {{"TZ", "UTC"}});
  }

  static temp_dir* dir;
};

temp_dir* vornsearch_linked::dir = nullptr;

struct golden {
  const char* label;
  std::vector<std::string> args;
  std::string out;
  std::string err = "";  // text the log must hold
  int status = 0;
};

TEST_F(vornsearch_linked, both_lookups_in_every_form) {
  const std::string login_a7 = "login.example.com  A  192.0.2.7  5 [2024-01-15 00:00:00 / 2024-03-20 00:00:00]\n";
  const std::string login = login_a7 +
                            "login.example.com  A  192.0.2.8  1 [2024-09-01 00:00:00 / 2024-09-30 00:00:00]\n"
                            "login.example.com  TXT  \"v=spf1 -all\"  16 [2023-05-01 00:00:00 / 2023-05-01 00:00:00]\n";
  const golden cases[] = {
      {"what a name resolved to, two files merged",
       {"-l", "@1.byname.tgdb", "-l", "@2.byname.tgdb", "-s", "^login\\.example\\.com$"}, login},
      {"json, limited", {"-l", "@1.byname.tgdb", "-l", "@2.byname.tgdb", "-j", "-L", "1", "-s", "^login\\."},
       R"({"rrname":"login.example.com","rrtype":"A","rdata":"192.0.2.7","count":5,)"
       R"("time_first":1705276800,"time_last":1710892800})" "\n",
       "Search stopped at its limit of 1 results; more exist (-L)"},
      {"raw lines, a glob", {"-l", "@1.byname.tgdb", "-l", "@2.byname.tgdb", "-r", "-g", "-s", "*.example.com"},
       "www.example.com\t4:65a47580:1\t192.0.2.7\nlogin.example.com\t4:65a47580,55b180:5\t192.0.2.7\n"
       "login.example.com\t4:66d3ae80,263b80:1\t192.0.2.8\nlogin.example.com\tt:644f0100:10\t\"v=spf1 -all\"\n"},
      {"seen since June", {"-l", "@1.byname.tgdb", "-l", "@2.byname.tgdb", "-A", "2024-06-01", "-s", "login"},
       "login.example.com  A  192.0.2.8  1 [2024-09-01 00:00:00 / 2024-09-30 00:00:00]\n"},
      {"all seen within the first quarter", {"-f", "@names.set", "-c", "-A", "2024-01-01", "-B", "2024-03-31", "-s", "login"},
       login_a7, "rrname file " + dir->file("a.rrname.tgdb") + " rejected from byname fileset"},
      {"which names had a value", {"-l", "@1.byvalue.tgdb", "-l", "@2.byvalue.tgdb", "-s", "^192\\.0\\.2\\.7$"},
       "www.example.com  A  192.0.2.7  1 [2024-01-15 00:00:00 / 2024-01-15 00:00:00]\n" + login_a7},
      {"which names used a name server", {"-l", "@1.byvalue.tgdb", "-l", "@2.byvalue.tgdb", "-j", "-g", "-s", "ns1.example.net."},
       R"({"rrname":"example.net","rrtype":"NS","rdata":"ns1.example.net","count":7,)"
       R"("time_first":1682899200,"time_last":1735689600})" "\n"
       R"({"rrname":"shop.example.org","rrtype":"NS","rdata":"ns1.example.net","count":1,)"
       R"("time_first":1725148800,"time_last":1725148800})" "\n"},
      {"values are matched, not names", {"-l", "@1.byvalue.tgdb", "-r", "-s", "^mail\\."}, ""},
      {"a value, raw", {"-l", "@1.byvalue.tgdb", "-r", "-s", "^10 mail\\."},
       "10 mail.example.net\tm:644f0100:2\tmail.example.net\n"},
      {"a list keeps to one kind", {"-l", "@1.byname.tgdb", "-l", "@1.byvalue.tgdb", "-s", "x"}, "",
       "byvalue file " + dir->file("1.byvalue.tgdb") + " rejected from byname file list", 1},
  };
  for (const auto& c : cases) {
    const run_result r = run(c.args);
    EXPECT_EQ(r.out, c.out) << c.label << "\nstderr:\n" << r.err;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << c.label << "\nstderr:\n" << r.err;
    EXPECT_EQ(r.status, c.status) << c.label << "\nstderr:\n" << r.err;
  }
}

// Raw output is already merged, and merges again: a file written from it
// answers as the files it came from.
TEST_F(vornsearch_linked, raw_output_makes_a_file_that_answers_the_same) {
  for (tgdb_kind kind : {tgdb_kind::byname, tgdb_kind::byvalue}) {
    const std::string k = tgdb_kind_name(kind);
    const run_result both = run({"-l", "@1." + k + ".tgdb", "-l", "@2." + k + ".tgdb", "-r", "-L", "-1", "-s", "."});
    strings lines;
    for (size_t at = 0, nl; (nl = both.out.find('\n', at)) != std::string::npos; at = nl + 1)
      lines.push_back(both.out.substr(at, nl - at));
    ASSERT_EQ(lines.size(), 7u) << k;
    write_index(dir->file("merged." + k + ".tgdb"), lines, {.kind = kind});
    EXPECT_EQ(run({"-l", "@merged." + k + ".tgdb", "-r", "-L", "-1", "-s", "."}).out, both.out) << k;
  }
}

// Generated observations, baked by kind into several files as the index
// builder would (one line per record and file), then searched together:
// every answer must be the plain aggregate of the observations whose key
// the pattern matches (group by name, type and rdata; sum the counts; the
// earliest first and latest last seen).
TEST_F(vornsearch_linked, property_searches_answer_as_the_plain_aggregate) {
  using record_key = std::tuple<std::string, uint16_t, std::string>;  // owner, type, rdata
  std::mt19937_64 rng(11);
  const char* labels[] = {"a", "b", "login", "mail", "xn--bcher-kva"};
  const std::pair<uint16_t, std::vector<std::string>> values[] = {
      {1, {"192.0.2.1", "192.0.2.10", "198.51.100.7"}},
      {2, {"ns1.example.net", "ns2.example.net"}},
      {15, {"10 mail.example.net", "20 mx.b.test"}},
      {16, {"\"v=spf1 -all\"", "\"a\\\"b c\"", "\"x\" \"y\""}},
  };
  for (size_t round = 0; round < property_count(4); ++round) {
    std::map<record_key, search_entry> all;
    std::vector<std::map<record_key, search_entry>> files(1 + rng() % 3);
    for (size_t n = 20 + rng() % 200; n--;) {
      const std::string owner = std::string(labels[rng() % 5]) + "." + labels[rng() % 5] + ".test";
      const auto& [type, texts] = values[rng() % 4];
      const auto first = int64_t(rng() % 0xf0000000);
      const search_entry e{type, 1 + rng() % 1000, first, first + int64_t(rng() % 0x1000000)};
      const record_key key{owner, type, texts[rng() % texts.size()]};
      for (auto* table : {&all, &files[rng() % files.size()]}) {
        auto [it, fresh] = table->try_emplace(key, e);
        if (!fresh) fold_entry(it->second, e);
      }
    }
    for (tgdb_kind kind : {tgdb_kind::byname, tgdb_kind::byvalue}) {
      std::vector<std::string> args;
      for (size_t f = 0; f < files.size(); ++f) {
        strings lines;
        for (const auto& [key, e] : files[f])
          lines.push_back(linked_line(kind, {std::get<0>(key), std::get<2>(key), e}));
        args.push_back("-l");
        args.push_back(write_index(dir->file(std::to_string(f) + ".p.tgdb"), lines, {.kind = kind}));
      }
      for (const char* pattern : {".", "^login\\.", "^(a|b)\\.[a-z]+\\.test$", "192\\.0\\.2\\.1$|\"", "mail"}) {
        std::vector<std::string> search = args;
        for (const char* a : {"-r", "-L", "-1", "-s"}) search.push_back(a);
        search.push_back(pattern);
        const run_result r = run(search);
        ASSERT_EQ(r.status, 0) << r.err;
        std::map<record_key, search_entry> got;
        std::string_view previous;
        for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1) {
          const std::string_view line = std::string_view(r.out).substr(at, nl - at);
          ASSERT_TRUE(previous.empty() || kind_line_order(kind)(previous, line) < 0) << previous << " | " << line;
          previous = line;
          const auto rec = parse_linked_line(kind, line);
          ASSERT_TRUE(rec) << r.out.substr(at, nl - at);
          ASSERT_TRUE(got.try_emplace({std::string(rec->owner), rec->entry.rrtype, std::string(rec->rdata)}, rec->entry)
                          .second)
              << "a record twice: " << r.out.substr(at, nl - at);
        }
        const std::regex re(pattern, std::regex::extended | std::regex::icase);
        size_t want = 0;
        for (const auto& [key, e] : all) {
          const std::string& matched = kind == tgdb_kind::byname ? std::get<0>(key) : std::get<2>(key);
          if (!std::regex_search(matched, re)) continue;
          ++want;
          const auto it = got.find(key);
          ASSERT_NE(it, got.end()) << tgdb_kind_name(kind) << " " << pattern << ": missing " << matched;
          EXPECT_EQ(std::tuple(it->second.count, it->second.time_first, it->second.time_last),
                    std::tuple(e.count, e.time_first, e.time_last))
              << std::get<0>(key) << " " << std::get<2>(key);
        }
        EXPECT_EQ(got.size(), want) << tgdb_kind_name(kind) << " " << pattern;
      }
    }
  }
}

}  // namespace
