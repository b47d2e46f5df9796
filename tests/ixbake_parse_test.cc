// The builder's parsers: canonical names and record data, record types,
// zone files record by record, and set-file updates.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "aggregate.h"
#include "dns_text.h"
#include "input.h"
#include "ixbake.h"
#include "json_array.h"
#include "json_record.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "zone_reader.h"

namespace {

// Owner names (type 0) and record data in canonical text, the data with its
// wire form; "!" when refused, which needs a reason. Plain names and data in
// any case and spelling are covered end to end; these are the awkward ones.
TEST(IxbakeDns, CanonicalNamesAndRecordData) {
  const std::tuple<uint16_t, std::string, const char*> cases[] = {
      {0, ".", "."}, {0, "*.Example.com", "*.example.com"},
      {0, "a b.example", "a\\032b.example"},      // space escaped
      {0, "a\\.b.example.", "a\\.b.example"},     // dot inside a label
      {0, "caf\\195\\169.example", "caf\\195\\169.example"},
      {0, "x\\009y.example", "x\\009y.example"},  // never a raw tab
      {0, "", "!"}, {0, "a..b", "!"}, {0, std::string(64, 'a') + ".example", "!"},
      {1, "\\# 4 c0000201", "192.0.2.1 c0000201"},  // generic form, same data
      {1, "  192.0.2.1 ", "192.0.2.1 c0000201"},
      {28, "2001:DB8::1", "2001:db8::1 20010db8000000000000000000000001"},
      {16, "\"a\\009b\" \"c d\"", "\"a\\009b\" \"c d\" 0361096203632064"},
      {47, "a.example. A NS", "a.example A NS 0161076578616d706c6500000160"},
      {1, "192.0.2", "!"}, {1, "192.0.2.1 extra", "!"}, {999, "abc", "!"}, {16, "\"line\nbreak\"", "!"},
  };
  dns_parser dns;
  for (const auto& [type, in, want] : cases) {
    std::vector<uint8_t> wire;
    std::string out, err;
    const bool ok = type ? dns.parse_rdata(type, in, wire, err) : dns.owner_name(in, out, err);
    if (type) out = dns.rdata_text() + " ";
    for (uint8_t b : wire) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    EXPECT_EQ(ok ? out : err.empty() ? "! without a reason" : "!", want) << in;
  }
}

// Numbers back to names are checked through the zone reader.
TEST(IxbakeDns, RecordTypeNames) {
  for (const auto& [name, type] : {std::pair{"A", 1}, {"aaaa", 28}, {"TYPE65", 65}, {"257", 257}, {"FOO", 0},
                                   {"", 0}, {"0", 0}, {"TYPE", 0}, {"TYPE70000", 0}, {"65536", 0}, {"1x", 0},
                                   {"TYPE-1", 0}})
    EXPECT_EQ(parse_rrtype_name(name), type) << name;
}

// Directives, relative names, layout, and class and time to live in either
// order; a bad record carries its line and the rest goes on. Ordinary
// records are covered end to end by the example zone.
TEST(IxbakeZone, RecordsAndErrorsInOrder) {
  const std::vector<std::string> want = {  // each record as "owner TYPE text", each bad one as "!LINE: reason"
      "!1: the record has no owner name and none came before it",
      "example.com SOA ns1.example.com hostmaster.example.com 1 7200 3600 1209600 300",
      "www.example.com A 192.0.2.1",
      "a.example A 192.0.2.5",
      "mail.sub.example.com A 192.0.2.2",
      "mail.sub.example.com AAAA 2001:db8::2",
      "abs.example.org TXT \"semi ; colon\" \"(paren)\"",
      "!11: record does not parse: Syntax error, could not parse the RR's rdata",
      "!12: the directive $INCLUDE is not supported",
      "!13: a closing parenthesis without an opening one",
      "!14: $ORIGIN needs a domain name",
      "d.example A 192.0.2.4",
      // Types the DNS library would read as another, or as none.
      "!16: unknown record type \"FOO\"",
      "!17: unknown record type \"TYPE65537\"",
      "h.example TYPE65534 \\# 1 01",
      "!19: the record has no type",
      "!20: parenthesis not closed before the end of the input",
  };
  temp_dir dir;
  std::string err, owner;
  const std::string zone =
      "  IN A 192.0.2.9\n"
      "@ SOA ns1 hostmaster ( 1 ; serial\n"
      "\n"
      "\t\t7200 3600 1209600 300 )\n"
      "WWW 60 IN A 192.0.2.1 ; trailing comment\n"
      "a.example. IN 300 A 192.0.2.5\n"
      "$ORIGIN sub\n"
      "mail A 192.0.2.2\r\n"
      "     AAAA 2001:db8::2\n"
      "abs.example.org. TXT \"semi ; colon\" \"(paren)\"\n"
      "b.example. A 999.0.0.1\n"
      "$INCLUDE other.zone\n"
      "c.example. A 192.0.2.3 )\n"
      "$ORIGIN\n"
      "d.example. A 192.0.2.4\n"
      "f.example. IN FOO\n"
      "g.example. TYPE65537 \\# 4 c0000201\n"
      "h.example. CH TYPE65534 \\# 1 01\n"
      "i.example. IN 60\n"
      "j.example. TXT ( \"open\"\n";
  auto in = input_reader::open(dir.write("z.zone", zone), err);
  ASSERT_TRUE(in) << err;
  zone_reader zr(*in);
  ASSERT_TRUE(zr.set_origin("Example.COM", err)) << err;
  dns_parser dns;
  std::vector<std::string> got;
  ldns_struct_rr* rr = nullptr;
  std::vector<uint8_t> wire;
  uint64_t line = 0;
  for (zone_reader::result r; (r = zr.next(rr, line, err)) != zone_reader::END;) {
    if (r == zone_reader::BAD)
      got.push_back(std::string("!").append(std::to_string(line)).append(": ").append(err));
    else if (const uint16_t type = dns.take_rr(rr, owner, wire))
      got.push_back(owner + " " + rrtype_name(type) + " " + dns.rdata_text());
  }
  EXPECT_EQ(got, want);
}

// Feeds write times and counts in several ways; each good case as
// "first last count", each bad one as its message.
TEST(IxbakeJson, TimesAndCountsInTheFormsFeedsWrite) {
  const std::string head = R"({"rrname":"a.example","rrtype":"A","rdata":"192.0.2.1")";
  const std::pair<std::string, std::string> cases[] = {
      {R"(,"time_first":1,"time_last":2,"count":3})", "1 2 3"},
      {R"(,"time_first":1,"time_last":2})", "1 2 1"},  // no count: seen once
      {R"(,"zone_time_first":5,"zone_time_last":6})", "5 6 1"},
      {R"(,"zone_time_first":5,"time_first":1,"zone_time_last":"junk","time_last":7})", "1 7 1"},
      {R"(,"time_first":1,"zone_time_last":9})", "1 9 1"},
      {R"(,"time_first":"2025-12-01T00:00:00Z","time_last":"2025-12-01 01:00"})", "1764547200 1764550800 1"},
      {R"(,"time_first":"2025-12-01T08:00:00+08:00","time_last":"2025-12-01"})", "1764547200 1764547200 1"},
      {R"(,"time_first":"1970-01-01T00:00:00Z","time_last":"2106-02-07T06:28:15Z"})", "0 4294967295 1"},
      {R"(,"time_last":2})", "missing \"time_first\""},
      {R"(,"zone_time_first":1})", "missing \"time_last\""},
      {R"(,"time_first":"1969-12-31T23:59:59Z","time_last":2})",
       "\"time_first\" must be a whole number of seconds from 0 to 4294967295, or an ISO 8601 time from 1970 to 2106"},
      {R"(,"time_first":1,"zone_time_last":"2106-02-07T06:28:16Z"})", "\"zone_time_last\" must be a whole number"},
      {R"(,"time_first":1,"time_last":"yesterday"})", "\"time_last\" must be a whole number"},
      {R"(,"zone_time_first":3,"zone_time_last":2})", "\"zone_time_last\" is before \"zone_time_first\""},
      {R"(,"time_first":1,"time_last":2,"count":0})", "\"count\" must be a positive integer"},
      {R"(,"time_first":1,"time_last":2,"count":"3"})", "\"count\" must be a positive integer"},
  };
  json_line_parser parser;
  for (const auto& [tail, want] : cases) {
    std::string text = head + tail;
    const size_t length = text.size();
    text.resize(length + json_line_parser::padding());
    json_record rec;
    std::string err;
    const bool ok = parser.parse(text.data(), length, text.size(), rec, err);
    const std::string got = ok ? std::to_string(rec.time_first) + " " + std::to_string(rec.time_last) + " " +
                                     std::to_string(rec.count)
                               : err;
    EXPECT_TRUE(got.starts_with(want)) << tail << "\n got " << got;
  }
}

// A JSON array cut into elements: each good one as "LINE: TEXT" as the
// workers get it, each problem between them as "!LINE: reason".
TEST(IxbakeJson, ArraysAreCutIntoTheirElements) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"[]", {}},
      {" \n[ {\"a\":1} , {\"b\":[1,{\"c\":\"]\"}]},\n\n  {\"d\":\",}\\\"\"}\n]\n",
       {"2: {\"a\":1}", "2: {\"b\":[1,{\"c\":\"]\"}]}", "4: {\"d\":\",}\\\"\"}"}},
      // Pretty-printed: line feeds between members become spaces.
      {"[\n  {\n    \"a\": 1\n  },\n  {\n    \"b\": 2\n  }\n]", {"2: {     \"a\": 1   }", "5: {     \"b\": 2   }"}},
      // Inside a string a line feed stays invalid.
      {"[{\"a\":\"x\ny\"}]", {"1: {\"a\":\"x\001y\"}"}},
      {"[1, \"s\", {}]", {"1: 1", "1: \"s\"", "1: {}"}},
      {"[{},,{}]", {"1: {}", "1: {}", "!1: an empty element in the array"}},
      {"[{},\n]", {"1: {}", "!2: an empty element in the array"}},
      {"[{} {}]", {"1: {} {}"}},  // a missing comma makes one bad element
      {"[{}]\n{}\n", {"1: {}", "!2: data after the end of the array"}},
      {"[{},\n{}\n", {"1: {}", "2: {}", "!2: the input ends inside the array (no closing ']')"}},
      {"[{},\n{\"a\":[1,\n", {"1: {}", "!2: the input ends inside the array (no closing ']')"}},
      {"[{\"a\":\"]", {"!1: the input ends inside the array (no closing ']')"}},
  };
  temp_dir dir;
  for (const auto& [text, want] : cases) {
    for (size_t target : {size_t{1}, size_t{1} << 20}) {  // a chunk per element, or all in one
      std::string err;
      auto in = input_reader::open(dir.write("a.json", text), err);
      ASSERT_TRUE(in) << err;
      std::vector<std::string> got;
      json_array_reader reader(*in, [&](uint64_t line, const std::string& reason) {
        got.push_back(std::string("!").append(std::to_string(line)).append(": ").append(reason));
      });
      line_chunk chunk;
      while (reader.next_chunk(chunk, target)) {
        std::string_view lines(chunk.data.data(), chunk.size);
        for (size_t i = 0; !lines.empty(); ++i) {
          const size_t nl = lines.find('\n');
          got.push_back(std::to_string(chunk.line_number(i)) + ": " + std::string(lines.substr(0, nl)));
          lines.remove_prefix(nl + 1);
        }
      }
      // Problems are reported as they are met, elements when their chunk is done.
      std::stable_partition(got.begin(), got.end(), [](auto& g) { return g[0] != '!'; });
      EXPECT_EQ(got, want) << text;
    }
  }
}

