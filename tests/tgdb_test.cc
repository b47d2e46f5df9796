// Index files end to end: the writer's output read back through the loader,
// and the loader's refusals of damaged files.
#include "tgdb/tgdb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/property.h"
#include "tests/support/temp_dir.h"
#include "tgdb/tgdb_iter.h"
#include "tgdb/tgdb_writer.h"

namespace {

// Owner-name-like keys with a tab and data of random (odd and even) length;
// now and then a line long enough that a checkpoint distance overflows.
std::vector<std::string> random_lines(std::mt19937_64& rng, size_t n, int long_one_in) {
  static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789-_.";
  std::vector<std::string> out(n);
  for (std::string& s : out) {
    for (size_t j = 1 + rng() % 30; j--;) s += alphabet[rng() % (sizeof alphabet - 1)];
    s.append("\tA\t").append(rng() % long_one_in == 0 ? 20000 + rng() % 5 : rng() % 41, 'x');
  }
  return out;
}

std::string line_at(const tgdb& db, uint64_t n) {
  const char* p = tgdb_line(db, n);
  return p ? std::string(tgdb_line_text(db, p)) : "<null>";
}

TEST(tgdb, round_trip_header_lines_and_postings) {
  std::mt19937_64 rng(1);
  temp_dir dir;
  search_context ctx;
  std::shared_ptr<tgdb> prev;  // the file of the round before, still open
  std::vector<std::string> prev_lines;
  for (size_t round = 0; round < property_count(20); ++round) {
    const bool long_lines = round % 4 == 1;
    const size_t n = round == 0 ? 0 : round % 4 == 0 ? rng() % 64 : long_lines ? 200 : rng() % 5000;
    const auto lines = random_lines(rng, n, long_lines ? 2 : 1000);
    const std::vector<std::string_view> views(lines.begin(), lines.end());
    const tgdb_write_options opts{.rdata = round % 2 == 1, .has_time_range = round % 3 == 0,
                                  .first_seen = uint32_t(round), .last_seen = uint32_t(1000 + round), .sync = false};
    std::string err, path = dir.file("t.tgdb");
    ASSERT_TRUE(tgdb_write(path, views, opts, &err)) << err;
    auto db = tgdb_open(path.c_str());
    ASSERT_TRUE(db);
    ASSERT_EQ(db->line_count_hint(), n);
    EXPECT_EQ(db->flags(), TGDB_FLAG_NREF | (opts.rdata ? TGDB_FLAG_RDATA : 0) |
                               (opts.has_time_range ? TGDB_FLAG_TIME_RANGE : 0));
    EXPECT_TRUE(!opts.has_time_range || (db->first_seen() == round && db->last_seen() == 1000 + round));
    if (long_lines) {  // some checkpoint distance was too large to record
      bool unrecorded = false;
      for (size_t e = 0; e + 1 < n / 64; ++e)
        unrecorded |= tgdb_get_u16(db->line_index().data() + 14 * e + 8) == 0;
      ASSERT_TRUE(unrecorded);
    }
    // Random order goes through the line index; sequential order mostly
    // through the per-thread cache.
    for (size_t k = 0; k < 3 * n; ++k) {
      const uint64_t i = k < 2 * n ? rng() % n : k - 2 * n;
      ASSERT_EQ(line_at(*db, i), lines[i]) << "line " << i << " of " << n;
    }
    for (size_t i = 0; i + 1 < std::min(n, prev_lines.size()); ++i) {  // lookups alternating between files
      ASSERT_EQ(line_at(*db, i), lines[i]);
      ASSERT_EQ(line_at(*prev, i + 1), prev_lines[i + 1]);
    }
    prev = db, prev_lines = lines;
    for (uint64_t past : {uint64_t(n), n + 1, n + 64, uint64_t(1) << 40}) EXPECT_EQ(tgdb_line(*db, past), nullptr);

    std::map<int32_t, std::vector<uint64_t>> want;
    for (size_t i = 0; i < n; ++i)
      for (int32_t id : literal_trigram_ids(lines[i].substr(0, lines[i].find('\t')), true, true))
        want[id].push_back(i);
    for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
      const tgdb_posting p = db->posting(t);
      tracker tr(db, ctx, t);
      std::vector<uint64_t> got;
      if (!p.empty() && tr.load())
        for (uint64_t v; n_iter_next(tr, v);) got.push_back(v);
      ASSERT_EQ(got, want[t]) << "trigram " << t;
      ASSERT_EQ(p.nref, got.size());
    }
  }
}

TEST(tgdb, writer_refuses_bad_lines_and_leaves_no_file) {
  temp_dir dir;
  for (std::string_view bad : {"", "a\nb"}) {
    std::vector<std::string_view> lines{"ok", bad};
    std::string err;
    EXPECT_FALSE(tgdb_write(dir.file("t.tgdb"), lines, {}, &err));
    EXPECT_NE(err.find("line 1"), std::string::npos) << err;
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

// A minimal well-formed file: header, empty directory, empty tables.
std::string craft(uint32_t flags, uint32_t r, uint64_t s, uint64_t l) {
  std::string f(tgdb_round_up(TGDB_MIN_SIZE + r), '\0');
  memcpy(f.data(), TGDB_MAGIC, 8);
  memcpy(f.data() + 8, &flags, 4), memcpy(f.data() + 12, &r, 4);
  memcpy(f.data() + 16, &s, 8), memcpy(f.data() + 24, &l, 8);
  return f;
}

// `file` with trigram 3403's directory entry pointing at two entries that
// end `short_by` bytes before the end of the file.
std::string with_list(std::string file, int64_t short_by) {
  const uint64_t list[2] = {2, file.size() - 10 - short_by};
  memcpy(file.data() + 48 + 16 * 3403, list, 16);
  return file;
}

TEST(tgdb, loader_refuses_damaged_files) {
  temp_dir dir;
  std::string bad_magic = craft(0, 0, 0, 0);
  bad_magic[7] = 1;
  const std::pair<std::string, std::string> cases[] = {  // file, message (none: the file loads)
      {std::string(TGDB_MIN_SIZE - 1, '\0'), "smaller than minimum header size of 1102784 bytes"},
      {bad_magic, "missing magic header value!"},
      {craft(TGDB_FLAG_NREF, TGDB_NREF_SIZE - 1, 0, 0), "Error: real nref table was shorter than expected!"},
      {craft(0, 0, 1, 0), "lies outside the file: string table"},
      {craft(0, 0, 0, 1), "lies outside the file: line index"},
      {craft(0, 0, uint64_t(-1), 0), "lies outside the file: string table"},
      {with_list(craft(0, 0, 0, 0), -1), "lies outside the file: posting list abc"},
      // The nref flag with a zero length means no table; a list ending
      // exactly at the end of the file is inside it.
      {with_list(craft(TGDB_FLAG_NREF, 0, 0, 0), 0), ""},
  };
  for (const auto& [file, message] : cases) {
    log_capture log;
    const std::string path = dir.write("bad.tgdb", file);
    auto db = tgdb_open(path.c_str());
    ASSERT_EQ(db == nullptr, !message.empty()) << message << log.text();
    EXPECT_EQ(db ? db->posting(3403).count : 2u, 2u);
    EXPECT_TRUE(log.contains(message)) << log.text();
    EXPECT_TRUE(db || log.contains("Error: could not deserialize trigram index from file: " + path));
  }
  log_capture log;
  EXPECT_EQ(tgdb_open(dir.file("missing").c_str()), nullptr);
  EXPECT_TRUE(log.contains("Error opening database file \"" + dir.file("missing") + "\": No such file"));
}

}  // namespace
