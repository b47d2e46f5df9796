// Posting list decoding and seeking, the tracker tree built from a query,
// and the candidate sources.
#include "tgdb/tgdb_iter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/property.h"
#include "tests/support/temp_dir.h"
#include "tgdb/deadline.h"
#include "tgdb/tgdb_writer.h"

namespace {

std::vector<uint8_t> to_bytes(const std::vector<uint64_t>& refs) {
  std::vector<uint8_t> out;
  for (uint64_t v : refs)
    for (int shift = 32; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
  return out;
}

// Everything a tracker over `bytes` yields; empty when the first entry fails.
std::vector<uint64_t> walk(const std::vector<uint8_t>& bytes, search_context& ctx) {
  tracker t(bytes, ctx, 0);
  std::vector<uint64_t> out;
  if (bytes.empty() || !t.load()) return out;
  for (uint64_t v; n_iter_next(t, v);) out.push_back(v);
  return out;
}

// Ascending lists in three shapes: sparse, dense, and runs with gaps.
std::vector<uint64_t> random_list(std::mt19937_64& rng, int shape) {
  std::vector<uint64_t> out;
  uint64_t v = rng() % 1000 + (shape == 0 && rng() % 4 == 0 ? (uint64_t{1} << 36) : 0);
  for (size_t n = rng() % 400; n--;) {
    out.push_back(v);
    v += shape == 0 ? 1 + rng() % (rng() % 2 ? 300 : 100000) : shape == 1 ? 1 + rng() % 4 : rng() % 3 ? 1 : 2 + rng() % 70000;
  }
  return out;
}

TEST(tgdb_iter, encoded_lists_walk_and_seek_like_lower_bound) {
  std::mt19937_64 rng(3);
  search_context ctx;
  for (size_t round = 0; round < property_count(300); ++round) {
    const auto list = random_list(rng, round % 3);
    const auto bytes = encode_posting_list(list);
    ASSERT_EQ(walk(bytes, ctx), list) << round;
    if (list.empty()) continue;
    tracker t(bytes, ctx, 0);
    ASSERT_TRUE(t.load());
    for (uint64_t target = list[0]; target < list.back() + 3; target += 1 + rng() % (rng() % 2 ? 5 : 5000)) {
      t.op_seek(target);
      auto lb = std::lower_bound(list.begin(), list.end(), target);
      uint64_t got;
      ASSERT_EQ(t.op_get(got), lb != list.end());
      if (lb == list.end()) break;
      ASSERT_EQ(got, *lb) << "round " << round << " target " << target;
    }
  }
}

constexpr uint64_t RS = TGDB_REF_RANGE_START, RE = TGDB_REF_RANGE_END;

TEST(tgdb_iter, hand_made_entries_decode_or_report) {
  const std::tuple<std::vector<uint64_t>, std::vector<uint64_t>, std::string> cases[] = {  // entries, values, log
      {{0, 0x2F44332211}, {0, 0x44, 0x77, 0x99, 0xAA}, ""},
      {{0, 0x2A44332211}, {0, 0x4433, 0x4433 + 0x2211}, ""},
      {{0, 0x3C01020304}, {0, 1, 3}, ""},  // bit 36: the last delta is short
      {{0, 0x2C01020304}, {0, 1, 1 + 0x0203}, ""},
      {{RS | 10, RE | 20, 0x2800050000}, {10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 25}, ""},
      {{RE | 5}, {}, "Error: trigram index reference contained bad start value: 4000000005 (aaa) @ 0/1"},
      {{1, 2, RE | 5}, {1, 2}, ""},  // a stray range end is stepped back over
      {{1, RS | 5}, {1}, "Error: trigram index reference was missing range end value"},
      {{RS | 5, 7}, {}, "Error: trigram index reference had bad range end value: 7"},
      {{1, 0x2800010000, 0x2800010000}, {1, 2},
       "Error: trigram index(0) reference(@2) offset values pointed back to bad value: 2800010000"},
      {{1, 0x2000000000}, {1}, "Unknown error occurred parsing trigram index offset values: 2000000000"},
      {{0x2801000000}, {}, "Unknown error occurred parsing trigram index offset values: 2801000000"},
  };
  search_context ctx;
  for (const auto& [refs, want, message] : cases) {
    log_capture log;
    EXPECT_EQ(walk(to_bytes(refs), ctx), want) << message;
    EXPECT_TRUE(log.contains(message)) << message << " got: " << log.text();
  }
}

// A small owner-name file and the lines each query should select.
class tgdb_iter_file : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937_64 rng(5);
    const char* words[] = {"mail", "www", "ns1", "shop", "api", "cdn"};
    const char* zones[] = {"example.com", "example.org", "test.net", "zone.de"};
    for (int i = 0; i < 300; ++i)
      lines.push_back(std::string(words[rng() % 6]) + std::to_string(rng() % 20) + "." + zones[rng() % 4] + "\tA\t" +
                      std::to_string(i));
    std::sort(lines.begin(), lines.end());
    std::vector<std::string_view> views(lines.begin(), lines.end());
    ASSERT_TRUE(tgdb_write(path, views, {.sync = false}, nullptr));
    db = tgdb_open(path.c_str());
  }