// Where relative names end: each record's owner, "?LINE" where the reader
// warns that a relative name lands at the root (once), "!LINE: reason" for
// a bad one.
TEST(IxbakeZone, OriginsAndRelativeNamesAtTheRoot) {
  const std::tuple<std::string, std::string, std::vector<std::string>> cases[] = {  // zone, --origin, want
      {"a.example. A 192.0.2.1\nb A 192.0.2.1\nc A 192.0.2.1\n", "", {"a.example", "?2", "b", "c"}},
      {"@ A 192.0.2.1\n", "", {"?1", "."}},
      {"a\\. A 192.0.2.1\n", "", {"?1", "a\\."}},
      {"b A 192.0.2.1\n", "example", {"b.example"}},
      {"$ORIGIN example.\nb A 192.0.2.1\n", "", {"b.example"}},
      {"$ORIGIN example\nb A 192.0.2.1\n", "", {"b.example"}},
      {"a.example. A 192.0.2.1\n\tA 192.0.2.2\n", "", {"a.example", "a.example"}},  // an omitted owner is the last one
      // A bad $ORIGIN changes nothing, and says so.
      {"$ORIGIN one.example. two.example.\nb A 192.0.2.1\n", "x",
       {"!1: $ORIGIN takes one domain name and nothing after it", "b.x"}},
      {"$ORIGIN a..b\nb A 192.0.2.1\n", "", {"!1: $ORIGIN needs a domain name", "?2", "b"}},
  };
  temp_dir dir;
  for (const auto& [zone, origin, want] : cases) {
    std::string err, owner;
    auto in = input_reader::open(dir.write("z", zone), err);
    ASSERT_TRUE(in) << err;
    zone_reader zr(*in);
    ASSERT_TRUE(zr.set_origin(origin, err)) << err;
    std::vector<std::string> got;
    zr.on_relative_name_at_root([&](uint64_t line) { got.push_back(std::string("?").append(std::to_string(line))); });
    dns_parser dns;
    ldns_struct_rr* rr = nullptr;
    std::vector<uint8_t> wire;
    uint64_t line = 0;
    for (zone_reader::result r; (r = zr.next(rr, line, err)) != zone_reader::END;) {
      if (r == zone_reader::BAD) {
        got.push_back(std::string("!").append(std::to_string(line)).append(": ").append(err));
      } else {
        dns.take_rr(rr, owner, wire);
        got.push_back(owner);
      }
    }
    EXPECT_EQ(got, want) << zone;
  }
}

