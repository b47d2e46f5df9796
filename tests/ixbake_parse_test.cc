// The builder's parsers: canonical names and record data, record types,
// zone files record by record, and set-file updates.
#include <gtest/gtest.h>

#include <filesystem>

#include <algorithm>
#include <random>
#include <stdbool.h>

#include <ldns/ldns.h>

#include "aggregate.h"
#include "dns_text.h"
#include "input.h"
#include "ixbake.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "zone_reader.h"

namespace {

TEST(IxbakeDns, OwnerNames) {
  const std::pair<std::string, const char*> cases[] = {
      {"WWW.Example.COM.", "www.example.com"},
      {".", "."},
      {"*.Example.com", "*.example.com"},
      {"a b.example", "a\\032b.example"},      // space escaped
      {"a\\.b.example.", "a\\.b.example"},     // dot inside a label
      {"caf\\195\\169.example", "caf\\195\\169.example"},
      {"x\\009y.example", "x\\009y.example"},  // never a raw tab
      {"", "!"},                               // refused, with a reason
      {"a..b", "!"},
      {std::string(64, 'a') + ".example", "!"},
  };
  dns_parser dns;
  for (const auto& [in, want] : cases) {
    std::string out, err;
    EXPECT_EQ(dns.owner_name(in, out, err) ? out : err.empty() ? "! without a reason" : "!", want) << in;
  }
}

TEST(IxbakeDns, RecordTypes) {
  for (const auto& [name, type] : {std::pair{"A", 1}, {"aaaa", 28}, {"TYPE65", 65}, {"257", 257}, {"FOO", 0},
                                   {"", 0}, {"0", 0}, {"TYPE", 0}, {"TYPE70000", 0}, {"65536", 0}, {"1x", 0},
                                   {"TYPE-1", 0}})
    EXPECT_EQ(parse_rrtype_name(name), type) << name;
  EXPECT_EQ(rrtype_name(65), "HTTPS");
  EXPECT_EQ(rrtype_name(65000), "TYPE65000");
}

TEST(IxbakeDns, RecordData) {
  const std::tuple<uint16_t, const char*, const char*> cases[] = {  // type, text, canonical text and wire form
      {1, "192.0.2.1", "192.0.2.1 c0000201"},
      {1, "\\# 4 c0000201", "192.0.2.1 c0000201"},  // generic form, same data
      {1, "  192.0.2.1 ", "192.0.2.1 c0000201"},
      {28, "2001:DB8::1", "2001:db8::1 20010db8000000000000000000000001"},
      {5, "Edge.CDN.example.", "edge.cdn.example 04656467650363646e076578616d706c6500"},
      {15, "10 MX.example.", "10 mx.example 000a026d78076578616d706c6500"},
      {16, "\"a\\009b\" \"c d\"", "\"a\\009b\" \"c d\" 0361096203632064"},
      {47, "a.example. A NS", "a.example A NS 0161076578616d706c6500000160"},
      {1, "192.0.2", "!"},
      {1, "192.0.2.1 extra", "!"},
      {999, "abc", "!"},
      {16, "\"line\nbreak\"", "!"},
  };
  dns_parser dns;
  for (const auto& [type, in, want] : cases) {
    std::vector<uint8_t> wire;
    std::string err, hex;
    const bool ok = dns.parse_rdata(type, in, wire, err);
    for (uint8_t b : wire) hex += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    EXPECT_EQ(ok ? dns.rdata_text() + " " + hex : "!", want) << in;
  }
}

// Each record as "owner TYPE text", each bad one as "!LINE: reason".
std::vector<std::string> read_zone(const temp_dir& dir, const std::string& text, const std::string& origin = "") {
  const std::string path = dir.write("z.zone", text);
  std::string err;
  auto in = input_reader::open(path, err);
  EXPECT_TRUE(in) << err;
  zone_reader zr(*in);
  EXPECT_TRUE(zr.set_origin(origin, err)) << err;
  dns_parser dns;
  std::vector<std::string> out;
  for (;;) {
    ldns_rr* rr = nullptr;
    uint64_t line = 0;
    const auto r = zr.next(rr, line, err);
    if (r == zone_reader::END) break;
    if (r == zone_reader::BAD) {
      std::string bad = "!";  // appended: gcc 12 warns falsely on "literal" + string
      out.push_back(bad.append(std::to_string(line)).append(": ").append(err));
      continue;
    }
    std::string owner;
    std::vector<uint8_t> wire;
    const uint16_t type = dns.take_rr(rr, owner, wire);
    out.push_back(owner + " " + rrtype_name(type) + " " + dns.rdata_text());
  }
  return out;
}

// Directives, relative names and layout; a bad record carries its line and the rest goes on.
TEST(IxbakeZone, RecordsAndErrorsInOrder) {
  temp_dir dir;
  const std::vector<std::string> want = {
      "example.com SOA ns1.example.com hostmaster.example.com 1 7200 3600 1209600 300",
      "example.com NS ns1.example.com",
      "www.example.com A 192.0.2.1",
      "example.com MX 10 mail.example.com",
      "mail.sub.example.com A 192.0.2.2",
      "mail.sub.example.com AAAA 2001:db8::2",
      "abs.example.org TXT \"semi ; colon\" \"(paren)\"",
      "!15: record does not parse: Syntax error, could not parse the RR's rdata",
      "!16: the directive $INCLUDE is not supported",
      "!17: a closing parenthesis without an opening one",
      "!18: $ORIGIN needs a domain name",
      "d.example A 192.0.2.4",
      "!20: parenthesis not closed before the end of the input",
  };
  EXPECT_EQ(read_zone(dir,
                      "; header comment\n"
                      "$TTL 1h\n"
                      "@\tIN SOA ns1 hostmaster (\n"
                      "\t\t1 ; serial\n"
                      "\n"
                      "\t\t7200 3600 1209600 300 )\n"
                      "\tIN NS ns1\n"
                      "WWW 60 IN A 192.0.2.1 ; trailing comment\n"
                      "@ MX 10 mail\n"
                      "$ORIGIN sub\n"
                      "mail A 192.0.2.2\r\n"
                      "     AAAA 2001:db8::2\n"
                      "abs.example.org. TXT \"semi ; colon\" \"(paren)\"\n"
                      "\n"
                      "b.example. A 999.0.0.1\n"
                      "$INCLUDE other.zone\n"
                      "c.example. A 192.0.2.3 )\n"
                      "$ORIGIN\n"
                      "d.example. A 192.0.2.4\n"
                      "e.example. TXT ( \"open\"\n",
                      "Example.COM"),
            want);
  EXPECT_EQ(read_zone(dir, "  IN A 192.0.2.9\n"),
            std::vector<std::string>{"!1: the record has no owner name and none came before it"});
  // Class and time to live come in either order; a type the DNS library
  // would read as another (or as none) is refused.
  EXPECT_EQ(read_zone(dir,
                      "a.example. IN 300 A 192.0.2.1\n"
                      "b.example. 300 IN A 192.0.2.2\n"
                      "c.example. IN FOO\n"
                      "d.example. TYPE65537 \\# 4 c0000201\n"
                      "e.example. CH TYPE65534 \\# 1 01\n"
                      "f.example. IN 60\n"),
            (std::vector<std::string>{"a.example A 192.0.2.1", "b.example A 192.0.2.2",
                                      "!3: unknown record type \"FOO\"", "!4: unknown record type \"TYPE65537\"",
                                      "e.example TYPE65534 \\# 1 01", "!6: the record has no type"}));
}

TEST(IxbakeSetFile, CreatesAppendsAndSkipsListedFiles) {
  temp_dir dir;
  const std::string set = dir.file("all.set");
  const std::string a = dir.write("a.tgdb", "x"), b = dir.write("b.tgdb", "x");
  temp_dir other;
  const std::string c = other.write("c.tgdb", "x");
  std::string err;
  ASSERT_TRUE(add_to_set_file(set, {a}, err)) << err;
  EXPECT_EQ(read_file(set), "a.tgdb\n");  // beside the set file: relative
  ASSERT_TRUE(add_to_set_file(set, {a, b, c}, err)) << err;
  EXPECT_EQ(read_file(set), "a.tgdb\nb.tgdb\n" + c + "\n");
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
}

TEST(IxbakeSort, SplittingTheSortOverThreadsChangesNothing) {
  std::mt19937_64 rng(3);
  std::vector<std::string> rr, rd;
  for (int i = 0; i < 1000; ++i) {
    std::string name = "h";  // appended: gcc 12 warns falsely on "literal" + string
    name += std::to_string(rng() % 5000) + ".z" + std::to_string(rng() % 30) + ".example";
    rr.push_back(name + "\t4:1:1");
    std::vector<uint8_t> wire(1 + rng() % 6);
    for (auto& b : wire) b = uint8_t(rng() % 4);  // short and alike: prefixes of each other
    rd.push_back(rdata_line(name, wire, search_entry{uint16_t(1 + rng() % 3), 1, 1, 1}));
  }
  for (bool rdata : {false, true}) {
    const auto cmp = rdata ? compare_rdata_lines : compare_rrname_lines;
    std::vector<std::string_view> want((rdata ? rd : rr).begin(), (rdata ? rd : rr).end());
    std::sort(want.begin(), want.end(), [&](auto a, auto b) { return cmp(a, b) < 0; });
    want.erase(std::unique(want.begin(), want.end(), [&](auto a, auto b) { return cmp(a, b) == 0; }), want.end());
    std::vector<std::string_view> distinct = want;
    std::shuffle(distinct.begin(), distinct.end(), rng);
    for (unsigned parts : {1u, 2u, 3u, 7u}) {
      std::vector<std::string_view> got = distinct;
      sort_record_lines(got, rdata, parts);
      EXPECT_EQ(got, want) << "parts " << parts << (rdata ? " rdata" : " rrname");
    }
  }
}

}  // namespace
