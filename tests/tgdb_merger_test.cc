// Merging candidate lines of several index files into filtered results.
#include "tgdb/tgdb_merger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/index_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tgdb/linked_line.h"
#include "tgdb/record_line.h"
#include "trigram/matcher.h"

namespace {

using strings = std::vector<std::string>;
using dbs = std::vector<tgdb_ptr>;

class tgdb_merger_files : public ::testing::Test {
 protected:
  tgdb_ptr file(strings lines, const index_options& opts = {}) {
    return tgdb_open(write_index(dir.file(std::to_string(++files) + ".tgdb"), std::move(lines), opts).c_str());
  }

  // Candidates come from a scan of every line, or with `query` from the
  // pattern's trigram query.
  std::unique_ptr<tgdb_merger> start(const dbs& files, const char* pattern, tgdb_kind kind = tgdb_kind::rrname, bool query = false) {
    EXPECT_TRUE(compile_search(ctx.match, pattern, false, nullptr, nullptr));
    if (!query) ctx.match.query.reset();
    auto m = std::make_unique<tgdb_merger>(ctx, kind);
    for (const auto& db : files) m->add_file(db);
    return m;
  }

  // Results as owner-name lines; entries by type, as their order follows
  // whichever file's line came first.
  strings drain(tgdb_merger& m) {
    strings out;
    while (auto r = search_next(m)) {
      std::sort(r->entries.begin(), r->entries.end(), [](auto& a, auto& b) { return a.rrtype < b.rrtype; });
      out.push_back(rrname_line(r->name, r->entries));
    }
    return out;
  }