TEST(IxbakeSetFile, CreatesAppendsAndSkipsListedFiles) {
  temp_dir dir, other;
  const std::string set = dir.file("all.set"), a = dir.write("a.tgdb", "x"), b = dir.write("b.tgdb", "x");
  const std::string c = other.write("c.tgdb", "x");
  std::string err;
  ASSERT_TRUE(add_to_set_file(set, {a, b, c, a}, err)) << err;
  EXPECT_EQ(read_file(set), "a.tgdb\nb.tgdb\n" + c + "\n");  // relative when beside the set file
  // Lines of any spelling that name the same file count as listed.
  dir.write("all.set", "./a.tgdb\nstale.tgdb");
  ASSERT_TRUE(add_to_set_file(set, {a, b}, err)) << err;
  EXPECT_EQ(read_file(set), "./a.tgdb\nstale.tgdb\nb.tgdb\n");
  EXPECT_FALSE(add_to_set_file(dir.file("missing/x.set"), {a}, err));
  // A set file that is a link: its target is updated and the link stays.
  std::filesystem::create_symlink(set, dir.file("link.set"));
  ASSERT_TRUE(add_to_set_file(dir.file("link.set"), {c, dir.write("d.tgdb", "x")}, err)) << err;
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.set")));
  EXPECT_EQ(read_file(set), "./a.tgdb\nstale.tgdb\nb.tgdb\n" + c + "\nd.tgdb\n");
  // A name that would make two lines is refused, and the list stays as it was.
  std::filesystem::create_directories(dir.file("odd\ndir"));
  EXPECT_FALSE(add_to_set_file(set, {a, dir.write("odd\ndir/e.tgdb", "x")}, err));
  EXPECT_EQ(err, "cannot list " + dir.path() + "/odd\\ndir/e.tgdb in a set file: its name holds a control character");
  EXPECT_EQ(read_file(set), "./a.tgdb\nstale.tgdb\nb.tgdb\n" + c + "\nd.tgdb\n");
}

