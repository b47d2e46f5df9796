// ixbake end to end: the built program bakes files that are read back
// through the index loader and the record-line parsers, exactly as a search
// reads them.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

#include "tests/support/property.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb.h"

namespace {

struct index_file {
  bool rdata = false, has_range = false;
  uint32_t first = 0, last = 0;
  std::vector<std::string> lines;
};

index_file read_index(const std::string& path) {
  auto db = tgdb_open(path.c_str());
  EXPECT_TRUE(db) << path;
  if (!db) return {};
  index_file f{db->is_rdata(), db->has_time_range(), db->first_seen(), db->last_seen(), {}};
  for (uint64_t n = 0; const char* p = tgdb_line(*db, n); ++n) f.lines.emplace_back(tgdb_line_text(*db, p));
  return f;
}

run_result ixbake(std::vector<std::string> args, const std::string& input = "") {
  args.insert(args.begin(), {"-q", "--no-sync"});
  return run_binary(IXBAKE_BIN, args, input);
}

std::string join_lines(const std::vector<std::string>& v) {
  std::string s;
  for (const auto& l : v) s += l + "\n";
  return s;
}

struct folded {
  uint64_t count = 0;
  int64_t first = INT64_MAX, last = 0;
  void add(uint64_t c, int64_t f, int64_t l) { count += c, first = std::min(first, f), last = std::max(last, l); }
  bool operator==(const folded&) const = default;
  friend std::ostream& operator<<(std::ostream& o, const folded& f) {
    return o << f.count << " [" << f.first << ", " << f.last << "]";
  }
};
using folded_map = std::map<std::pair<std::string, uint16_t>, folded>;  // (key, type)

// Random observations over a small set of names and values, spelled in
// varying case and with or without the final dot, with what each file must
// then hold, folded independently of the program.
struct observations {
  std::vector<std::string> json;
  folded_map by_kind[2];  // owner names, record data
  uint32_t first = UINT32_MAX, last = 0;
};

std::string spell(std::mt19937_64& rng, std::string name) {
  for (char& c : name)
    if (rng() % 3 == 0) c = char(toupper(c));
  return rng() % 2 ? name + "." : name;
}

observations random_observations(std::mt19937_64& rng, int n) {
  observations o;
  for (int i = 0; i < n; ++i) {
    std::string owner = "h";  // built by appending: gcc 12 warns falsely on "literal" + string
    owner += std::to_string(rng() % 40) + ".zone" + std::to_string(rng() % 3) + ".example";
    const uint32_t first = 1600000000u + uint32_t(rng() % 100000000u), last = first + uint32_t(rng() % 1000000u);
    const uint64_t count = 1 + rng() % 1000;
    const int t = int(rng() % 3);
    const uint16_t type = uint16_t(t == 0 ? 1 : t == 1 ? 5 : 15);
    std::string line = "{\"rrname\":\"" + spell(rng, owner) + "\",\"rrtype\":" + (t == 0 ? "\"A\"" : t == 1 ? "5" : "\"mx\"") +
                       ",\"rdata\":[";
    for (int k = 0, m = 1 + int(rng() % 3); k < m; ++k) {
      const std::string value = t == 0   ? "192.0.2." + std::to_string(rng() % 20)
                                : t == 1 ? "edge" + std::to_string(rng() % 10) + ".cdn.example"
                                         : "10 mx" + std::to_string(rng() % 5) + ".zone.example";
      line += (k ? ",\"" : "\"") + (t == 0 ? value : spell(rng, value)) + "\"";
      o.by_kind[0][{owner, type}].add(count, first, last);
      o.by_kind[1][{value, type}].add(count, first, last);
    }
    line += "],\"time_first\":" + std::to_string(first) + ",\"time_last\":" + std::to_string(last) +
            ",\"count\":" + std::to_string(count) + ",\"other\":{\"x\":[1,2]}}";
    o.json.push_back(line);
    o.first = std::min(o.first, first), o.last = std::max(o.last, last);
  }
  return o;
}

TEST(Ixbake, JsonRoundTripHoldsEveryRecordWithItsCountsAndTimes) {
  std::mt19937_64 rng(7);
  for (size_t round = 0; round < property_count(20); ++round) {
    temp_dir dir;
    const observations o = random_observations(rng, 300);
    const auto r = ixbake({"-o", dir.file("t"), dir.write("in.json", join_lines(o.json))});
    ASSERT_EQ(r.status, 0) << r.err;
    for (bool rdata : {false, true}) {
      const index_file f = read_index(dir.file(rdata ? "t.rdata.tgdb" : "t.rrname.tgdb"));
      EXPECT_EQ(f.rdata, rdata);
      EXPECT_TRUE(f.has_range);
      EXPECT_EQ(f.first, o.first);
      EXPECT_EQ(f.last, o.last);
      folded_map got;
      for (size_t i = 0; i < f.lines.size(); ++i) {
        const std::string& line = f.lines[i];
        EXPECT_TRUE(i == 0 || (rdata ? compare_rdata_lines : compare_rrname_lines)(f.lines[i - 1], line) < 0) << line;
        const size_t tab = line.find('\t');
        const std::string_view value = std::string_view(line).substr(tab + 1);
        std::vector<search_entry> entries;
        if (!rdata)
          entries = parse_rrname_value(value);
        else if (const auto v = parse_rdata_value(value); v && !decode_rdata(v->wire_form).empty())
          entries = {v->entry};
        else
          ADD_FAILURE() << line;
        for (const auto& e : entries) got[{line.substr(0, tab), e.rrtype}].add(e.count, e.time_first, e.time_last);
      }
      EXPECT_EQ(got, o.by_kind[rdata]);
    }
  }
}

TEST(Ixbake, ZoneFileRoundTrip) {
  temp_dir dir;
  const auto r = ixbake({"--time", "2025-03-15", "-o", dir.file("z"), VORN_SOURCE_DIR "/data/example.zone"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "ixbake: 18 records read, 0 skipped; wrote " + dir.file("z.rrname.tgdb") + " (9 lines), " +
                       dir.file("z.rdata.tgdb") + " (18 lines)\n");
  const index_file rr = read_index(dir.file("z.rrname.tgdb"));
  const std::vector<std::string> want_rr = {
      // 0x67d4c300 is 2025-03-15 00:00:00 UTC; one sighting per record.
      "kestrel-analytics.io\t4:67d4c300:1 n:67d4c300:2 s:67d4c300:1 m:67d4c300:2 t:67d4c300:1 65:67d4c300:1 "
      "257:67d4c300:1",
      "sip.kestrel-analytics.io\t4:67d4c300:1",
      "vpn.kestrel-analytics.io\t4:67d4c300:1",
      "www.kestrel-analytics.io\tc:67d4c300:1",
      "_sip._tcp.kestrel-analytics.io\tv:67d4c300:1",
      "mail.kestrel-analytics.io\t4:67d4c300:1 6:67d4c300:1",
      "login.kestrel-analytics.io\t4:67d4c300:1",
      "mail2.kestrel-analytics.io\t4:67d4c300:1",
      "login2.kestrel-analytics.io\t4:67d4c300:1",
  };
  EXPECT_EQ(rr.lines, want_rr);
  EXPECT_EQ(rr.first, 0x67d4c300u);
  const index_file rd = read_index(dir.file("z.rdata.tgdb"));
  ASSERT_EQ(rd.lines.size(), 18u);
  for (const char* line : {
           "10 mail.kestrel-analytics.io\t29/000a046d61696c116b65737472656c2d616e616c797469637302696f00 m:67d4c300:1",
           "1 . alpn=h2,h3\t13/00010000010006026832026833 65:67d4c300:1",
           "0 issue \"certs.dnsgrid.net\"\t24/0005697373756563657274732e646e73677269642e6e6574 257:67d4c300:1",
           "198.51.100.21\t4/c6336415 4:67d4c300:1"})
    EXPECT_NE(std::find(rd.lines.begin(), rd.lines.end(), line), rd.lines.end()) << line;
}

TEST(Ixbake, SameInputSameBytesWhateverTheOrderSplitOrThreads) {
  std::mt19937_64 rng(11);
  temp_dir dir;
  observations o = random_observations(rng, 2000);
  ASSERT_EQ(ixbake({"-o", dir.file("a"), dir.write("a.json", join_lines(o.json))}).status, 0);
  std::shuffle(o.json.begin(), o.json.end(), rng);
  const auto half = o.json.begin() + 1000;
  const std::string p1 = dir.write("b1.json", join_lines({o.json.begin(), half}));
  const std::string p2 = dir.write("b2.json", join_lines({half, o.json.end()}));
  ASSERT_EQ(ixbake({"--threads", "1", "-o", dir.file("b"), p2, p1}).status, 0);
  ASSERT_EQ(ixbake({"--threads", "3", "-o", dir.file("c"), p1, p2}).status, 0);
  for (const std::string kind : {".rrname.tgdb", ".rdata.tgdb"}) {
    const std::string a = read_file(dir.file("a" + kind));
    EXPECT_GT(a.size(), 0u);
    EXPECT_EQ(a, read_file(dir.file("b" + kind))) << kind;
    EXPECT_EQ(a, read_file(dir.file("c" + kind))) << kind;
  }
}

TEST(Ixbake, BadRecordsAreReportedCountedAndSkipped) {
  const std::string good =
      R"({"rrname":"ok.example","rrtype":"A","rdata":"192.0.2.1","time_first":5,"time_last":9,"count":2})";
  const std::pair<std::string, std::string> cases[] = {  // line, part of the message
      {R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2.1",)", "not valid JSON"},
      {R"(["rrname"])", "not a JSON object"},
      {R"({"rrtype":"A","rdata":"192.0.2.1","time_first":1,"time_last":2,"count":1})", "missing \"rrname\""},
      {R"({"rrname":"x.example","rrtype":"FOO","rdata":"1","time_first":1,"time_last":2,"count":1})",
       "unknown record type \"FOO\""},
      {R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2","time_first":1,"time_last":2,"count":1})",
       "rdata \"192.0.2\" is not valid A: "},
      {R"({"rrname":"x..example","rrtype":"A","rdata":"192.0.2.1","time_first":1,"time_last":2,"count":1})",
       "bad owner name \"x..example\""},
      {R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2.1","time_first":-1,"time_last":2,"count":1})",
       "\"time_first\" must be a whole number of seconds from 0 to 4294967295"},
      {R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2.1","time_first":1,"time_last":4294967296,"count":1})",
       "\"time_last\" must be a whole number"},
      {R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2.1","time_first":3,"time_last":2,"count":1})",
       "\"time_last\" is before \"time_first\""},
      {R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2.1","time_first":1,"time_last":2,"count":0})",
       "\"count\" must be a positive integer"},
      {R"({"rrname":"x.example","rrtype":"A","rdata":[],"time_first":1,"time_last":2,"count":1})",
       "\"rdata\" is an empty array"},
      // The DNS library would cut this text short without a word.
      {R"({"rrname":"x.example","rrtype":"TXT","time_first":1,"time_last":2,"count":1,"rdata":")" +
           [] {
             std::string t;
             for (int i = 0; i < 300; ++i) t += "\\\"" + std::string(250, 'x') + "\\\" ";
             return t;
           }() + "\"}",
       "is not valid TXT: its text is longer than 65534 bytes"},
  };
  temp_dir dir;
  std::string input = good + "\n\n";  // a blank line is no record
  for (const auto& c : cases) input += c.first + "\n";
  const std::string path = dir.write("bad.json", input);
  const auto r = ixbake({"-o", dir.file("t"), path});
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream err(r.err);
  std::string line;
  for (size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_TRUE(std::getline(err, line));
    const std::string where = "ixbake: " + path + ":" + std::to_string(i + 3) + ": ";
    EXPECT_EQ(line.substr(0, where.size()), where) << line;
    EXPECT_NE(line.find(cases[i].second), std::string::npos) << line;
  }
  ASSERT_TRUE(std::getline(err, line));
  EXPECT_EQ(line, "ixbake: 13 records read, 12 skipped; wrote " + dir.file("t.rrname.tgdb") + " (1 lines), " +
                      dir.file("t.rdata.tgdb") + " (1 lines)");
  EXPECT_EQ(read_index(dir.file("t.rrname.tgdb")).lines, std::vector<std::string>{"ok.example\t4:5,4:2"});

  // --strict: the first bad record ends the run and nothing is left behind.
  temp_dir out;
  const auto s = ixbake({"--strict", "-o", out.file("t"), path});
  EXPECT_EQ(s.status, 1);
  EXPECT_NE(s.err.find(path + ":3: not valid JSON"), std::string::npos) << s.err;
  EXPECT_TRUE(std::filesystem::is_empty(out.path()));
}

TEST(Ixbake, GzipStandardInputAndRecordLinesGiveTheSameFiles) {
  temp_dir dir;
  const std::string sample = VORN_SOURCE_DIR "/data/sample-pdns.jsonl", text = read_file(sample);
  ASSERT_EQ(ixbake({"-o", dir.file("plain"), sample}).status, 0);
  const auto gzip = [&](const std::string& name, std::string_view data) {
    gzFile gz = gzopen(dir.file(name).c_str(), "wb");
    gzwrite(gz, data.data(), unsigned(data.size()));
    gzclose(gz);
    return read_file(dir.file(name));
  };
  const std::string gz_bytes = gzip("s.gz", text);
  const size_t half = text.find('\n', text.size() / 2) + 1;
  dir.write("members.gz", gzip("a.gz", std::string_view(text).substr(0, half)) + gzip("b.gz", text.substr(half)));
  // A cut-off compressed stream, or plain data after it, is an error, not a short input.
  const std::pair<std::string, std::string> broken[] = {
      {gz_bytes.substr(0, gz_bytes.size() / 2), "unexpected end of file"},
      {gz_bytes + text.substr(0, 200), "data follows the end of the compressed stream"},
  };
  for (const auto& [bytes, message] : broken) {
    const auto r = ixbake({"-o", dir.file("broken"), dir.write("broken.gz", bytes)});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ixbake: cannot read " + dir.file("broken.gz") + ": " + message + "\nixbake: nothing written\n");
  }

  // The files' own lines, fed back as record lines (reversed, one line split
  // in two), bake to the same files.
  std::vector<std::string> rr = read_index(dir.file("plain.rrname.tgdb")).lines;
  ASSERT_GT(rr.size(), 100u);
  const auto multi = std::find_if(rr.begin(), rr.end(), [](auto& l) { return l.find(' ') != std::string::npos; });
  ASSERT_NE(multi, rr.end());
  const std::string whole = *multi;
  *multi = whole.substr(0, whole.find(' '));
  rr.push_back(whole.substr(0, whole.find('\t') + 1) + whole.substr(whole.find(' ') + 1));
  std::reverse(rr.begin(), rr.end());
  const std::string rd = join_lines(read_index(dir.file("plain.rdata.tgdb")).lines);
  ASSERT_EQ(ixbake({"-o", dir.file("gz"), dir.file("s.gz")}).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("stdin")}, text).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("dash"), "-"}, text).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("members"), dir.file("members.gz")}).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("marked"), "-"}, "\xef\xbb\xbf" + text).status, 0);  // byte-order mark
  ASSERT_EQ(ixbake({"--kind", "rrname", "-o", dir.file("lines"), dir.write("rr.txt", join_lines(rr))}).status, 0);
  ASSERT_EQ(ixbake({"--kind", "rdata", "--format", "lines", "-o", dir.file("lines"), dir.write("rd.txt", rd)}).status, 0);
  for (const std::string kind : {".rrname.tgdb", ".rdata.tgdb"})
    for (const std::string other : {"gz", "stdin", "dash", "members", "marked", "lines"})
      EXPECT_EQ(read_file(dir.file(other + kind)), read_file(dir.file("plain" + kind))) << other << kind;
}

