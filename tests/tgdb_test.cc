// Index files end to end: the writer's output read back through the loader
// and the line cursor, the loader's refusals of damaged and unsuitable
// files, and a file that shrinks while it is mapped.
#include "tgdb/tgdb.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/property.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb_iter.h"
#include "tgdb/tgdb_writer.h"

namespace {

// Keys with a tab and data of random (odd and even) length, of the file's
// kind; now and then a line long enough that a checkpoint distance
// overflows.
std::vector<std::string> random_lines(std::mt19937_64& rng, size_t n, int long_one_in, bool rdata) {
  static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789-_.";
  std::vector<std::string> out(n);
  for (std::string& s : out) {
    for (size_t j = 1 + rng() % 30; j--;) s += alphabet[rng() % (sizeof alphabet - 1)];
    s.append(rdata ? "\t1/00 4:1:" : "\t4:1:").append(rng() % long_one_in == 0 ? 20000 + rng() % 5 : rng() % 41, '1');
  }
  return out;
}

std::string text_of(std::optional<std::string_view> line) { return line ? std::string(*line) : "<none>"; }

TEST(tgdb, round_trip_header_lines_and_postings) {
  std::mt19937_64 rng(1);
  temp_dir dir;
  for (size_t round = 0; round < property_count(20); ++round) {
    const bool long_lines = round % 4 == 1;
    const size_t n = round == 0 ? 0 : round % 4 == 0 ? rng() % 64 : long_lines ? 200 : rng() % 5000;
    const tgdb_write_options opts{.rdata = round % 2 == 1,
                                  .has_time_range = round % 3 == 0,
                                  .first_seen = uint32_t(round),
                                  .last_seen = uint32_t(1000 + round),
                                  .sync = false};
    const auto lines = random_lines(rng, n, long_lines ? 2 : 1000, opts.rdata);
    const std::vector<std::string_view> views(lines.begin(), lines.end());
    std::string err, path = dir.file("t.tgdb");
    ASSERT_TRUE(tgdb_write(path, views, opts, &err)) << err;
    auto db = tgdb_open(path.c_str());
    ASSERT_TRUE(db);
    ASSERT_EQ(db->header().line_count, n);
    EXPECT_EQ(db->flags(),
              TGDB_FLAG_NREF | (opts.rdata ? TGDB_FLAG_RDATA : 0) | (opts.has_time_range ? TGDB_FLAG_TIME_RANGE : 0));
    EXPECT_TRUE(!opts.has_time_range || (db->first_seen() == round && db->last_seen() == 1000 + round));
    if (long_lines) {  // some checkpoint distance was too large to record
      bool unrecorded = false;
      for (size_t e = 0; e + 1 < n / 64; ++e)
        unrecorded |= tgdb_line_entry_at(db->line_index(), e).half_distance[0] == 0;
      ASSERT_TRUE(unrecorded);
    }
    // Random order goes through the line index, short steps forward and
    // the sequential walk step on from the line before.
    tgdb_line_cursor cursor(*db);
    for (size_t k = 0; k < 3 * n; ++k) {
      const uint64_t i = k < n ? rng() % n : k < 2 * n ? std::min<uint64_t>(n - 1, k - n + rng() % 20) : k - 2 * n;
      ASSERT_EQ(text_of(cursor.line(i)), lines[i]) << "line " << i << " of " << n;
    }
    for (uint64_t past : {uint64_t(n), n + 1, n + 64, uint64_t(1) << 40}) EXPECT_FALSE(cursor.line(past));
    EXPECT_FALSE(cursor.damaged());

    std::map<int32_t, std::vector<uint64_t>> want;
    for (size_t i = 0; i < n; ++i)
      for (int32_t id : tgdb_line_trigrams(lines[i])) want[id].push_back(i);
    index_walk walk;
    for (int32_t t = 0; t < TRIGRAM_COUNT; ++t) {
      const posting_list p = db->posting(t);
      tracker tr(p, walk, t);
      std::vector<uint64_t> got;
      if (!p.empty() && tr.load())
        for (uint64_t v; n_iter_next(tr, v);) got.push_back(v);
      ASSERT_EQ(got, want[t]) << "trigram " << t;
      ASSERT_EQ(p.nref, got.size());
    }
    EXPECT_FALSE(walk.damaged());
  }
}

// Each kind reads back as written. A reader that knows only owner-name and
// rdata files must refuse byname and byvalue files rather than answer from
// them: it takes them for rdata files, whose first line needs a wire form.
TEST(tgdb, each_kind_reads_back_and_older_readers_refuse_the_linked_ones) {
  temp_dir dir;
  const std::pair<tgdb_kind, std::string_view> cases[] = {
      {tgdb_kind::rrname, "a.example\t4:1:1"},
      {tgdb_kind::rdata, "192.0.2.1\t4/c0000201 4:1:1"},
      {tgdb_kind::byname, "a.example\t4:1:1\t192.0.2.1"},
      {tgdb_kind::byvalue, "192.0.2.1\t4:1:1\ta.example"},
  };
  for (const auto& [kind, line] : cases) {
    const std::string path = dir.file(std::string(tgdb_kind_name(kind)) + ".tgdb");
    ASSERT_TRUE(tgdb_write(path, {&line, 1}, {.kind = kind, .sync = false}, nullptr));
    auto db = tgdb_open(path.c_str());
    ASSERT_TRUE(db) << tgdb_kind_name(kind);
    EXPECT_EQ(db->kind(), kind);
    EXPECT_EQ(tgdb_kind_of_flags(db->flags()), kind);
    if (!tgdb_kind_linked(kind)) continue;
    EXPECT_TRUE(db->flags() & TGDB_FLAG_RDATA);
    EXPECT_FALSE(value_has_wire_form(line.substr(line.find('\t') + 1)));
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

// A minimal file: header, empty directory, and `text` as its string table.
std::string craft(uint32_t flags, uint32_t r, uint64_t s, uint64_t l, const std::string& text = "") {
  std::string f(tgdb_string_table_offset(flags & TGDB_FLAG_NREF ? r : 0), '\0');
  f += text;
  f.resize(tgdb_round_up(f.size()), '\0');
  tgdb_header h{.flags = flags, .nref_length = r, .string_table_size = s ? s : text.size(), .line_index_size = l};
  tgdb_header_encode(h, reinterpret_cast<uint8_t*>(f.data()));
  return f;
}

// `file` with trigram 3403's ("abc") directory entry naming two entries at
// `offset` (by default ending exactly at the end of the file).
std::string with_list(std::string file, uint64_t offset = 0) {
  const uint64_t list[2] = {2, offset ? offset : file.size() - 10};
  memcpy(file.data() + TGDB_HEADER_SIZE + TGDB_DIR_ENTRY_SIZE * 3403, list, 16);
  return file;
}

TEST(tgdb, loader_refuses_damaged_and_unsuitable_files) {
  temp_dir dir;
  std::string bad_magic = craft(0, 0, 0, 0);
  bad_magic[7] = 1;
  const std::string names = "a.example\t4:1:1\n", data = "a.example\t1/00 4:1:1\n",
                    linked = "a.example\t4:1:1\t192.0.2.1\n";
  const uint64_t p1 = tgdb_string_table_offset(0);
  const std::pair<std::string, std::string> cases[] = {
      // file, message (none: the file loads)
      {std::string(TGDB_MIN_SIZE - 1, '\0'), "smaller than minimum header size of 1102784 bytes"},
      {"", "smaller than minimum header size of 1102784 bytes"},
      {bad_magic, "missing magic header value!"},
      {craft(TGDB_FLAG_NREF, TGDB_NREF_SIZE - 1, 0, 0), "Error: real nref table was shorter than expected!"},
      {craft(0, 0, 1, 0), "lies outside the file: string table"},
      {craft(0, 0, 0, 1), "lies outside the file: line index"},
      {craft(0, 0, uint64_t(-1), 0), "lies outside the file: string table"},
      {with_list(craft(0, 0, 0, 0)) + "x", ""},  // a list ending inside the file
      {with_list(craft(0, 0, 0, 0), p1 - 5), "lies outside the file: posting list abc"},
      {with_list(craft(0, 0, 0, 0), 8), "points into the header: posting list abc"},
      {with_list(craft(0, 0, 0, 0, names + std::string(20, 'x')), p1 + 4),
       "overlaps the string table: posting list abc"},
      // The flags must agree with the kind of the lines.
      {craft(TGDB_FLAG_RDATA, 0, 0, 0, names), "flagged as rdata, but its first line holds no record data"},
      {craft(0, 0, 0, 0, data), "flagged as owner names, but its first line holds record data"},
      {craft(TGDB_FLAG_RDATA, 0, 0, 0, data), ""},
      // The kind bits must name a kind, and its first line be of that kind.
      {craft(TGDB_FLAG_BYNAME, 0, 0, 0, linked), "flags 0x10000 name no kind of index this version reads"},
      {craft(TGDB_FLAG_RDATA | TGDB_FLAG_BYNAME | TGDB_FLAG_BYVALUE, 0, 0, 0, linked), "flags 0x38000 name no kind"},
      {craft(TGDB_FLAG_RDATA | TGDB_FLAG_BYNAME, 0, 0, 0, names),
       "flagged as byname, but its first line is not a byname line"},
      {craft(TGDB_FLAG_RDATA | TGDB_FLAG_BYVALUE, 0, 0, 0, data),
       "flagged as byvalue, but its first line is not a byvalue line"},
      {craft(TGDB_FLAG_RDATA | TGDB_FLAG_BYVALUE, 0, 0, 0, linked), ""},
      {craft(TGDB_FLAG_RDATA | TGDB_FLAG_BYNAME | 0x1000000, 0, 0, 0, ""), ""},  // other bits mean nothing
      // The nref flag with a zero length means no table.
      {with_list(craft(TGDB_FLAG_NREF, 0, 0, 0)), ""},
  };
  for (const auto& [file, message] : cases) {
    log_capture log;
    const std::string path = dir.write("bad.tgdb", file);
    auto db = tgdb_open(path.c_str());
    ASSERT_EQ(db == nullptr, !message.empty()) << message << log.text();
    EXPECT_TRUE(log.contains(message)) << log.text();
    EXPECT_TRUE(db || log.contains("Error: could not deserialize trigram index from file: " + path));
  }
  // Only regular files are opened, and nothing blocks on a FIFO.
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
  for (const auto& [name, message] :
       {std::pair{"fifo", "is a FIFO"}, {"sub", "is a directory"}, {"missing", "No such file or directory"}}) {
    std::string err;
    EXPECT_FALSE(tgdb_load(dir.file(name).c_str(), err));
    EXPECT_EQ(err, "Error opening database file \"" + dir.file(name) + "\": " + message);
  }
  std::string err;
  EXPECT_FALSE(tgdb_load((dir.file("missing") + "\r").c_str(), err));
  EXPECT_NE(err.find("missing\\r\""), std::string::npos) << err;
}

class tgdb_file : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 200; ++i) lines.push_back("host" + std::to_string(1000 + i) + ".example\t4:1:1");
    std::vector<std::string_view> views(lines.begin(), lines.end());
    ASSERT_TRUE(tgdb_write(path, views, {.sync = false}, nullptr));
    db = tgdb_open(path.c_str());
    ASSERT_TRUE(db);
  }

