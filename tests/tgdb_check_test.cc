// The index verifier: hand-made faults, each named; ixbake --check; and the
// property that a damaged copy the verifier passes answers every search as
// the original does.
#include "tgdb/tgdb_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>

#include "tests/support/index_builder.h"
#include "tests/support/property.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb.h"
#include "tgdb/tgdb_iter.h"
#include "tgdb/tgdb_merger.h"
#include "tgdb/tgdb_writer.h"
#include "trigram/matcher.h"

namespace {

using strings = std::vector<std::string>;
using bytes = std::string;

// Lines with shared and distinct trigrams, runs of neighbours (ranges) and
// scattered ones (packed entries), and keys long enough for every
// checkpoint.
strings sample_lines() {
  strings lines;
  for (int i = 0; i < 300; ++i) {
    const std::string host = (i % 7 == 0 ? "mail" : i % 3 == 0 ? "www" : "host") + std::to_string(i);
    lines.push_back(host + (i < 150 ? ".example.com" : ".test.org") + "\t4:" + std::to_string(60000000 + i) +
                    ",10:" + std::to_string(1 + i % 5) + (i % 4 == 0 ? " n:60000000:1" : ""));
  }
  return lines;
}

class tgdb_check_files : public ::testing::Test {
 protected:
  void SetUp() override {
    write_index(good, sample_lines());
    original = read_file(good);
    db = tgdb_open(good.c_str());
    ASSERT_TRUE(db);
  }

  uint64_t list_offset(const char* t) const {
    return uint64_t(db->posting(trigram_id(t[0], t[1], t[2])).entries - db->file().data());
  }
  uint64_t line_offset(uint64_t n) const {
    tgdb_line_cursor c(*db);
    return uint64_t(c.line(n)->data() - reinterpret_cast<const char*>(db->file().data()));
  }

