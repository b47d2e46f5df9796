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

#include "libmy/version.h"
#include "tests/support/property.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb.h"

namespace {

const std::string one_record =
    R"({"rrname":"x.example","rrtype":"A","rdata":"192.0.2.1","time_first":1,"time_last":2,"count":1})";

// The file's lines, and the opened file itself in `keep` when asked for.
std::vector<std::string> read_lines(const std::string& path, tgdb_ptr* keep = nullptr) {
  auto db = tgdb_open(path.c_str());
  EXPECT_TRUE(db) << path;
  std::vector<std::string> lines;
  if (!db) return lines;
  tgdb_line_cursor cursor(*db);
  for (uint64_t n = 0; auto line = cursor.line(n); ++n) lines.emplace_back(*line);
  if (keep) *keep = db;
  return lines;
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

// (count, first seen, last seen) of a (key, type), folded independently of the program.
using folded_map = std::map<std::pair<std::string, uint16_t>, std::tuple<uint64_t, int64_t, int64_t>>;
void fold(folded_map& m, const std::string& key, uint16_t type, uint64_t count, int64_t first, int64_t last) {
  auto& [n, lo, hi] = m[{key, type}];
  lo = n ? std::min(lo, first) : first, hi = std::max(hi, last), n += count;
}

std::string spell(std::mt19937_64& rng, std::string name) {  // varying case, with or without the final dot
  for (char& c : name)
    if (rng() % 3 == 0) c = char(toupper(c));
  return rng() % 2 ? name + "." : name;
}

// Random observations over few names and values, split over two files and
// threads so the workers' tables must be merged.
TEST(Ixbake, JsonRoundTripHoldsEveryRecordWithItsCountsAndTimes) {
  std::mt19937_64 rng(7);
  for (size_t round = 0; round < property_count(20); ++round) {
    std::string json[2];
    folded_map want[2];  // owner names, record data
    uint32_t lo = UINT32_MAX, hi = 0;
    for (int i = 0; i < 300; ++i) {
      std::string owner = "h";  // built by appending: gcc 12 warns falsely on "literal" + string
      owner += std::to_string(rng() % 40) + ".zone" + std::to_string(rng() % 3) + ".example";
      const uint32_t first = 1600000000u + uint32_t(rng() % 100000000u), last = first + uint32_t(rng() % 1000000u);
      const uint64_t count = 1 + rng() % 1000;
      const int t = int(rng() % 3);
      const uint16_t type = uint16_t(t == 0 ? 1 : t == 1 ? 5 : 15);
      std::string& line = json[i % 2];
      line += "{\"rrname\":\"" + spell(rng, owner) + "\",\"rrtype\":" + (t == 0 ? "\"A\"" : t == 1 ? "5" : "\"mx\"") +
              ",\"rdata\":[";
      for (int k = 0, m = 1 + int(rng() % 3); k < m; ++k) {
        const std::string value = t == 0   ? "192.0.2." + std::to_string(rng() % 20)
                                  : t == 1 ? "edge" + std::to_string(rng() % 10) + ".cdn.example"
                                           : "10 mx" + std::to_string(rng() % 5) + ".zone.example";
        line += (k ? ",\"" : "\"") + (t == 0 ? value : spell(rng, value)) + "\"";
        fold(want[0], owner, type, count, first, last);
        fold(want[1], value, type, count, first, last);
      }
      line += "],\"time_first\":" + std::to_string(first) + ",\"time_last\":" + std::to_string(last) +
              ",\"count\":" + std::to_string(count) + ",\"other\":{\"x\":[1,2]}}\n";
      lo = std::min(lo, first), hi = std::max(hi, last);
    }
    temp_dir dir;
    const auto r = ixbake({"--threads", "2", "-o", dir.file("t"), dir.write("a", json[0]), dir.write("b", json[1])});
    ASSERT_EQ(r.status, 0) << r.err;
    for (bool rdata : {false, true}) {
      tgdb_ptr db;
      const auto lines = read_lines(dir.file(rdata ? "t.rdata.tgdb" : "t.rrname.tgdb"), &db);
      ASSERT_TRUE(db);
      EXPECT_EQ(std::tuple(db->is_rdata(), db->has_time_range(), db->first_seen(), db->last_seen()),
                std::tuple(rdata, true, lo, hi));
      folded_map got;
      for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        EXPECT_TRUE(i == 0 || (rdata ? compare_rdata_lines : compare_rrname_lines)(lines[i - 1], line) < 0) << line;
        const size_t tab = line.find('\t');
        const std::string_view value = std::string_view(line).substr(tab + 1);
        std::vector<search_entry> entries;
        if (!rdata)
          entries = parse_rrname_value(value);
        else if (const auto v = parse_rdata_value(value); v && !decode_rdata(v->wire_form).empty())
          entries = {v->entry};
        else
          ADD_FAILURE() << line;
        for (const auto& e : entries) fold(got, line.substr(0, tab), e.rrtype, e.count, e.time_first, e.time_last);
      }
      EXPECT_EQ(got, want[rdata]);
    }
  }
}

TEST(Ixbake, ZoneFileRoundTrip) {
  temp_dir dir;
  const auto r = ixbake({"--time", "2025-03-15", "-o", dir.file("z"), VORN_SOURCE_DIR "/data/example.zone"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "ixbake: 18 records read, 0 skipped; wrote " + dir.file("z.rrname.tgdb") + " (9 lines), " +
                       dir.file("z.rdata.tgdb") + " (18 lines)\n");
  std::vector<std::string> lines = read_lines(dir.file("z.rrname.tgdb")), rd = read_lines(dir.file("z.rdata.tgdb"));
  lines.insert(lines.end(), rd.begin(), rd.end());
  for (const char* line : {  // 0x67d4c300 is 2025-03-15 00:00:00 UTC; one sighting per record
           "kestrel-analytics.io\t4:67d4c300:1 n:67d4c300:2 s:67d4c300:1 m:67d4c300:2 t:67d4c300:1 65:67d4c300:1 "
           "257:67d4c300:1",
           "mail.kestrel-analytics.io\t4:67d4c300:1 6:67d4c300:1",
           "10 mail.kestrel-analytics.io\t29/000a046d61696c116b65737472656c2d616e616c797469637302696f00 m:67d4c300:1",
           "1 . alpn=h2,h3\t13/00010000010006026832026833 65:67d4c300:1",
           "0 issue \"certs.dnsgrid.net\"\t24/0005697373756563657274732e646e73677269642e6e6574 257:67d4c300:1"})
    EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end()) << line;
}

TEST(Ixbake, BadRecordsAreReportedCountedAndSkipped) {
  const auto with = [](const std::string& from, const std::string& to) {  // one_record, one part changed
    std::string s = one_record;
    return s.replace(s.find(from), from.size(), to);
  };
  std::string long_txt;  // the DNS library would cut this text short without a word
  for (int i = 0; i < 300; ++i) long_txt += "\\\"" + std::string(250, 'x') + "\\\" ";
  const std::pair<std::string, std::string> cases[] = {  // line, part of the message
      {one_record.substr(0, 60), "not valid JSON"},
      {R"(["rrname"])", "not a JSON object"},
      {with(R"("rrname":"x.example",)", ""), "missing \"rrname\""},
      {with("\"A\"", "\"FOO\""), "unknown record type \"FOO\""},
      {with("192.0.2.1", "192.0.2"), "rdata \"192.0.2\" is not valid A: "},
      {with("x.", "x.."), "bad owner name \"x..example\""},
      {with("\"time_first\":1", "\"time_first\":-1"),
       "\"time_first\" must be a whole number of seconds from 0 to 4294967295"},
      {with("\"time_last\":2", "\"time_last\":4294967296"), "\"time_last\" must be a whole number"},
      {with("\"time_first\":1", "\"time_first\":3"), "\"time_last\" is before \"time_first\""},
      {with("\"count\":1", "\"count\":0"), "\"count\" must be a positive integer"},
      {with("\"192.0.2.1\"", "[]"), "\"rdata\" is an empty array"},
      {with("\"A\",\"rdata\":\"192.0.2.1\"", "\"TXT\",\"rdata\":\"" + long_txt + "\""),
       "is not valid TXT: its text is longer than 65534 bytes"},
  };
  temp_dir dir;
  std::string input = with("\"count\":1", "\"count\":2") + "\n\n";  // a blank line is no record
  for (const auto& c : cases) input += c.first + "\n";
  const std::string path = dir.write("bad.json", input);
  const auto r = ixbake({"-o", dir.file("t"), path});
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream err(r.err);
  std::string line;
  for (size_t i = 0; i < std::size(cases) && std::getline(err, line); ++i)
    EXPECT_TRUE(line.starts_with("ixbake: " + path + ":" + std::to_string(i + 3) + ": ") &&
                line.find(cases[i].second) != std::string::npos) << line;
  ASSERT_TRUE(std::getline(err, line));
  EXPECT_EQ(line, "ixbake: 13 records read, 12 skipped; wrote " + dir.file("t.rrname.tgdb") + " (1 lines), " +
                      dir.file("t.rdata.tgdb") + " (1 lines)");
  EXPECT_EQ(read_lines(dir.file("t.rrname.tgdb")), std::vector<std::string>{"x.example\t4:1,1:2"});

  // --strict: the first bad record ends the run and nothing is left behind.
  temp_dir out;
  const auto s = ixbake({"--strict", "-o", out.file("t"), path});
  EXPECT_EQ(s.status, 1);
  EXPECT_NE(s.err.find(path + ":3: not valid JSON"), std::string::npos) << s.err;
  EXPECT_TRUE(std::filesystem::is_empty(out.path()));
}

// The sample as a feed writes it: one pretty-printed array, the zone's
// times where the own ones are missing, ISO 8601 times, no count of 1.
std::string as_feed(const std::string& json_lines) {
  std::string out = "[\n";
  std::istringstream in(json_lines);
  for (std::string line; std::getline(in, line);) {
    const auto replace = [&](const std::string& from, const std::string& to) {
      if (const size_t at = line.find(from); at != std::string::npos) line.replace(at, from.size(), to);
    };
    replace(",\"count\":1}", "}");
    replace("\"time_first\"", "\"zone_time_first\"");
    const size_t at = line.find("\"time_last\":") + 12, end = line.find_first_not_of("0123456789", at);
    const time_t t = std::stol(line.substr(at, end - at));
    char iso[32];
    strftime(iso, sizeof iso, "\"%Y-%m-%dT%H:%M:%SZ\"", gmtime(&t));
    line.replace(at, end - at, iso);
    replace(",", ",\n    ");
    out += (out.size() > 2 ? ",\n  " : "  ") + line;
  }
  return out + "\n]\n";
}

// Compressed, on standard input, split over files and threads, as a feed
// writes it, or as the files' own record lines (reordered, one kind at a
// time): the same records bake to the same bytes. Set files list each run's
// files, a kind apart.
TEST(Ixbake, EveryRouteToTheSameRecordsGivesTheSameFiles) {
  temp_dir dir;
  const std::string sample = VORN_SOURCE_DIR "/data/sample-pdns.jsonl", text = read_file(sample);
  ASSERT_EQ(ixbake({"--threads", "1", "-o", dir.file("plain"), sample}).status, 0);
  const auto gzip = [&](const std::string& name, std::string_view data) {
    gzFile gz = gzopen(dir.file(name).c_str(), "wb");
    gzwrite(gz, data.data(), unsigned(data.size()));
    gzclose(gz);
    return read_file(dir.file(name));
  };
  const std::string gz_bytes = gzip("s.gz", text);
  const size_t half = text.find('\n', text.size() / 2) + 1;
  const std::string p1 = dir.write("p1.json", text.substr(0, half)), p2 = dir.write("p2.json", text.substr(half));
  dir.write("members.gz", gzip("a.gz", std::string_view(text).substr(0, half)) + gzip("b.gz", text.substr(half)));
  // A cut-off compressed stream, or plain data after it, is an error, not a short input.
  for (const auto& [bytes, message] :
       {std::pair{gz_bytes.substr(0, gz_bytes.size() / 2), "unexpected end of file"},
        {gz_bytes + text.substr(0, 200), "data follows the end of the compressed stream"}}) {
    const auto r = ixbake({"-o", dir.file("broken"), dir.write("broken.gz", bytes)});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "ixbake: cannot read " + dir.file("broken.gz") + ": " + message + "\nixbake: nothing written\n");
  }
  // The rrname file's own lines reversed, one of them split in two.
  std::vector<std::string> rr = read_lines(dir.file("plain.rrname.tgdb"));
  const auto multi = std::find_if(rr.begin(), rr.end(), [](auto& l) { return l.find(' ') != std::string::npos; });
  ASSERT_NE(multi, rr.end());
  const std::string whole = *multi;
  *multi = whole.substr(0, whole.find(' '));
  rr.push_back(whole.substr(0, whole.find('\t') + 1) + whole.substr(whole.find(' ') + 1));
  std::reverse(rr.begin(), rr.end());
  const std::string rd_path = dir.write("rd.txt", join_lines(read_lines(dir.file("plain.rdata.tgdb"))));
  const std::string set = dir.file("idx.set");
  ASSERT_EQ(ixbake({"--fileset", set, "-o", dir.file("gz"), dir.file("s.gz")}).status, 0);
  ASSERT_EQ(ixbake({"--fileset", set, "-o", dir.file("stdin")}, text).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("members"), dir.file("members.gz")}).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("marked"), "-"}, "\xef\xbb\xbf" + text).status, 0);  // byte-order mark
  ASSERT_EQ(ixbake({"--threads", "3", "-o", dir.file("split"), p2, p1}).status, 0);
  ASSERT_EQ(ixbake({"-o", dir.file("feed"), dir.write("feed.json", as_feed(text))}).status, 0);
  const std::string lines = dir.file("lines"), rr_path = dir.write("rr.txt", join_lines(rr));
  ASSERT_EQ(ixbake({"--kind", "rrname", "--fileset", set, "-o", lines, rr_path}).status, 0);
  ASSERT_EQ(ixbake({"--kind", "rdata", "--format", "lines", "--fileset", set, "-o", lines, rd_path}).status, 0);
  for (const std::string kind : {".rrname.tgdb", ".rdata.tgdb"})
    for (const std::string other : {"gz", "stdin", "members", "marked", "split", "feed", "lines"})
      EXPECT_EQ(read_file(dir.file(other + kind)), read_file(dir.file("plain" + kind))) << other << kind;
  EXPECT_EQ(read_file(set), "gz.rrname.tgdb\nstdin.rrname.tgdb\nlines.rrname.tgdb\nlines.rdata.tgdb\n");
  EXPECT_EQ(read_file(set + ".rdata"), "gz.rdata.tgdb\nstdin.rdata.tgdb\n");
}