  temp_dir dir;
  int files = 0;
  search_context ctx;
};

TEST_F(tgdb_merger_files, merges_types_counts_and_times_across_files) {
  auto a = file({"www.example.com\t4:100,10:2", "zz.com\t4:1:1", "a.example.com\tn:50:1"});
  auto b = file({"www.example.com\tn:200:3 4:90,5:1", "b.example.com\tm", "x.example.org\t4:1:1"});
  const strings want{"a.example.com\tn:50:1", "b.example.com\tm:0:1", "www.example.com\t4:90,80:3 n:200:3",
                     "x.example.org\t4:1:1"};
  EXPECT_EQ(drain(*start({a, b}, "example")), want);
  EXPECT_EQ(drain(*start({a, b}, "example", tgdb_kind::rrname, true)), want);
  set_rrtype_filter(ctx, 2);  // results left without entries are dropped
  EXPECT_EQ(drain(*start({a, b}, "example")), (strings{"a.example.com\tn:50:1", "www.example.com\tn:200:3"}));
}

TEST_F(tgdb_merger_files, rdata_keys_are_matched_once_on_their_first_line) {
  // Equal wire form and type make one key whatever the text before the tab;
  // the writer keeps such lines in the order given.
  auto a = file({"ten\t4/0a000001 4:100:1", "10.0.0.1\t4/0a000001 4:100:2", "10.0.0.2\t4/0a000002 4:100:1",
                 "ns.soa\t3/010203 s:5:1"},
                {.rdata = true});
  auto b = file({"ten\t4/0a000001 4:200:4"}, {.rdata = true});
  EXPECT_EQ(drain(*start({a, b, file({"10.0.0.1\t4:1:1"})}, "^10\\.", tgdb_kind::rdata)), (strings{"10.0.0.2\t4:100:1"}));

  auto m = start({a, b}, "^ten$|soa", tgdb_kind::rdata);
  auto soa = search_next(*m), ten = search_next(*m);
  ASSERT_TRUE(soa && ten);
  EXPECT_TRUE(soa->wildcard);
  EXPECT_EQ(ctx.counters.candidates, 1u);
  EXPECT_EQ(ten->rdata, (std::vector<uint8_t>{10, 0, 0, 1}));
  EXPECT_EQ(rrname_line(ten->name, ten->entries), "ten\t4:100,100:7");
  EXPECT_FALSE(ten->wildcard);
}

TEST_F(tgdb_merger_files, file_and_complete_time_checks_end_or_narrow_the_search) {
  auto early = file({"a.test\t4:100,100:1"}), late = file({"b.test\t4:300,100:1"});
  auto untimed = file({"c.test\t4:1:1"}, {.time_range = false});
  struct {
    void (*set)(search_context&, int64_t);
    int64_t bound;
    dbs files;
    strings want;
    size_t candidates;  // lines matched: a file skipped by its range offers none
    bool finished;      // the whole search ended at once
  } cases[] = {
      {set_time_first_before, 0x300, {early, late}, {"a.test\t4:100,100:1"}, 1, false},
      {set_time_first_before, 0x300, {late, early}, {"a.test\t4:100,100:1"}, 1, false},
      {set_time_first_after, 0x300, {early, late}, {"b.test\t4:300,100:1"}, 2, false},
      {set_time_first_after, 0x401, {early, late}, {}, 0, true},
      {set_time_first_after, 1, {untimed}, {}, 0, true},
      {set_time_last_before, 0xff, {early, late}, {}, 0, true},
      // The earliest first-seen of all files bounds the search, whichever
      // order they come in.
      {set_time_last_before, 0x200, {late, early}, {"a.test\t4:100,100:1"}, 2, false},
  };
  for (const auto& c : cases) {
    ctx = search_context();
    c.set(ctx, c.bound);
    auto m = start(c.files, "test");
    size_t candidates = 0;
    strings got;
    while (auto r = search_next(*m)) {
      candidates += ctx.counters.candidates;
      got.push_back(rrname_line(r->name, r->entries));
    }
    candidates += ctx.counters.candidates;
    EXPECT_EQ(got, c.want) << c.bound;
    EXPECT_EQ(candidates, c.candidates) << c.bound;
    EXPECT_EQ(m->finished(), c.finished) << c.bound;
  }
}

TEST_F(tgdb_merger_files, counts_saturate_rather_than_wrap) {
  const uint64_t max = UINT64_MAX;
  for (const auto& [have, line, want] : {std::tuple{max - 1, "k\t4:1:5", max},
                                         {uint64_t{1} << 63, "k\t4:1:1", (uint64_t{1} << 63) + 1},
                                         {max, "k\t1/00 4:1:ffffffff", max}}) {
    std::unique_ptr<search_result> slot = std::make_unique<search_result>();
    slot->entries = {{1, have, 1, 1}};
    if (std::string_view(line).find('/') == std::string_view::npos) {
      merge_rrname(slot, line);
    } else {
      slot->rdata = {0};
      merge_rdata(slot, line);
    }
    EXPECT_EQ(slot->entries.front().count, want) << line;
  }
  search_entry twice{1, uint64_t{1} << 63, 1, 1};
  fold_entry(twice, twice);  // one file holding 2^63, searched twice
  EXPECT_EQ(twice.count, max);
}

// A file whose part of the search fails leaves the search incomplete; the
// other files still give their results.
TEST_F(tgdb_merger_files, failing_files_make_the_search_incomplete) {
  auto good = file({"a.test\t4:1:1"});
  auto bad = file({"b.test\t4:1:1", "c.test\t4:1:1"});
  auto m = start({good, bad}, "test");
  EXPECT_FALSE(m->incomplete());
  ASSERT_EQ(truncate(bad->path().c_str(), 4096), 0);
  log_capture log;
  // The line the file offered was lost with it.
  EXPECT_EQ(drain(*m), (strings{"a.test\t4:1:1"}));
  EXPECT_TRUE(m->incomplete());
  EXPECT_TRUE(log.contains("Error: index file " + bad->path() + " shrank while in use")) << log.text();
  // An rdata file: its line in the heap, lost, must not end the process
  // as a line without a tab would.
  auto data = file({"a.test\t1/01 4:1:1"}, {.rdata = true});
  auto lost = file({"b.test\t1/02 4:1:1", "c.test\t1/03 4:1:1"}, {.rdata = true});
  m = start({data, lost}, "test", tgdb_kind::rdata);
  ASSERT_EQ(truncate(lost->path().c_str(), 4096), 0);
  EXPECT_EQ(drain(*m), (strings{"a.test\t4:1:1"}));
  EXPECT_TRUE(m->incomplete());
  m = start({good}, "test");
  m->file_failed();  // as a data source does for a file it could not load
  EXPECT_EQ(drain(*m), (strings{"a.test\t4:1:1"}));
  EXPECT_TRUE(m->incomplete());
}

TEST_F(tgdb_merger_files, deadline_ends_the_search_with_the_results_so_far) {
  strings lines;
  for (int i = 0; i < 50; ++i) lines.push_back(std::to_string(i) + ".h.test\t4:1:1");
  auto a = file(lines), b = file(lines);
  int allowed = 0;  // checks to let pass before refusing once
  set_timeout_callback(ctx, [&](timespec&, int64_t) { return allowed-- != 0; });
  timespec past{1, 0};
  set_deadline_time(ctx, &past);
  EXPECT_TRUE(drain(*start({a, b}, "test")).empty()) << "timed out while adding the first file";
  allowed = 1000;
  auto m = start({a, b}, "test");
  allowed = 30;
  EXPECT_EQ(drain(*m).size(), 15u) << "one check per line, two lines per key";
}

TEST_F(tgdb_merger_files, counters_describe_the_latest_call) {
  strings lines;
  for (int i = 0; i < 1000; ++i) lines.push_back("host" + std::to_string(i) + ".example\t4:1:1");
  auto a = file(lines);
  auto m = start({a}, "host1");
  uint64_t bytes = 0, pages = 0, matches = 0, candidates = 0;
  timespec first{};
  for (bool more = true; more;) {
    more = search_next(*m) != nullptr;
    const search_counters& c = ctx.counters;
    bytes += c.bytes_read, pages += c.pages_read, matches += c.pattern_matches, candidates += c.candidates;
    EXPECT_EQ(take_first_match_time(ctx, first), more);
  }
  const std::string_view table = a->string_table();
  EXPECT_NE(first.tv_sec, 0);
  // The first line is read while adding the file.
  EXPECT_EQ(std::tuple(candidates, matches, bytes, pages),
            std::tuple(1000u, 111u, table.size() - table.find('\n') - 1, table.size() / 4096));
}

}  // namespace

