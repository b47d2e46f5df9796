// Record lines of byname and byvalue files: format, parsing, order, merging.
#include "tgdb/linked_line.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "tests/support/property.h"
#include "tests/support/strict_weak.h"
#include "tgdb/kind_lines.h"
#include "tgdb/record_line.h"

namespace {

constexpr tgdb_kind byname = tgdb_kind::byname, byvalue = tgdb_kind::byvalue;
constexpr int64_t jan = 1577872800, mar = 1583060400;  // 2020-01-01 10:00:00, 2020-03-01 11:00:00 UTC

int sign(int v) { return (v > 0) - (v < 0); }

std::string shown(const search_entry& e) { return rrname_line("k", {&e, 1}); }

void expect_record(const std::optional<linked_record>& got, const linked_record& want, const std::string& label) {
  ASSERT_TRUE(got) << label;
  EXPECT_EQ(std::tuple(got->owner, got->rdata, shown(got->entry)), std::tuple(want.owner, want.rdata, shown(want.entry)))
      << label;
}

TEST(linked_line, formats_both_kinds_and_reads_back_any_value_text) {
  const std::string long_txt = "\"" + std::string(70000, 'x') + "\"";
  const std::tuple<linked_record, std::string, std::string> cases[] = {
      // record, byname line, byvalue line
      {{"login.example.com", "192.0.2.7", {1, 12, jan, mar}},
       "login.example.com\t4:5e0c6da0,4f2810:c\t192.0.2.7",
       "192.0.2.7\t4:5e0c6da0,4f2810:c\tlogin.example.com"},
      {{"example.com", "\"v=spf1 -all\" \"a\\\"b\"", {16, 1, jan, jan}},
       "example.com\tt:5e0c6da0:1\t\"v=spf1 -all\" \"a\\\"b\"",
       "\"v=spf1 -all\" \"a\\\"b\"\tt:5e0c6da0:1\texample.com"},
      // The other side is the rest of the line: a tab in it stays.
      {{"a\\032b.example", "x\ty  z", {4, 2, 0, 0}}, "a\\032b.example\t04:0:2\tx\ty  z", ""},
      {{"mx.test", "10 mail.test", {65535, 1, 5, 6}}, "mx.test\t65535:5,1:1\t10 mail.test",
       "10 mail.test\t65535:5,1:1\tmx.test"},
      // A count past 32 bits is written as the largest.
      {{"big.test", "1.2.3.4", {1, uint64_t{1} << 40, 1, 1}}, "big.test\t4:1:ffffffff\t1.2.3.4",
       "1.2.3.4\t4:1:ffffffff\tbig.test"},
      {{"txt.test", long_txt, {16, 3, 7, 7}}, "txt.test\tt:7:3\t" + long_txt, long_txt + "\tt:7:3\ttxt.test"},
  };
  for (const auto& [record, name_line, value_line] : cases) {
    linked_record want = record;
    want.entry.count = std::min<uint64_t>(want.entry.count, UINT32_MAX);
    for (const auto& [kind, line] : {std::pair{byname, name_line}, {byvalue, value_line}}) {
      if (line.empty()) continue;  // a key cannot hold a tab
      EXPECT_EQ(linked_line(kind, record), line);
      expect_record(parse_linked_line(kind, line), want, line.substr(0, 60));
      EXPECT_EQ(kind_line_entries(kind, line).size(), 1u);
    }
  }
  std::mt19937_64 rng(3);
  for (size_t round = 0; round < 100 * property_count(10); ++round) {
    std::string owner, rdata;
    for (size_t n = 1 + rng() % 40; n--;) owner += char(' ' + 1 + rng() % 94);
    for (size_t n = 1 + rng() % 200; n--;) rdata += char(rng() % 8 ? ' ' + rng() % 95 : '\t');
    const auto first = int64_t(rng() % (uint64_t{1} << 32));
    const linked_record r{owner, rdata, {uint16_t(1 + rng() % 65535), rng() % (uint64_t{1} << 32), first,
                                         first + int64_t(rng() % ((uint64_t{1} << 32) - uint64_t(first)))}};
    expect_record(parse_linked_line(byname, linked_line(byname, r)), r, owner);
    if (rdata.find('\t') == std::string::npos) expect_record(parse_linked_line(byvalue, linked_line(byvalue, r)), r, owner);
  }
}

TEST(linked_line, malformed_lines_are_refused_and_merge_nothing) {
  const char* bad[] = {
      "", "a", "a\t4:1:1", "a\t4:1:1\t", "\t4:1:1\tx", "a\tq:1:1\tx", "a\t4\tx", "a\t4:1\tx", "a\t4:1:1:1\tx",
      "a\t4:1:1 \tx", "a\t 4:1:1\tx", "a\t4::1\tx", "a\t4:1:\tx", "a\t4:x:1\tx",
      // times and counts are 32-bit, last-seen included
      "a\t4:100000000:1\tx", "a\t4:1,ffffffff:1\tx", "a\t4:1:100000000\tx",
      // lines of the other kinds
      "a\t1/00 4:1:1", "a\t4:1:1 n:1:1", "a\t1/00 4:1:1\tx"};
  for (const char* line : bad) {
    for (tgdb_kind kind : {byname, byvalue}) {
      EXPECT_FALSE(parse_linked_line(kind, line)) << line;
      EXPECT_TRUE(kind_line_entries(kind, line).empty()) << line;
    }
    std::unique_ptr<search_result> slot;
    merge_linked(slot, line);
    EXPECT_FALSE(slot) << line;
  }
  EXPECT_FALSE(parse_linked_line(tgdb_kind::rrname, "a\t4:1:1\tx"));
}

TEST(linked_line, merging_sums_counts_saturating_and_widens_times) {
  // lines of one record, then its count, first and last seen
  const std::tuple<std::vector<std::string>, uint64_t, int64_t, int64_t> cases[] = {
      {{"a.test\t4:100,10:2\t1.2.3.4", "a.test\t4:90,5:1\t1.2.3.4", "a.test\t01:200:3\t1.2.3.4"}, 6, 0x90, 0x200},
      // A line that does not parse adds nothing, first or later.
      {{"a.test\t4:zz:1\t1.2.3.4", "a.test\t4:5:1\t1.2.3.4", "a.test\t4:1:\t1.2.3.4"}, 1, 5, 5},
      // Sums are wider than the lines' 32 bits.
      {{"a.test\t4:1:ffffffff\tx y", "a.test\t4:1:ffffffff\tx y"}, 0x1fffffffe, 1, 1},
  };
  for (const auto& [lines, count, first, last] : cases) {
    std::unique_ptr<search_result> slot;
    for (const auto& line : lines) merge_linked(slot, line);
    ASSERT_TRUE(slot);
    ASSERT_EQ(slot->entries.size(), 1u);
    const search_entry& e = slot->entries.front();
    EXPECT_EQ(std::tuple(slot->name, slot->other, e.rrtype, e.count, e.time_first, e.time_last),
              std::tuple(std::string("a.test"), lines[0].substr(lines[0].rfind('\t') + 1), 1, count, first, last));
  }
  auto slot = std::make_unique<search_result>();
  slot->entries = {{1, UINT64_MAX - 1, 5, 5}};
  merge_linked(slot, "k\t4:1:5\tv");
  EXPECT_EQ(slot->entries.front().count, UINT64_MAX);
}

// The group of a line as the orders define it: key, type number (0 for a
// bad code), whether it has an other side, and that side.
std::string record_of(const std::string& line) {
  const size_t tab = line.find('\t');
  if (tab == std::string::npos) return line + "|0|-";
  const size_t tab2 = line.find('\t', tab + 1);
  const std::string item = line.substr(tab + 1, tab2 == std::string::npos ? std::string::npos : tab2 - tab - 1);
  return line.substr(0, tab) + "|" + std::to_string(parse_rrtype_code(item)) + "|" +
         (tab2 == std::string::npos ? "-" : "+" + line.substr(tab2 + 1));
}

// Random lines of one kind: few names and values so that keys repeat, items
// with any times and counts, now and then a malformed line.
std::string random_line(std::mt19937_64& rng, tgdb_kind kind) {
  const char* names[] = {"a", "b.a", "a.b", "x.a.b", "ab", "\\032.a", "a-b.a", ""};
  const char* values[] = {"1.2.3.4", "1.2.3.40", "10 a.b", "\"x y\"", "\"x\ty\"", "a.b", ""};
  const char* items[] = {"4:1:1", "4:5,5:2", "04:9:1", "n:1:1", "65:2:3", "300:1:1", "q:1:1", "4"};
  std::string owner = names[rng() % 8], value = values[rng() % 7];
  if (kind == byvalue && value.find('\t') != std::string::npos) value = "tab";
  std::string line = (kind == byname ? owner : value) + "\t" + items[rng() % 8];
  if (rng() % 10) line += "\t" + (kind == byname ? value : owner);
  return rng() % 20 ? line : line.substr(0, rng() % (line.size() + 1));
}

TEST(linked_line, orders_by_key_then_type_then_the_other_side) {
  const auto expect_orders = [](line_order cmp, std::initializer_list<std::tuple<const char*, const char*, int>> cases) {
    for (const auto& [a, b, want] : cases) {
      EXPECT_EQ(sign(cmp(a, b)), want) << a << " | " << b;
      EXPECT_EQ(sign(cmp(b, a)), -want) << a << " | " << b;
    }
  };
  expect_orders(compare_byname_lines,
                {{"b.a\t4:1:1\tz", "a.b\t4:1:1\ta", -1},      // names from the right
                 {"a.b\tn:1:1\ta", "a.b\t4:1:1\tz", 1},       // NS (2) after A (1)
                 {"a.b\t4:1:1\t1.2.3.40", "a.b\t4:1:1\t1.2.3.5", -1},
                 {"a.b\t4:1:1\tx", "a.b\t04:f:9\tx", -1},     // A (1) before type 4
                 {"a.b\t4:1:1\tx", "a.b\t01:ff,1:9\tx", 0},   // same record, other counts and times
                 {"a.b\t4:1:1", "a.b\t4:1:1\tx", -1},         // no other side first
                 {"a.b\tq:1:1\tx", "a.b\t4:1:1\tx", -1}});    // a bad type first
  expect_orders(compare_byvalue_lines,
                {{"1.2.3.40\t4:1:1\ta", "1.2.3.5\t4:1:1\ta", -1},  // values bytewise
                 {"x\t4:1:1\tb.a", "x\t4:1:1\ta.b", -1},           // then owner names from the right
                 {"x\tt:1:1\ta", "x\t4:1:1\tb", 1},
                 {"x\t4:1:1\ta.b", "x\t4:2:2\ta.b", 0}});
  for (tgdb_kind kind : {byname, byvalue})
    expect_strict_weak(
        kind_line_order(kind), [kind](std::mt19937_64& rng) { return random_line(rng, kind); }, record_of);
}

}  // namespace
