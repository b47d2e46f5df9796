#include "tgdb/record_line.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <tuple>

#include "log/log.h"
#include "tests/support/property.h"
#include "tests/support/strict_weak.h"

namespace {

using order = line_compare;

// Parsed entries shown as the line they format to (the formatter is pinned below).
std::string shown(const std::vector<search_entry>& entries) { return rrname_line("k", entries); }

int sign(int v) { return (v > 0) - (v < 0); }

TEST(record_line, parses_type_codes) {
  const std::pair<const char*, uint16_t> cases[] = {
      {"4", 1}, {"0:", 10}, {"S:1", 99}, {"257:1", 257}, {"7:", 7},        {"0000044:", 44}, {"257", 0},
      {"q", 0}, {"q:", 0},  {"7", 0},    {"65536:", 0},  {"12345678:", 0}, {"4x:", 0},
  };
  for (const auto& [text, type] : cases) EXPECT_EQ(parse_rrtype_code(text), type) << text;
  for (uint32_t t = 1; t <= 65535; ++t) {  // every code reads back: type 4 must not come out as "4" (A)
    std::string code;
    append_rrtype_code(code, static_cast<uint16_t>(t));
    ASSERT_EQ(parse_rrtype_code(code + ":"), t) << code;
  }
}

TEST(record_line, parses_values) {
  EXPECT_EQ(shown(parse_rrname_value(" m 257:A:1 n:5f000000,3c:2\nq")), "k\tm:0:0 257:a:1 n:5f000000,3c:2");
  EXPECT_EQ(shown(parse_rrname_value("t:ffffffff:ffffffff 4:1,fffffffe:1")), "k\tt:ffffffff:ffffffff 4:1,fffffffe:1");
  for (const char* bad : {"257", "q", "4:1 ", "4:1  6:2", "4:x:1", "4:1:1:1", "4::1", "4:8000000000000000",
                          "4:1,7fffffffffffffff", "4:1:10000000000000000",
                          // times and counts are 32-bit; last-seen is first-seen plus the delta
                          "t:100000000,5:1", "4:1,ffffffff:1", "4:1:100000000", "4 n:1:100000000"})
    EXPECT_TRUE(parse_rrname_value(bad).empty()) << bad;

  auto v = parse_rdata_value(" 4/0A000001 4:5e0c6d80,10:3\n");
  ASSERT_TRUE(v && v->wire_form == "4/0A000001" && parse_rdata_value("257:1:2\tmore"));
  EXPECT_EQ(shown({v->entry}), "k\t4:5e0c6d80,10:3");
  EXPECT_EQ(decode_rdata(v->wire_form), (std::vector<uint8_t>{0x0a, 0, 0, 1}));
  for (const char* bad : {"2/0a0 4:1:2", "2/0a00  4:1:2", "0/ 4:1:2", "2/0g00 4:1:2", "4:1", "4:1\n:1", "x/0 4:1:1",
                          "1/00 4:100000000:1", "1/00 4:ffffffff,1:1", "1/00 4:1:100000000"})
    EXPECT_FALSE(parse_rdata_value(bad)) << bad;
  for (const char* bad : {"4/0a00", "4:1:1", "1/zz", "123456789012345/00"})
    EXPECT_TRUE(decode_rdata(bad).empty());

  log_set_level(LOG_ERROR);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parse_rdata_value("4:1:2 "));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: multi-space lines not supported.\n");
}

TEST(record_line, formats_lines_that_parse_back) {
  const std::vector<search_entry> ns_a{{2, 2, 0x5f000000, 0x5f00003c}, {1, 1, 0x5f000010, 0x5f000010}, {15}};
  EXPECT_EQ(rrname_line("example", ns_a), "example\tn:5f000000,3c:2 4:5f000010:1 m:0:0");
  EXPECT_EQ(rdata_line("1.0.0.10", std::vector<uint8_t>{1, 0, 0, 10}, {300, 16, 5, 5}),
            "1.0.0.10\t4/0100000a 300:5:10");
  // Lines hold 32-bit counts: a wider one is written as the largest.
  const search_entry wide{1, uint64_t{1} << 40, 1, 1};
  EXPECT_EQ(rrname_line("k", {&wide, 1}), "k\t4:1:ffffffff");
  EXPECT_EQ(rdata_line("k", std::vector<uint8_t>{1}, wide), "k\t1/01 4:1:ffffffff");
  std::mt19937_64 rng(17);
  for (size_t round = 0; round < 100 * property_count(10); ++round) {
    std::vector<search_entry> entries(1 + rng() % 4);
    std::vector<uint8_t> bytes(1 + rng() % 300);
    for (auto& b : bytes) b = static_cast<uint8_t>(rng());
    for (auto& e : entries) {
      e = {static_cast<uint16_t>(1 + rng() % (rng() % 2 ? 65535 : 100)), rng() >> (32 + rng() % 32),
           static_cast<int64_t>(rng() >> (32 + rng() % 32)), 0};
      e.time_first = std::min<int64_t>(e.time_first, UINT32_MAX - 100000);
      e.time_last = e.time_first + (rng() % 3 ? static_cast<int64_t>(rng() % 100000) : 0);
    }
    const std::string names = rrname_line("k", entries), data = rdata_line("k", bytes, entries[0]);
    ASSERT_EQ(shown(parse_rrname_value(names.substr(2))), names);
    auto v = parse_rdata_value(std::string_view(data).substr(2));
    ASSERT_TRUE(v) << data;
    ASSERT_EQ(rdata_line("k", decode_rdata(v->wire_form), v->entry), data);
  }
}

