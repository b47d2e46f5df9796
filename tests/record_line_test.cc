#include "tgdb/record_line.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <tuple>

#include "log/log.h"

namespace {

using fields = std::tuple<uint16_t, uint64_t, int64_t, int64_t>;  // type, count, first, last

std::vector<fields> as_fields(const std::vector<search_entry>& entries) {
  std::vector<fields> out;
  for (const auto& e : entries) out.emplace_back(e.rrtype, e.count, e.time_first, e.time_last);
  return out;
}

int sign(int v) { return (v > 0) - (v < 0); }

int property_rounds() {
  const char* env = getenv("VORN_PROPERTY_COUNT");
  return env ? atoi(env) : 10;
}

TEST(record_line, parses_type_codes) {
  const std::pair<const char*, uint16_t> cases[] = {
      {"4", 1},   {"0:", 10}, {"S:1", 99},  {"257:1", 257}, {"7:", 7},          {"44:", 44},
      {"257", 0}, {"q", 0},   {"q:", 0},    {"7", 0},       {"65536:", 0},      {"12345678:", 0},
      {"", 0},    {"4x:", 0}, {"0000001:", 1}, {":", 0},
  };
  for (const auto& [text, type] : cases) EXPECT_EQ(parse_rrtype_code(text), type) << text;
  std::string four;
  append_rrtype_code(four, 4);
  EXPECT_EQ(four, "04");  // "4" is A
  for (uint32_t t = 1; t <= 65535; ++t) {
    std::string code;
    append_rrtype_code(code, static_cast<uint16_t>(t));
    ASSERT_EQ(parse_rrtype_code(code + ":"), t) << code;
    if (t > 9 && code.size() > 1) ASSERT_NE(code[0], '0') << code;
  }
}

TEST(record_line, parses_rrname_values) {
  const std::pair<const char*, std::vector<fields>> cases[] = {
      {"n:5f000000,3c:2 4:5f000010:1", {{2, 2, 0x5f000000, 0x5f00003c}, {1, 1, 0x5f000010, 0x5f000010}}},
      {"m", {{15, 0, 0, 0}}},
      {" 257:A:1\nq", {{257, 1, 10, 10}}},
      {"4:7fffffffffffffff:ffffffffffffffff", {{1, UINT64_MAX, INT64_MAX, INT64_MAX}}},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(as_fields(parse_rrname_value(text)), want) << text;
  for (const char* bad : {"257", "q", "4:1 ", "4:1  6:2", "4:xyz:1", "4:1:1:1", "4::1", "4:1:", "",
                          "4:8000000000000000", "4:1,7fffffffffffffff", "4:1:10000000000000000"})
    EXPECT_TRUE(parse_rrname_value(bad).empty()) << bad;
}

TEST(record_line, parses_and_decodes_rdata_values) {
  auto v = parse_rdata_value("4/0A000001 4:5e0c6d80,10:3\n");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->wire_form, "4/0A000001");
  EXPECT_EQ(as_fields({v->entry}), std::vector<fields>({{1, 3, 0x5e0c6d80, 0x5e0c6d90}}));
  v = parse_rdata_value("  257:1:2\tmore");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->wire_form, "");
  EXPECT_EQ(as_fields({v->entry}), std::vector<fields>({{257, 2, 1, 1}}));
  for (const char* bad : {"2/0a0 4:1:2", "2/0a00  4:1:2", "2/0a004:1:2", "0/ 4:1:2", "2/0g00 4:1:2", "4:1",
                          "4:1:", "q:1:1", "4:1\n:1", "x/00 4:1:1", "4:100000000000000000:1"})
    EXPECT_FALSE(parse_rdata_value(bad)) << bad;

  log_set_level(LOG_ERROR);
  for (const char* spaced : {"4:1:2 ", "4:1: 2"}) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse_rdata_value(spaced));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: multi-space lines not supported.\n");
  }

  EXPECT_EQ(decode_rdata("4/0a0000FF 4:1:1"), std::vector<uint8_t>({0x0a, 0, 0, 0xff}));
  EXPECT_EQ(decode_rdata(" 1/ff"), std::vector<uint8_t>({0xff}));
  for (const char* bad : {"4/0a00", "0/", "4:1:1", "1/zz", "1/f", "123456789012345/00"})
    EXPECT_TRUE(decode_rdata(bad).empty()) << bad;
}