TEST(Ixbake, FilesetListsEachKindInItsOwnSetFile) {
  temp_dir dir;
  const std::string in = dir.write("in.json", R"({"rrname":"a.example","rrtype":"A","rdata":"192.0.2.1",)"
                                              R"("time_first":1,"time_last":2,"count":1})"
                                              "\n");
  const std::string set = dir.file("idx.set");
  ASSERT_EQ(ixbake({"--fileset", set, "-o", dir.file("one"), in}).status, 0);
  ASSERT_EQ(ixbake({"--fileset", set, "-o", dir.file("two"), in}).status, 0);
  EXPECT_EQ(read_file(set), "one.rrname.tgdb\ntwo.rrname.tgdb\n");
  EXPECT_EQ(read_file(set + ".rdata"), "one.rdata.tgdb\ntwo.rdata.tgdb\n");
  const std::string only = dir.file("rd.set");
  ASSERT_EQ(ixbake({"--kind", "rdata", "--fileset", only, "-o", dir.file("three"), in}).status, 0);
  EXPECT_EQ(read_file(only), "three.rdata.tgdb\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("three.rrname.tgdb")));
}

// Whatever would make the end fail is found before any reading, and
// nothing is replaced or written.
TEST(Ixbake, DestinationsAreCheckedFirst) {
  temp_dir dir;
  const std::string in = dir.write("in.jsonl", R"({"rrname":"a.example","rrtype":"A","rdata":"192.0.2.1","time_first":1,"time_last":2,"count":1})"
                                               "\n");
  std::filesystem::create_directories(dir.file("taken.rdata.tgdb"));
  std::filesystem::create_directories(dir.file("sets/n.set.rdata"));
  const std::string old_names = dir.write("taken.rrname.tgdb", "old");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"-o", dir.file("sets/")}, "ixbake: -o wants a prefix for file names, such as " + dir.file("sets/name")},
      {{"-o", dir.file("taken")}, "ixbake: cannot replace " + dir.file("taken.rdata.tgdb") + ": it is a directory\n"},
      {{"-o", dir.file("in.jsonl/x")}, "ixbake: cannot write in " + in + ": Not a directory\n"},
      {{"--fileset", dir.file("none/n.set"), "-o", dir.file("t")},
       "ixbake: cannot write in " + dir.file("none") + ": No such file or directory\n"},
      {{"--fileset", dir.file("sets/n.set"), "-o", dir.file("t")},
       "ixbake: cannot use " + dir.file("sets/n.set.rdata") + " as a set file: not a regular file\n"},
  };
  for (auto [args, message] : cases) {
    args.push_back(in);
    const auto r = ixbake(args);
    EXPECT_EQ(r.status, 1) << message;
    EXPECT_EQ(r.err.substr(0, message.size()), message);
  }
  EXPECT_EQ(read_file(old_names), "old");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
    EXPECT_FALSE(entry.path().string().ends_with(".tgdb") && entry.is_regular_file() && entry.path() != old_names)
        << entry.path();
}