void expect_orders(const order& cmp, std::initializer_list<std::tuple<const char*, const char*, int>> cases) {
  for (const auto& [a, b, want] : cases) {
    EXPECT_EQ(sign(cmp(a, b)), want) << a << " | " << b;
    EXPECT_EQ(sign(cmp(b, a)), -want) << a << " | " << b;
  }
}

TEST(record_line, orders_owner_names_by_labels) {
  expect_orders(compare_rrname_lines,
                {{"example", "sub.example", -1}, {"a.example", "b.example", -1}, {"b.a", "a.b", -1},
                 {"a.b.example", "zz.example", -1}, {"z.x", "aa.x", -1}, {"", "a", -1}, {"a\t4:1", "a\tn:2", 0}, {"a.b", "a.b x", -1},
                 {"a.b x", "a.b y", -1}});
  expect_strict_weak(
      compare_rrname_lines,
      [](std::mt19937_64& rng) {
        const char* labels[] = {"", "a", "b", "ab", "ba", "zz", "\\032", "-"};
        std::string name = labels[rng() % 8];
        for (size_t l = rng() % 4; l > 0; --l) name = labels[rng() % 8] + ("." + name);
        return name + (rng() % 8 ? "" : rng() % 2 ? " x" : " ") + (rng() % 2 ? "\t4:1:1" : "");
      },
      [](const std::string& line) { return line.substr(0, line.find('\t')); });
}

TEST(record_line, orders_rdata_as_if_the_type_followed_the_bytes) {
  expect_orders(compare_rdata_lines,
                {{"x\t4/0a000001 4:1:1", "y\t4/0A000001 4:2:2", 0},
                 {"x\t4/0a000001 4:1:1", "x\t4/0a000001 0:1:1", -1},  // type 1 before type 10
                 {"a\t4/0a000001 4:1:1", "a\t4/0a000002 4:1:1", -1},
                 {"a\t1/05 4:1:1", "b\t2/0500 4:1:1", 1},   // next byte below the type: the longer line first
                 {"a\t1/05 4:1:1", "b\t2/0502 4:1:1", -1},  // next byte above the type: the longer line last
                 {"a\t1/05 4:1:1", "b\t2/0501 4:1:1", -1},  // a tie: the shorter line first
                 {"a\t1/05 257:1:1", "b\t2/05ff 4:1:1", 1}, {"a\tjunk", "b\t1/00 4:1:1", -1},
                 {"a\t123456/00 4:1:1", "b\t1/00 4:1:1", -1}, {"a\t0/ 4:1:1", "b\tjunk", -1},
                 {"", "a\t1/00 4:1:1", -1}});
  log_set_level(LOG_ERROR);
  testing::internal::CaptureStderr();
  EXPECT_EQ(compare_rdata_lines("a\t1/05 4:1:1", "b\t1/05 q:1:1"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: extended comparison of equal rdata values failed on parse error [2]\n");
  EXPECT_EXIT(compare_rdata_lines("a\t1/00 4:1:1", "b"), testing::ExitedWithCode(1),
              "Warning: unexpected error parsing rdata contents \\[2\\]\\.");

  expect_strict_weak(
      compare_rdata_lines,
      [](std::mt19937_64& rng) {
        const uint16_t types[] = {1, 2, 255, 256, 257, 65535};
        const uint8_t bytes[] = {0, 1, 2, 255};
        std::vector<uint8_t> wire(rng() % 16 ? 1 + rng() % 3 : 1 + rng() % 65535);
        for (auto& b : wire) b = rng() % 2 ? bytes[rng() % 4] : static_cast<uint8_t>(rng());
        const uint16_t type = rng() % 2 ? types[rng() % 6] : static_cast<uint16_t>(1 + rng() % 65535);
        std::string line = rdata_line(std::to_string(rng() % 100), wire, {type, 1, 1, 1});
        for (size_t c = 0, end = rng() % 2 ? line.find(' ') : 0; c < end; ++c)  // hexadecimal in either case
          line[c] = static_cast<char>(toupper(line[c]));
        return line;
      },
      [](const std::string& line) {  // ties: the same bytes and type
        std::string value = line.substr(line.find('\t'));
        for (size_t c = 0, end = value.find(' '); c < end; ++c) value[c] = static_cast<char>(tolower(value[c]));
        return value;
      });
}

}  // namespace