// byname and byvalue files: equal records merge across files, every record
// is a result of its own, and the records of one key are matched once.
class tgdb_merger_linked : public tgdb_merger_files {
 protected:
  strings drain_linked(tgdb_merger& m, uint64_t* candidates = nullptr) {
    strings out;
    uint64_t seen = 0;
    while (auto r = search_next(m)) {
      seen += ctx.counters.candidates;
      EXPECT_EQ(r->kind, m.kind());
      out.push_back(linked_line(r->kind, linked_record_of(*r)));
    }
    if (candidates) *candidates = seen + ctx.counters.candidates;
    return out;
  }
};

TEST_F(tgdb_merger_linked, merges_equal_records_of_several_files) {
  const index_options by_name{.kind = tgdb_kind::byname}, by_value{.kind = tgdb_kind::byvalue};
  auto a = file({"login.example.com\t4:100,10:2\t192.0.2.7", "login.example.com\tn:50:1\tns1.example.net",
                 "www.example.com\t4:10:1\t192.0.2.7", "login.example.org\t4:1:1\t192.0.2.9"},
                by_name);
  auto b = file({"login.example.com\t4:90,5:ffffffff\t192.0.2.7", "login.example.com\t4:300:1\t192.0.2.8"}, by_name);
  auto names = file({"login.example.com\t4:1:1"});  // another kind: left out
  uint64_t candidates = 0;
  EXPECT_EQ(drain_linked(*start({a, names, b}, "^login\\.", tgdb_kind::byname), &candidates),
            (strings{"login.example.com\t4:90,80:ffffffff\t192.0.2.7", "login.example.com\t4:300:1\t192.0.2.8",
                     "login.example.com\tn:50:1\tns1.example.net", "login.example.org\t4:1:1\t192.0.2.9"}));
  EXPECT_EQ(candidates, 3u) << "one match per name (www.example.com's too)";
  set_time_last_after(ctx, 0x200);
  EXPECT_EQ(drain_linked(*start({a, b}, "example\\.com", tgdb_kind::byname)),
            (strings{"login.example.com\t4:300:1\t192.0.2.8"}));

  ctx = search_context();
  auto v = file({"192.0.2.7\t4:100:1\tlogin.example.com", "192.0.2.7\t4:10:1\twww.example.com",
                 "192.0.2.70\t4:1:1\tx.test", "ns1.example.net\tn:50:1\tlogin.example.com"},
                by_value);
  auto w = file({"192.0.2.7\t4:20:2\twww.example.com", "192.0.2.7\t4:5:1\ta.example.com"}, by_value);
  EXPECT_EQ(drain_linked(*start({v, w}, "^192\\.0\\.2\\.7$|^ns1\\.", tgdb_kind::byvalue, true), &candidates),
            (strings{"192.0.2.7\t4:5:1\ta.example.com", "192.0.2.7\t4:10,10:3\twww.example.com",
                     "192.0.2.7\t4:100:1\tlogin.example.com", "ns1.example.net\tn:50:1\tlogin.example.com"}));
  EXPECT_EQ(candidates, 2u);
}