  temp_dir dir;
  std::string good = dir.file("good.tgdb");
  bytes original;
  tgdb_ptr db;
};

std::string put_u64(uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }
std::string ref(uint64_t v) { return {char(v >> 32), char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

TEST_F(tgdb_check_files, names_the_first_fault) {
  EXPECT_EQ(tgdb_check(good.c_str()), std::nullopt);
  const uint64_t nref = db->layout().nref_offset, index = db->layout().line_index_offset;
  const int32_t ail = trigram_id('a', 'i', 'l');
  // The lines of "ail", as the list holds them.
  std::vector<uint64_t> mail;
  index_walk walk;
  tracker t(db->posting(ail), walk, ail);
  ASSERT_TRUE(t.load());
  for (uint64_t v; n_iter_next(t, v);) mail.push_back(v);
  ASSERT_GT(mail.size(), 3u);
  const uint64_t last = mail.back();
  // A line after a gap in the list, and the line before it, which does not
  // hold the trigram.
  size_t gap = 1;
  while (gap < mail.size() && mail[gap] == mail[gap - 1] + 1) ++gap;
  ASSERT_LT(gap, mail.size());
  const uint64_t after_gap = mail[gap], not_mail = after_gap - 1;
  // Patches at a place, or a new list for "ail" appended to the file.
  const auto at = [](uint64_t offset, std::string patch) {
    return [=](bytes& f) { f.replace(offset, patch.size(), patch); };
  };
  const auto list = [&](std::vector<uint64_t> lines) {
    return [=](bytes& f) {
      const std::vector<uint8_t> enc = encode_posting_list(lines);
      const uint64_t entry = TGDB_HEADER_SIZE + TGDB_NREF_SIZE + TGDB_DIR_ENTRY_SIZE * uint64_t(ail);
      f.replace(entry, 16, put_u64(enc.size() / TGDB_REF_SIZE) + put_u64(f.size()));
      f.append(enc.begin(), enc.end());
    };
  };
  const auto with = [&](uint64_t replaced, uint64_t by) {
    std::vector<uint64_t> v = mail;
    *std::find(v.begin(), v.end(), replaced) = by;
    return v;
  };
  std::vector<uint64_t> past = mail;
  past.push_back(1000);
  const std::string ail_list = "posting list of trigram 'ail': ";
  const std::pair<std::function<void(bytes&)>, std::string> cases[] = {
      {at(0, "QXVTRJ"), "Error: trigram database was missing magic header value!"},
      {at(list_offset("ail"), ref(mail[0]) + ref(mail[0])),
       ail_list + "Error: trigram index reference(@1) does not ascend"},
      {at(list_offset("ail"), ref(uint64_t(1) << 38)),
       ail_list + "Error: trigram index reference contained bad start value"},
      {list(with(after_gap, not_mail)),
       ail_list + "names line " + std::to_string(not_mail) + ", which does not hold the trigram"},
      {list({mail.begin(), mail.end() - 1}), ail_list + "does not name line " + std::to_string(last) + ", which holds"},
      {list(past), ail_list + "names line 1000, past the last line"},
      {at(line_offset(2), "\n"), "line 2: empty line"},
      {at(line_offset(9) - 2, "q"), "line 8: not an owner-name record line"},
      {at(index + 14, put_u64(line_offset(64) - db->layout().string_table_offset + 2)),
       "line index: entry 1 does not lead to the start of line 64"},
      {at(index + 14 + 8, "\x01"), "line index: entry 1 does not lead to the start of line 80"},
      {at(tgdb_field::line_index_size, put_u64(db->line_index().size() - 14)),
       "line index: holds 56 bytes for 300 lines"},
      {at(nref + 8 * uint64_t(ail), put_u64(3)), "nref table: counts 3 lines for trigram " + std::to_string(ail)},
      {at(tgdb_field::last_seen, std::string(4, '\0')), "line 0: seen "},
  };
  for (const auto& [damage, fault] : cases) {
    bytes damaged = original;
    damage(damaged);
    const std::string path = dir.write("bad.tgdb", damaged);
    const auto got = tgdb_check(path.c_str());
    ASSERT_TRUE(got) << fault;
    EXPECT_EQ(got->rfind(path + ": ", 0), 0u) << *got;
    EXPECT_NE(got->find(fault), std::string::npos) << fault << "\ngot: " << *got;
  }
}

TEST_F(tgdb_check_files, lines_the_writer_takes_but_a_search_cannot_use) {
  const std::pair<strings, std::string> cases[] = {
      {{"b.test\t4:1:1", "a.test\t4:1:1"}, "line 1: orders before the line above it"},
      {{"a.test\tq:1:1"}, "line 0: not an owner-name record line"},
      {{"a.test"}, "line 0: no tab after the key"},
  };
  for (const auto& [lines, fault] : cases) {
    const std::vector<std::string_view> views(lines.begin(), lines.end());
    const std::string path = dir.file("w.tgdb");
    ASSERT_TRUE(tgdb_write(path, views, {.sync = false}, nullptr));
    EXPECT_EQ(tgdb_check(path.c_str()), path + ": " + fault);
  }
  // An rdata file whose time range leaves a record out.
  const std::string rdata = write_index(dir.file("r.tgdb"), {"x\t1/00 4:5,5:1"}, {.rdata = true});
  EXPECT_EQ(tgdb_check(rdata.c_str()), std::nullopt);
  bytes damaged = read_file(rdata);
  damaged.replace(tgdb_field::first_seen, 8, std::string(4, '\0') + "\x09" + std::string(3, '\0'));
  EXPECT_EQ(tgdb_check(dir.write("r2.tgdb", damaged).c_str()),
            dir.file("r2.tgdb") + ": line 0: seen 5 to 10, outside the file's time range");
}

TEST_F(tgdb_check_files, linked_files_are_checked_by_their_own_lines_and_order) {
  const tgdb_kind byname = tgdb_kind::byname, byvalue = tgdb_kind::byvalue;
  const std::tuple<tgdb_kind, strings, std::string> cases[] = {
      // kind, lines as written, fault (empty: none)
      {byname, {"a.test\t4:1:1\t192.0.2.1", "a.test\t4:1:1\t192.0.2.2", "a.test\tn:1:1\tns.test", "b.a.test\t4:1:1\tx"}, ""},
      {byvalue, {"192.0.2.1\t4:1:1\tb.a.test", "192.0.2.1\t4:1:1\tz.test", "x y\tt:1:1\ta.test"}, ""},
      // A name's records out of order: the type, then the value decides.
      {byname, {"a.test\tn:1:1\tx", "a.test\t4:1:1\tx"}, "line 1: orders before the line above it"},
      {byname, {"a.test\t4:1:1\ty", "a.test\t4:1:1\tx"}, "line 1: orders before the line above it"},
      {byvalue, {"x\t4:1:1\ta.b", "x\t4:1:1\tb.a"}, "line 1: orders before the line above it"},
      {byname, {"a.test\t4:1:1\tx", "b.test\t4:1:1"}, "line 1: not a byname record line"},
      {byvalue, {"x\t4:1:1\ta", "y\t4:1\tb"}, "line 1: not a byvalue record line"},
  };
  for (const auto& [kind, lines, fault] : cases) {
    const std::vector<std::string_view> views(lines.begin(), lines.end());
    const std::string path = dir.file("w.tgdb");
    ASSERT_TRUE(tgdb_write(path, views, {.kind = kind, .sync = false}, nullptr));
    EXPECT_EQ(tgdb_check(path.c_str()), fault.empty() ? std::nullopt : std::optional(path + ": " + fault)) << lines[0];
  }
  // The key alone is indexed: a posting list naming a line for a trigram of
  // its value is a fault.
  const std::string path = write_index(dir.file("v.tgdb"), {"abc\t4:1:1\txyz"}, {.kind = byname});
  EXPECT_EQ(tgdb_check(path.c_str()), std::nullopt);
  bytes damaged = read_file(path);
  auto db = tgdb_open(path.c_str());
  const uint8_t* dir_entry = db->file().data() + db->layout().directory_offset;
  const int32_t abc = literal_trigram_ids("abc", false, false).front(), xyz = literal_trigram_ids("xyz", false, false).front();
  damaged.replace(db->layout().directory_offset + TGDB_DIR_ENTRY_SIZE * size_t(xyz), TGDB_DIR_ENTRY_SIZE,
                  reinterpret_cast<const char*>(dir_entry) + TGDB_DIR_ENTRY_SIZE * size_t(abc), TGDB_DIR_ENTRY_SIZE);
  const auto got = tgdb_check(dir.write("v2.tgdb", damaged).c_str());
  ASSERT_TRUE(got);
  EXPECT_NE(got->find("posting list of trigram 'xyz': names line 0, which does not hold the trigram"), std::string::npos)
      << *got;
#ifdef IXBAKE_BIN
  const run_result r = run_binary(IXBAKE_BIN, {"--check", path, dir.file("v2.tgdb")});
  EXPECT_EQ(std::tuple(r.status, r.err), std::tuple(1, "ixbake: " + *got + "\n"));
#endif
}

#ifdef IXBAKE_BIN
TEST_F(tgdb_check_files, ixbake_check_exits_1_naming_each_faulty_file) {
  bytes damaged = original;
  damaged[line_offset(2)] = '\n';
  const std::string bad = dir.write("bad.tgdb", damaged);
  EXPECT_EQ(run_binary(IXBAKE_BIN, {"--check", good}).status, 0);
  const run_result r = run_binary(IXBAKE_BIN, {"--check", good, bad, dir.file("missing")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "ixbake: " + bad + ": line 2: empty line\nixbake: " + dir.file("missing") +
                       ": Error opening database file \"" + dir.file("missing") + "\": No such file or directory\n");
}
#endif

// Every search of a fixed set over one file: results as lines, then
// whether the search was complete.
strings answers(const tgdb_ptr& db) {
  static const char* patterns[] = {"mail", "^www1", "example\\.com$", "t\\.org", "host2[0-9]", "7\\.", "^h",
                                   "zzz",  "."};
  strings out;
  for (const char* pattern : patterns) {
    for (int filter = 0; filter < 2; ++filter) {
      search_context ctx;
      if (!compile_search(ctx.match, pattern, false, nullptr, nullptr)) return {"no compile"};
      if (filter) set_time_first_before(ctx, 60000100);
      tgdb_merger m(ctx, tgdb_kind::rrname);
      m.add_file(db);
      while (auto r = m.next()) out.push_back(rrname_line(r->name, r->entries));
      out.push_back(m.incomplete() ? "incomplete" : "complete");
    }
  }
  return out;
}

// Where random damage lands: anywhere, or where it matters most.
uint64_t damage_spot(std::mt19937_64& rng, const tgdb& db) {
  const tgdb_layout& l = db.layout();
  switch (rng() % 5) {
    case 0:
      return rng() % TGDB_HEADER_SIZE;
    case 1:
      return l.string_table_offset + rng() % l.string_table_size;
    case 2:
      return l.line_index_offset + rng() % l.line_index_size;
    case 3:
      return l.end + rng() % (db.file().size() - l.end);  // posting lists
    default:
      return rng() % db.file().size();
  }
}

// The index a writer makes from the lines of `db`, with its header's kind
// and time range.
tgdb_ptr rewritten(const tgdb& db, const std::string& path) {
  strings lines;
  tgdb_line_cursor cursor(db);
  for (uint64_t n = 0; auto line = cursor.line(n); ++n) lines.emplace_back(*line);
  const std::vector<std::string_view> views(lines.begin(), lines.end());
  const tgdb_write_options opts{.kind = db.kind(),
                                .has_time_range = db.has_time_range(),
                                .first_seen = db.first_seen(),
                                .last_seen = db.last_seen(),
                                .sync = false};
  EXPECT_TRUE(tgdb_write(path, views, opts, nullptr));
  return tgdb_open(path.c_str());
}

// Damage that the verifier passes changes no answer. Damage to the index's
// structures (header, directory, posting lists, line index) must leave
// every answer as the original's; damage to a record line that leaves it a
// well-formed line in its place is a change of data, so there the answers
// must be those of an index written afresh from the damaged lines.
TEST_F(tgdb_check_files, property_damage_the_verifier_passes_changes_no_answer) {
  const strings want = answers(db);
  const tgdb_layout& layout = db->layout();
  std::mt19937_64 rng(41);
  size_t passed = 0, rounds = property_count(300);
  for (size_t round = 0; round < rounds; ++round) {
    bytes damaged = original;
    std::string where;
    bool lines_changed = false;
    for (size_t k = 1 + rng() % 3; k--;) {
      const uint64_t spot = damage_spot(rng, *db);
      damaged[spot] ^= char(1 << (rng() % 8));
      where += " " + std::to_string(spot);
      lines_changed |=
          spot >= layout.string_table_offset && spot < layout.string_table_offset + layout.string_table_size;
    }
    SCOPED_TRACE("damaged at" + where);
    const std::string path = dir.write("damaged.tgdb", damaged);
    if (tgdb_check(path.c_str())) continue;
    ++passed;
    auto copy = tgdb_open(path.c_str());
    ASSERT_TRUE(copy);
    const strings reference = lines_changed ? answers(rewritten(*copy, dir.file("fresh.tgdb"))) : want;
    const strings got = answers(copy);
    for (size_t i = 0; i < std::max(got.size(), reference.size()); ++i)
      ASSERT_EQ(i < got.size() ? got[i] : "-", i < reference.size() ? reference[i] : "-") << "round " << round;
  }
  // Damage to padding, to unused header words and to directory entries of
  // absent trigrams passes; most other damage does not.
  EXPECT_GT(passed, 0u);
  EXPECT_LT(passed, rounds / 2);
}

}  // namespace