TEST(Ixbake, CommandLineMistakesExitWithStatusOne) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {  // arguments, start of the message
      {{}, "ixbake: an output prefix is required (-o PREFIX)\n"},
      {{"-o", "x", "--kind", "all"}, "ixbake: --kind must be both, rrname or rdata, not 'all'\n"},
      {{"-o", "x", "--format", "csv"}, "ixbake: --format must be auto, json, zone or lines, not 'csv'\n"},
      {{"-o", "x", "--format", "lines"}, "ixbake: --format lines needs --kind rrname or --kind rdata\n"},
      {{"-o", "x", "--time", "yesterday-ish"}, "ixbake: --time 'yesterday-ish' is not a time"},
      {{"-o", "x", "--origin", "a..b"}, "ixbake: --origin 'a..b' is not a domain name"},
      {{"-o", "x", "--bogus"}, "ixbake: unknown option --bogus\n"},
      {{"-o"}, "ixbake: option -o needs a value\n"},
      {{"-o", "/nonexistent-dir/x", "-"}, "ixbake: cannot write in /nonexistent-dir: "},
      {{"-o", "/tmp/ixbake-test-never", "/nonexistent-file"}, "ixbake: cannot open /nonexistent-file: "},
  };
  for (const auto& [args, message] : cases) {
    const auto r = run_binary(IXBAKE_BIN, args);
    EXPECT_EQ(r.status, 1) << message;
    EXPECT_EQ(r.err.substr(0, message.size()), message);
  }
  const auto h = run_binary(IXBAKE_BIN, {"-h"});
  EXPECT_EQ(h.status, 0);
  EXPECT_NE(h.out.find("SETFILE.rdata"), std::string::npos);
}

}  // namespace