// Mistakes in the command, its destinations (found before any reading) or
// its inputs: status 1, and nothing is replaced or written.
TEST(Ixbake, MistakesAreFoundBeforeAnythingIsWritten) {
  temp_dir dir;
  const std::string in = dir.write("in.jsonl", one_record + "\n"), old_names = dir.write("taken.rrname.tgdb", "old");
  std::filesystem::create_directories(dir.file("taken.rdata.tgdb"));
  std::filesystem::create_directories(dir.file("sets/n.set.rdata"));
  const std::string t = dir.file("t");
  const std::pair<std::vector<std::string>, std::string> cases[] = {  // arguments after the input, the message
      {{}, "ixbake: an output prefix is required (-o PREFIX)\n"},
      {{"-o", t, "--kind", "all"}, "ixbake: --kind must be both, rrname or rdata, not 'all'\n"},
      {{"-o", t, "--format", "csv"}, "ixbake: --format must be auto, json, zone or lines, not 'csv'\n"},
      {{"-o", t, "--format", "lines"}, "ixbake: --format lines needs --kind rrname or --kind rdata\n"},
      {{"-o", t, "--time", "yesterday-ish"}, "ixbake: --time 'yesterday-ish' is not a time"},
      {{"-o", t, "--origin", "a..b"}, "ixbake: --origin 'a..b' is not a domain name"},
      {{"-o", t, "--bogus"}, "ixbake: unknown option --bogus\n"},
      {{"-o"}, "ixbake: option -o needs a value\n"},
      {{"-o", t, dir.file("missing")}, "ixbake: cannot open " + dir.file("missing") + ": "},
      {{"-o", dir.file("sets/")}, "ixbake: -o wants a prefix for file names, such as " + dir.file("sets/name")},
      {{"-o", dir.file("taken")}, "ixbake: cannot replace " + dir.file("taken.rdata.tgdb") + ": it is a directory\n"},
      {{"-o", dir.file("in.jsonl/x")}, "ixbake: cannot write in " + in + ": Not a directory\n"},
      {{"--fileset", dir.file("none/n.set"), "-o", t},
       "ixbake: cannot write in " + dir.file("none") + ": No such file or directory\n"},
      {{"--fileset", dir.file("sets/n.set"), "-o", t},
       "ixbake: cannot use " + dir.file("sets/n.set.rdata") + " as a set file: not a regular file\n"},
      // A set file lists one file a line: no name may hold a line feed, nor any other control character.
      {{"-o", dir.file("a\nb")}, "ixbake: -o " + dir.file("a\\nb") + ": file names with control characters are refused\n"},
      {{"--fileset", dir.file("s\x1b.set"), "-o", t},
       "ixbake: --fileset " + dir.file("s\\x1b.set") + ": file names with control characters are refused\n"},
  };
  for (auto [args, message] : cases) {
    args.insert(args.begin(), in);
    const auto r = ixbake(args);
    EXPECT_EQ(r.status, 1) << message;
    EXPECT_TRUE(r.err.starts_with(message)) << r.err;
  }
  EXPECT_EQ(read_file(old_names), "old");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
    EXPECT_FALSE(entry.path().string().ends_with(".tgdb") && entry.is_regular_file() && entry.path() != old_names)
        << entry.path();
  const auto h = run_binary(IXBAKE_BIN, {"-h"});
  EXPECT_EQ(h.status, 0);
  EXPECT_NE(h.out.find("SETFILE.rdata"), std::string::npos);
  const auto v = run_binary(IXBAKE_BIN, {"--version", "-o"});
  EXPECT_EQ(std::tie(v.status, v.out, v.err), std::make_tuple(0, std::string("ixbake ") + VORN_VERSION + "\n", ""));
}