TEST(record_line, formats_lines_that_parse_back) {
  const search_entry ns{2, 2, 0x5f000000, 0x5f00003c}, a{1, 1, 0x5f000010, 0x5f000010};
  const std::vector<search_entry> both{ns, a};
  EXPECT_EQ(rrname_line("example", both), "example\tn:5f000000,3c:2 4:5f000010:1");
  const std::vector<uint8_t> wire{10, 0, 0, 1};
  EXPECT_EQ(rdata_line("10.0.0.1", wire, {300, 16, 5, 5}), "10.0.0.1\t4/0a000001 300:5:10");

  std::mt19937_64 rng(17);
  const uint16_t types[] = {1, 10, 99, 100, 257, 65535};
  for (int round = 0; round < 100 * property_rounds(); ++round) {
    std::vector<search_entry> entries(1 + rng() % 4);
    for (auto& e : entries) {
      e.rrtype = rng() % 2 ? types[rng() % 6] : static_cast<uint16_t>(1 + rng() % 65535);
      e.count = rng() >> (rng() % 64);
      e.time_first = static_cast<int64_t>(rng() >> (1 + rng() % 63));
      e.time_last = e.time_first + (rng() % 3 ? static_cast<int64_t>(rng() % 100000) : 0);
    }
    std::string line = rrname_line("k", entries);
    ASSERT_EQ(as_fields(parse_rrname_value(line.substr(2))), as_fields(entries)) << line;
    std::vector<uint8_t> bytes(1 + rng() % 300);
    for (auto& b : bytes) b = static_cast<uint8_t>(rng());
    line = rdata_line("k", bytes, entries[0]);
    auto v = parse_rdata_value(std::string_view(line).substr(2));
    ASSERT_TRUE(v) << line;
    EXPECT_EQ(as_fields({v->entry}), as_fields({entries[0]}));
    EXPECT_EQ(decode_rdata(v->wire_form), bytes);
  }
}

// Checks on every pair and triple that `cmp` is a strict weak order whose
// ties are exactly the lines with equal `group`.
void expect_strict_weak(const std::vector<std::string>& lines, const std::function<int(std::string_view, std::string_view)>& cmp,
                        const std::function<std::string(const std::string&)>& group) {
  const size_t n = lines.size();
  std::vector<int> c(n * n);
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < n; ++j) c[i * n + j] = sign(cmp(lines[i], lines[j]));
  for (size_t i = 0; i < n; ++i)
    for (size_t j = 0; j < n; ++j) {
      ASSERT_EQ(c[i * n + j], -c[j * n + i]) << lines[i] << " | " << lines[j];
      ASSERT_EQ(c[i * n + j] == 0, group(lines[i]) == group(lines[j])) << lines[i] << " | " << lines[j];
      for (size_t k = 0; k < n; ++k) {
        if (c[i * n + j] > 0 || c[j * n + k] > 0) continue;
        ASSERT_LE(c[i * n + k], 0) << lines[i] << " | " << lines[j] << " | " << lines[k];
        ASSERT_EQ(c[i * n + k] == 0, c[i * n + j] == 0 && c[j * n + k] == 0);
      }
    }
}

TEST(record_line, orders_owner_names_by_labels) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"example", "sub.example", -1}, {"a.example", "b.example", -1}, {"a.b.example", "zz.example", -1},
      {"", "a", -1},                  {".", "a", -1},                 {"a\t4:1", "a\tn:2", 0},
      {"a.b", "a.b x", -1},           {"a.b x", "a.b y", -1},         {"b.a", "a.b", -1},
  };
  for (const auto& [a, b, want] : cases) {
    EXPECT_EQ(sign(compare_rrname_lines(a, b)), want) << a << " | " << b;
    EXPECT_EQ(sign(compare_rrname_lines(b, a)), -want) << a << " | " << b;
  }
  std::mt19937_64 rng(5);
  const char* labels[] = {"", "a", "b", "ab", "ba", "zz", "\\032", "-"};
  for (int round = 0; round < property_rounds(); ++round) {
    std::vector<std::string> lines;
    for (int i = 0; i < 60; ++i) {
      std::string name = labels[rng() % 8];
      for (size_t l = rng() % 4; l > 0; --l) name = std::string(labels[rng() % 8]) + "." + name;
      if (rng() % 8 == 0) name += rng() % 2 ? " x" : " ";
      lines.push_back(name + (rng() % 2 ? "\t4:1:1" : ""));
    }
    expect_strict_weak(lines, compare_rrname_lines, [](const std::string& l) { return l.substr(0, l.find('\t')); });
  }
}

