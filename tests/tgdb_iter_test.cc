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
#include "tgdb/tgdb_writer.h"

namespace {

std::vector<uint8_t> to_bytes(const std::vector<uint64_t>& refs) {
  std::vector<uint8_t> out;
  for (uint64_t v : refs)
    for (int shift = 32; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
  return out;
}

// Everything a tracker over `bytes` yields; empty when the first entry fails.
std::vector<uint64_t> walk(const std::vector<uint8_t>& bytes, index_walk& w) {
  tracker t(posting_list_of(bytes), w, 0);
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
    v += shape == 0   ? 1 + rng() % (rng() % 2 ? 300 : 100000)
         : shape == 1 ? 1 + rng() % 4
         : rng() % 3  ? 1
                      : 2 + rng() % 70000;
  }
  return out;
}

TEST(tgdb_iter, encoded_lists_walk_and_seek_like_lower_bound) {
  std::mt19937_64 rng(3);
  index_walk w;
  for (size_t round = 0; round < property_count(300); ++round) {
    const auto list = random_list(rng, round % 3);
    const auto bytes = encode_posting_list(list);
    ASSERT_EQ(walk(bytes, w), list) << round;
    if (list.empty()) continue;
    tracker t(posting_list_of(bytes), w, 0);
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
  EXPECT_FALSE(w.damaged());
}

constexpr uint64_t RS = TGDB_REF_RANGE_START, RE = TGDB_REF_RANGE_END;

TEST(tgdb_iter, hand_made_entries_decode_or_report) {
  const std::tuple<std::vector<uint64_t>, std::vector<uint64_t>, std::string> cases[] = {
      // entries, values, log
      {{0, 0x2F44332211}, {0, 0x44, 0x77, 0x99, 0xAA}, ""},
      {{0, 0x2A44332211}, {0, 0x4433, 0x4433 + 0x2211}, ""},
      // Bit 36: the last delta is short, whatever follows it.
      {{0, 0x3C01020304}, {0, 1, 3}, ""},
      {{0, 0x2C01020304}, {0, 1, 1 + 0x0203}, ""},
      {{10, 0x3A00050700}, {10, 15, 22}, ""},
      {{10, 0x2A00050700}, {10, 15, 15 + 0x0700}, ""},
      {{RS | 10, RE | 20, 0x2800050000}, {10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 25}, ""},
      {{RE | 5}, {}, "Error: trigram index reference contained bad start value: 4000000005 (aaa) @ 0/1"},
      {{1, 2, RE | 5}, {1, 2}, ""},  // a stray range end is stepped back over
      {{1, RS | 5}, {1}, "Error: trigram index reference was missing range end value"},
      {{RS | 5, 7}, {}, "Error: trigram index reference had bad range end value: 7"},
      {{1, 0x2800010000, 0x2800010000},
       {1, 2},
       "Error: trigram index(0) reference(@2) offset values pointed back to bad value: 2800010000"},
      {{1, 0x2000000000}, {1}, "Unknown error occurred parsing trigram index offset values: 2000000000"},
      {{0x2801000000}, {}, "Unknown error occurred parsing trigram index offset values: 2801000000"},
      // Lines must ascend, within an entry and from one to the next.
      {{1, RS | 9, RE | 5},
       {1},
       "Error: trigram index reference(@1) range ends before it starts: 8000000009 4000000005"},
      {{1, 0x2C00000304}, {1}, "Error: trigram index reference(@1) packed values do not ascend: 2c00000304"},
      {{5, 9, 3, 12}, {5, 9}, "Error: trigram index reference(@2) does not ascend: 3 next to line 9"},
      {{5, 5}, {5}, "Error: trigram index reference(@1) does not ascend: 5 next to line 5"},
  };
  for (const auto& [refs, want, message] : cases) {
    log_capture log;
    index_walk w;
    EXPECT_EQ(walk(to_bytes(refs), w), want) << message;
    EXPECT_TRUE(log.contains(message)) << message << " got: " << log.text();
    EXPECT_EQ(w.damaged(), !message.empty()) << message;
    if (w.damaged()) {
      EXPECT_EQ(w.region(), "posting list of trigram 'aaa'");
    }
  }
}

// A small owner-name file and the lines each query should select.
class tgdb_iter_file : public ::testing::Test {
 protected:
  void SetUp() override {
    lines.clear();
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

  uint64_t list_offset(const char* trigram) const {
    return uint64_t(db->posting(trigram_id(trigram[0], trigram[1], trigram[2])).entries - db->file().data());
  }

  // Overwrites bytes of the file and loads it again.
  void patch(uint64_t offset, const void* bytes, size_t n) {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::streamoff(offset)).write(static_cast<const char*>(bytes), std::streamsize(n));
    f.close();
    db = tgdb_open(path.c_str());
  }

  // The lines of a source over the query; `failed` tells whether the
  // stream ended early because of damage (or the source could not be made
  // because of it).
  std::vector<std::string> run(bool& failed) {
    auto src = make_candidate_source(db, query.get(), &deadline, failed);
    std::vector<std::string> out;
    std::string_view line;
    while (src && src->get(line)) out.emplace_back(line);
    failed = failed || (src && src->failed());
    return out;
  }

  temp_dir dir;
  std::string path = dir.file("f.tgdb");
  std::vector<std::string> lines;
  tgdb_ptr db;
  trigram_query_ptr query;
  search_deadline deadline;
};

trigram_query_ptr set_of(std::string_view text) { return literal_trigrams(text, false, false); }

// A random tree of unions and intersections over the trigram sets of texts;
// "qqqz" has trigrams the file lacks.
trigram_query_ptr random_query(std::mt19937_64& rng, int depth) {
  static const char* texts[] = {"mail", "ns1",    "example", ".org", "shop1", "zone",
                                "api",  "test.n", "13.",     "www",  "qqqz"};
  if (depth == 0 || rng() % 3 == 0) return set_of(texts[rng() % 11]);
  auto q = std::make_unique<trigram_query>();
  q->type = rng() % 2 ? TQ_UNION : TQ_INTERSECTION;
  for (size_t k = 1 + rng() % 3; k--;) q->members.push_back(random_query(rng, depth - 1));
  return q;
}

TEST_F(tgdb_iter_file, query_sources_select_exactly_the_matching_lines) {
  std::mt19937_64 rng(9);
  for (size_t round = 0; round < property_count(200); ++round) {
    query = random_query(rng, 3);
    std::vector<std::string> want;
    for (const auto& l : lines) {
      trigram_bitmap present;
      for (int32_t id : tgdb_line_trigrams(l)) present.set(id);
      if (trigram_query_accepts(query.get(), present)) want.push_back(l);
    }
    bool failed = true;
    EXPECT_EQ(run(failed), want) << round;
    EXPECT_FALSE(failed);
  }
}

TEST_F(tgdb_iter_file, absent_trigram_empties_a_leaf_and_null_members_are_skipped) {
  bool failed = true;
  query = set_of("qqqz");
  EXPECT_TRUE(run(failed).empty());
  EXPECT_FALSE(failed);
  query = trigram_query_create(TQ_UNION, 2, TQ_SET, 0);  // a null member is skipped
  query->members[1] = set_of("zone.de");
  auto got = run(failed);
  EXPECT_FALSE(got.empty());
  for (const auto& l : got) EXPECT_NE(l.find("zone.de"), std::string::npos);
}

// Damage a search meets ends the file's stream with an error that names the
// file and the region, and never yields a line that is not one.
TEST_F(tgdb_iter_file, damage_ends_the_stream_and_names_file_and_region) {
  const std::string head = "Error: index file " + path + " is damaged in its ";
  const uint8_t range_end[1] = {0x40}, far[5] = {0, 0, 0x0f, 0x42, 0x40}, descending[5] = {0, 0, 0, 0, 0};
  const uint64_t mid_line = tgdb_line_entry_at(db->line_index(), 1).offset + 3;
  struct {
    const char* label;
    uint64_t offset;  // of the patch
    const void* bytes;
    size_t size;
    const char* pattern;
    std::string log;
  } cases[] = {
      {"a first entry that is a range end", list_offset("zon"), range_end, 1, "zone",
       "Error: could not update trigram tracker."},
      {"", list_offset("zon"), range_end, 1, "zone", head + "posting list of trigram 'zon'"},
      {"a line number past the end", list_offset("zon"), far, 5, "zon",
       "Error: trigram index names line 1000000 past its end, corrupt file: " + path},
      {"a list that descends", list_offset("ple") + 5, descending, 5, "example",
       head + "posting list of trigram 'ple'"},
      {"a line index entry pointing into a line", db->layout().line_index_offset + TGDB_LINE_ENTRY_SIZE, &mid_line, 8,
       "example", head + "line index"},
  };
  for (const auto& c : cases) {
    SetUp();
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::streamoff(c.offset)).write(static_cast<const char*>(c.bytes), std::streamsize(c.size));
    f.close();
    db = tgdb_open(path.c_str());
    query = set_of(c.pattern);
    log_capture log;
    bool failed = false;
    for (const std::string& line : run(failed)) ASSERT_TRUE(std::find(lines.begin(), lines.end(), line) != lines.end());
    EXPECT_TRUE(failed) << c.label;
    EXPECT_TRUE(log.contains(c.log)) << c.label << "\n" << log.text();
  }
}

TEST_F(tgdb_iter_file, table_scan_reads_every_line_even_without_final_newline) {
  bool failed;
  EXPECT_EQ(run(failed), lines);
  // Shorten the recorded table by its final newline.
  const uint64_t s = db->string_table().size() - 1;
  patch(tgdb_field::string_table_size, &s, 8);
  EXPECT_EQ(run(failed), lines);
}

TEST_F(tgdb_iter_file, a_file_that_shrinks_ends_its_stream) {
  // A scan or a query, cut after the first line or before the source is
  // made (its posting directory then reads as empty).
  for (const auto& [pattern, cut_first] : {std::pair{"", false}, {"example", false}, {"example", true}}) {
    SetUp();
    query = *pattern ? set_of(pattern) : nullptr;
    if (cut_first) {
      ASSERT_EQ(truncate(path.c_str(), 4096), 0);
    }
    log_capture log;
    bool failed = false;
    std::unique_ptr<candidate_source> src = make_candidate_source(db, query.get(), &deadline, failed);
    std::string_view line;
    if (!cut_first) {
      ASSERT_TRUE(src->get(line));
      ASSERT_EQ(truncate(path.c_str(), 4096), 0);
      while (src->get(line)) {
      }
      failed = src->failed();
    }
    EXPECT_TRUE(failed) << pattern << cut_first;
    EXPECT_EQ(src == nullptr, cut_first);
    EXPECT_TRUE(log.contains("Error: index file " + path + " shrank while in use; its part of this search ends"))
        << log.text();
  }
}

TEST_F(tgdb_iter_file, passed_deadline_stops_both_sources_unless_extended) {
  deadline.at = {1, 0};
  deadline.armed = true;
  bool failed;
  EXPECT_THROW(run(failed), search_timeout);  // the scan
  query = set_of("example");
  EXPECT_THROW(run(failed), search_timeout);
  // The callback may extend the search.
  deadline.timeout_callback = [](timespec& at, int64_t now) { return at.tv_sec = now + 60, true; };
  EXPECT_FALSE(run(failed).empty());
}

}  // namespace