// Everything in a directory: each file's name and bytes.
std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(dir)) files[e.path().filename()] = read_file(e.path());
  return files;
}

// A run that accepts no record leaves the index and the set files as they
// were, and says why with status 1; an index file given as input is refused
// in one line rather than read as a mass of bad records.
TEST(Ixbake, RunsThatAcceptNoRecordReplaceNothing) {
  temp_dir dir;
  const std::string t = dir.file("t"), set = dir.file("t.set"), index = t + ".rrname.tgdb";
  ASSERT_EQ(ixbake({"--fileset", set, "-o", t, "-"}, one_record).status, 0);
  const std::string packed = dir.write("index.gz", "");
  gzFile gz = gzopen(packed.c_str(), "wb");
  const std::string index_bytes = read_file(index);
  gzwrite(gz, index_bytes.data(), unsigned(index_bytes.size()));
  gzclose(gz);
  const std::string is_index = " is an index file, not DNS records (JSON observations, zone files or record lines)\n";
  const std::tuple<std::vector<std::string>, std::string, std::string> cases[] = {  // arguments, input, message
      {{"-"}, "", "ixbake: no records were read\n"},
      {{"-"}, "\n \n", "ixbake: no records were read\n"},
      {{"-"}, "[]", "ixbake: no records were read\n"},
      {{"-"}, "{}\n", "ixbake: <stdin>:1: missing \"rrname\"\nixbake: the one record read was bad\n"},
      {{"-"}, "{}\n[]\n", "ixbake: <stdin>:1: missing \"rrname\"\nixbake: <stdin>:2: not a JSON object\n"
                           "ixbake: all 2 records read were bad\n"},
      {{"--kind", "rdata", "--format", "lines", "-"}, "x\tjunk\n", "ixbake: <stdin>:1: not an rdata record line\n"
                                              "ixbake: the one record read was bad\n"},
      {{index}, "", "ixbake: " + index + is_index},
      {{packed}, "", "ixbake: " + packed + is_index},
      {{"--kind", "rrname", "--format", "lines", index}, "", "ixbake: " + index + is_index},
  };
  const auto before = snapshot(dir.path());
  for (auto [args, input, message] : cases) {
    args.insert(args.begin(), {"--fileset", set, "-o", t});
    const auto r = ixbake(args, input);
    EXPECT_EQ(r.status, 1) << message;
    EXPECT_EQ(r.err, message + "ixbake: nothing written\n");
    EXPECT_EQ(snapshot(dir.path()), before) << message;
  }
}