TEST(record_line, orders_rdata_as_if_the_type_followed_the_bytes) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"x\t4/0a000001 4:1:1", "y\t4/0A000001 4:2:2", 0},
      {"x\t4/0a000001 4:1:1", "x\t4/0a000001 0:1:1", -1},
      {"a\t4/0a000001 4:1:1", "a\t4/0a000002 4:1:1", -1},
      {"a\t1/05 4:1:1", "b\t2/0500 4:1:1", 1},      // next byte 0 below type 1: the longer line first
      {"a\t1/05 4:1:1", "b\t2/0502 4:1:1", -1},     // next byte 2 above type 1
      {"a\t1/05 4:1:1", "b\t2/0501 4:1:1", -1},     // a tie: the shorter line first
      {"a\t1/05 257:1:1", "b\t2/05ff 4:1:1", 1},
      {"a\tjunk", "b\t1/00 4:1:1", -1},
      {"a\t123456/00 4:1:1", "b\t1/00 4:1:1", -1},
      {"a\t0/ 4:1:1", "b\tjunk", -1},
      {"", "a\t1/00 4:1:1", -1},
  };
  for (const auto& [a, b, want] : cases) {
    EXPECT_EQ(sign(compare_rdata_lines(a, b)), want) << a << " | " << b;
    EXPECT_EQ(sign(compare_rdata_lines(b, a)), -want) << a << " | " << b;
  }
  log_set_level(LOG_ERROR);
  testing::internal::CaptureStderr();
  EXPECT_EQ(compare_rdata_lines("a\t1/05 4:1:1", "b\t1/05 q:1:1"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Warning: extended comparison of equal rdata values failed on parse error [2]\n");
  EXPECT_EXIT(compare_rdata_lines("a\t1/00 4:1:1", "b"), testing::ExitedWithCode(1),
              "Warning: unexpected error parsing rdata contents \\[2\\]\\.");

  std::mt19937_64 rng(9);
  const uint16_t types[] = {1, 2, 255, 256, 257, 65535};
  const uint8_t bytes[] = {0, 1, 2, 255};
  for (int round = 0; round < property_rounds(); ++round) {
    std::vector<std::string> lines;
    for (int i = 0; i < 60; ++i) {
      const size_t len = rng() % 16 ? 1 + rng() % 3 : 1 + rng() % 65535;
      std::vector<uint8_t> wire(len);
      for (auto& b : wire) b = rng() % 2 ? bytes[rng() % 4] : static_cast<uint8_t>(rng());
      const uint16_t type = rng() % 2 ? types[rng() % 6] : static_cast<uint16_t>(1 + rng() % 65535);
      std::string line = rdata_line(std::to_string(i), wire, {type, 1, 1, 1});
      if (rng() % 2) {  // the hexadecimal digits in either case
        const size_t hex = line.find('/') + 1;
        for (size_t c = hex; c < hex + 2 * len; ++c) line[c] = static_cast<char>(toupper(line[c]));
      }
      lines.push_back(line);
    }
    // Ties are the lines with the same bytes and type.
    expect_strict_weak(lines, compare_rdata_lines, [](const std::string& l) {
      auto v = parse_rdata_value(std::string_view(l).substr(l.find('\t') + 1));
      std::string key(v->wire_form);
      for (auto& ch : key) ch = static_cast<char>(tolower(ch));
      return key + " " + std::to_string(v->entry.rrtype);
    });
  }
}

}  // namespace