// Record-data keys that are prefixes of each other are the hard case (the
// owner-name order is checked end to end).
TEST(IxbakeSort, SplittingTheSortOverThreadsChangesNothing) {
  std::mt19937_64 rng(3);
  std::vector<std::string> lines;
  for (int i = 0; i < 1000; ++i) {
    std::vector<uint8_t> wire(1 + rng() % 6);
    for (auto& b : wire) b = uint8_t(rng() % 4);
    lines.push_back(rdata_line("key", wire, search_entry{uint16_t(1 + rng() % 3), 1, 1, 1}));
  }
  const auto less = [](auto a, auto b) { return compare_rdata_lines(a, b) < 0; };
  std::vector<std::string_view> want(lines.begin(), lines.end());
  std::sort(want.begin(), want.end(), less);
  want.erase(std::unique(want.begin(), want.end(), [](auto a, auto b) { return compare_rdata_lines(a, b) == 0; }),
             want.end());
  std::vector<std::string_view> distinct = want;
  std::shuffle(distinct.begin(), distinct.end(), rng);
  for (unsigned parts : {1u, 2u, 3u, 7u}) {
    std::vector<std::string_view> got = distinct;
    sort_record_lines(got, true, parts);
    EXPECT_EQ(got, want) << "parts " << parts;
  }
}

}  // namespace