// Record lines are taken as they are, so their keys are checked: a search
// prints them to a terminal, where a control byte could act.
TEST(Ixbake, RecordLineKeysWithControlBytesAreBadRecords) {
  temp_dir dir;
  const std::string value = "\t4:1,1:1";
  const std::pair<std::string, std::string> cases[] = {  // key, message
      {"\x1b]0;owned\x07x.example", "the key \"\\027]0;owned\\007x.example\" holds a control byte"},
      {"x\x7f.example", "the key \"x\\127.example\" holds a control byte"},
      {std::string("x\0.example", 10), "the key \"x\\000.example\" holds a control byte"},
      {"x\r.example", "the key \"x\\013.example\" holds a control byte"},
  };
  std::string input = "good.example" + value + "\n", want;
  for (size_t i = 0; i < std::size(cases); ++i) {
    input += cases[i].first + value + "\n";
    want += "ixbake: <stdin>:" + std::to_string(i + 2) + ": " + cases[i].second + "\n";
  }
  const auto r = ixbake({"--threads", "1", "--kind", "rrname", "-o", dir.file("t")}, input);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, want + "ixbake: 5 records read, 4 skipped; wrote " + dir.file("t.rrname.tgdb") + " (1 lines)\n");
  EXPECT_EQ(read_lines(dir.file("t.rrname.tgdb")), std::vector<std::string>{"good.example" + value});
}

// Relative names in a zone with no origin land at the root: said once for
// each file that has them.
TEST(Ixbake, ZoneFilesWithoutAnOriginAreWarnedOncePerFile) {
  temp_dir dir;
  const std::string relative = dir.write("relative.zone", "a.example. A 192.0.2.1\nb A 192.0.2.2\nc A 192.0.2.3\n");
  const std::string absolute = dir.write("absolute.zone", "d.example. A 192.0.2.4\n");
  const std::string again = dir.write("again.zone", "e A 192.0.2.5\n");
  const auto r = ixbake({"--threads", "1", "--time", "1", "-o", dir.file("t"), relative, absolute, again});
  EXPECT_EQ(r.status, 0);
  const std::string warning = ": a relative name, and no origin given: taken as relative to the root "
                              "(give --origin or $ORIGIN; said once per file)\n";
  EXPECT_EQ(r.err.substr(0, r.err.find("ixbake: 5 records")),
            "ixbake: " + relative + ":2" + warning + "ixbake: " + again + ":1" + warning);
  EXPECT_EQ(ixbake({"--origin", "example", "-o", dir.file("t"), again}).err.find("relative name"), std::string::npos);
}

}  // namespace