  // Overwrites bytes of the file and loads it again.
  void patch(uint64_t offset, const void* bytes, size_t n) {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::streamoff(offset)).write(static_cast<const char*>(bytes), std::streamsize(n));
    f.close();
    db = tgdb_open(path.c_str());
  }

  std::vector<std::string> run(bool& failed) {
    auto src = make_candidate_source(db, ctx, failed);
    std::vector<std::string> out;
    std::string_view line;
    while (src && src->get(line)) out.emplace_back(line);
    return out;
  }

  temp_dir dir;
  std::string path = dir.file("f.tgdb");
  std::vector<std::string> lines;
  std::shared_ptr<tgdb> db;
  search_context ctx;
};

trigram_query_ptr set_of(std::string_view text) { return literal_trigrams(text, false, false); }

// A random tree of unions and intersections over the trigram sets of texts;
// "qqqz" has trigrams the file lacks.
trigram_query_ptr random_query(std::mt19937_64& rng, int depth) {
  static const char* texts[] = {"mail", "ns1", "example", ".org", "shop1", "zone", "api", "test.n", "13.", "www", "qqqz"};
  if (depth == 0 || rng() % 3 == 0) return set_of(texts[rng() % 11]);
  auto q = std::make_unique<trigram_query>();
  q->type = rng() % 2 ? TQ_UNION : TQ_INTERSECTION;
  for (size_t k = 1 + rng() % 3; k--;) q->members.push_back(random_query(rng, depth - 1));
  return q;
}

TEST_F(tgdb_iter_file, query_sources_select_exactly_the_matching_lines) {
  std::mt19937_64 rng(9);
  for (size_t round = 0; round < property_count(200); ++round) {
    ctx.query = random_query(rng, 3);
    std::vector<std::string> want;
    for (const auto& l : lines) {
      trigram_bitmap present;
      add_literal_trigrams(present, l.substr(0, l.find('\t')), true, true);
      if (trigram_query_accepts(ctx.query.get(), present)) want.push_back(l);
    }
    bool failed = true;
    EXPECT_EQ(run(failed), want) << round;
    EXPECT_FALSE(failed);
  }
}

TEST_F(tgdb_iter_file, absent_trigram_empties_a_leaf_and_null_members_are_skipped) {
  log_capture log;
  bool failed = true;
  ctx.query = set_of("qqqz");
  EXPECT_TRUE(run(failed).empty());
  EXPECT_FALSE(failed);
  EXPECT_TRUE(log.contains("Warning: could not add trigram to tracker ("));
  EXPECT_TRUE(log.contains("Warning: tracker was empty after fill (2 items)"));
  ctx.query = trigram_query_create(TQ_UNION, 2, TQ_SET, 0);  // a null member is skipped
  ctx.query->members[1] = set_of("zone.de");
  auto got = run(failed);
  EXPECT_FALSE(got.empty());
  for (const auto& l : got) EXPECT_NE(l.find("zone.de"), std::string::npos);
}

TEST_F(tgdb_iter_file, corrupt_first_entry_fails_the_fill) {
  patch(db->posting(trigram_id('z', 'o', 'n')).entries - db->file().data(), "\x40", 1);
  log_capture log;
  bool failed = false;
  ctx.query = set_of("zone");
  EXPECT_TRUE(run(failed).empty() && failed);
  EXPECT_TRUE(log.contains("Error: could not update trigram tracker."));
}

TEST_F(tgdb_iter_file, line_number_past_the_end_is_reported) {
  const std::string_view two[] = {"aaa.x\tA\t1", "bbb.x\tA\t2"};
  ASSERT_TRUE(tgdb_write(path, two, {.sync = false}, nullptr));
  db = tgdb_open(path.c_str());
  const uint8_t far[5] = {0, 0, 0x0f, 0x42, 0x40};  // a single entry: line 1,000,000
  patch(db->posting(trigram_id('a', 'a', 'a')).entries - db->file().data(), far, 5);
  log_capture log;
  bool failed = true;
  ctx.query = set_of("aaa");
  EXPECT_TRUE(run(failed).empty());
  EXPECT_TRUE(log.contains("Error: trigram index names line 1000000 past its end, corrupt file: " + path)) << log.text();
}

TEST_F(tgdb_iter_file, table_scan_reads_every_line_even_without_final_newline) {
  bool failed;
  EXPECT_EQ(run(failed), lines);
  // Shorten the recorded table by its final newline.
  const uint64_t s = db->string_table().size() - 1;
  patch(16, &s, 8);
  EXPECT_EQ(run(failed), lines);
}

TEST_F(tgdb_iter_file, passed_deadline_stops_both_sources_unless_extended) {
  ctx.deadline = {1, 0};
  ctx.has_deadline = true;
  bool failed;
  EXPECT_THROW(run(failed), search_timeout);  // the scan
  ctx.query = set_of("example");
  EXPECT_THROW(run(failed), search_timeout);
  // The callback may extend the search.
  ctx.timeout_callback = [](timespec& deadline, int64_t now) { return deadline.tv_sec = now + 60, true; };
  EXPECT_FALSE(run(failed).empty());
}

}  // namespace
