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