  // Overwrites bytes of the file and loads it again.
  void patch(uint64_t offset, const void* bytes, size_t n) {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(std::streamoff(offset)).write(static_cast<const char*>(bytes), std::streamsize(n));
    f.close();
    db = tgdb_open(path.c_str());
  }

  std::string write_copy() {
    std::filesystem::copy_file(path, dir.file("copy.tgdb"));
    return dir.file("copy.tgdb");
  }

  temp_dir dir;
  std::string path = dir.file("f.tgdb");
  std::vector<std::string> lines;
  tgdb_ptr db;
};

TEST_F(tgdb_file, line_index_offsets_must_land_at_line_starts) {
  const uint64_t entry1 = db->layout().line_index_offset + TGDB_LINE_ENTRY_SIZE;
  const uint64_t start = tgdb_line_entry_at(db->line_index(), 1).offset;
  for (uint64_t moved : {start - 1, start + 3}) {  // the newline before: fine; inside a line: damage
    patch(entry1, &moved, 8);
    tgdb_line_cursor cursor(*db);
    EXPECT_EQ(text_of(cursor.line(64 + 16)), moved < start ? lines[64 + 16] : "<none>");
    EXPECT_EQ(cursor.damaged(), moved > start);
    EXPECT_EQ(text_of(cursor.line(63)), lines[63]);  // other blocks are unaffected
  }
}

TEST_F(tgdb_file, a_file_that_shrinks_under_its_mapping_is_marked_lost) {
  auto other = tgdb_open(write_copy().c_str());
  tgdb_line_cursor cursor(*db);
  const std::string_view held = *cursor.line(5);
  EXPECT_EQ(held, lines[5]);
  // What truncate or a copy of a smaller file over it does.
  ASSERT_EQ(truncate(path.c_str(), off_t(db->layout().string_table_offset)), 0);
  EXPECT_FALSE(db->lost());
  // No SIGBUS: a line read before reads as tabs now, so that it still holds
  // a tab, as the orderings of record lines require.
  EXPECT_EQ(held, std::string(held.size(), '\t'));
  EXPECT_TRUE(db->lost());
  EXPECT_FALSE(cursor.line(150));
  const posting_list lost_list = db->posting(trigram_id('h', 'o', 's'));  // past the cut: reads as zeros
  EXPECT_EQ(lost_list.ref(lost_list.count - 1), 0u);
  // Mappings of other files are not affected.
  tgdb_line_cursor other_lines(*other);
  EXPECT_EQ(text_of(other_lines.line(150)), lines[150]);
  EXPECT_FALSE(other->lost());
}

}  // namespace
