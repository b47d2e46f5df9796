// Merging candidate lines of several index files into filtered results.
#include "tgdb/tgdb_merger.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/index_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "trigram/matcher.h"

namespace {

using strings = std::vector<std::string>;
using dbs = std::vector<std::shared_ptr<const tgdb>>;

class tgdb_merger_files : public ::testing::Test {
 protected:
  std::shared_ptr<const tgdb> file(strings lines, const index_options& opts = {}) {
    return tgdb_open(write_index(dir.file(std::to_string(++files) + ".tgdb"), std::move(lines), opts).c_str());
  }

  // Candidates come from a scan of every line, or with `query` from the
  // pattern's trigram query.
  std::unique_ptr<tgdb_merger> start(const dbs& files, const char* pattern, bool rdata = false, bool query = false) {
    EXPECT_TRUE(compile_search(ctx, pattern, false, nullptr, nullptr));
    if (!query) ctx.query.reset();
    auto m = search_create(ctx, rdata);
    for (const auto& db : files) search_add_index(*m, db);
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
  EXPECT_EQ(drain(*start({a, b}, "example", false, true)), want);
  set_rrtype_filter(ctx, 2);  // results left without entries are dropped
  EXPECT_EQ(drain(*start({a, b}, "example")), (strings{"a.example.com\tn:50:1", "www.example.com\tn:200:3"}));
}

TEST_F(tgdb_merger_files, rdata_keys_are_matched_once_on_their_first_line) {
  // Equal wire form and type make one key whatever the text before the tab;
  // the writer keeps such lines in the order given.
  auto a = file({"ten\t4/0a000001 4:100:1", "10.0.0.1\t4/0a000001 4:100:2", "10.0.0.2\t4/0a000002 4:100:1",
                 "ns.soa\t3/010203 s:5:1"}, {.rdata = true});
  auto b = file({"ten\t4/0a000001 4:200:4"}, {.rdata = true});
  EXPECT_EQ(drain(*start({a, b, file({"10.0.0.1\t4:1:1"})}, "^10\\.", true)), (strings{"10.0.0.2\t4:100:1"}));

  auto m = start({a, b}, "^ten$|soa", true);
  auto soa = search_next(*m), ten = search_next(*m);
  ASSERT_TRUE(soa && ten);
  EXPECT_TRUE(soa->wildcard);
  EXPECT_EQ(ctx.candidates, 1u);
  EXPECT_EQ(ten->rdata, (std::vector<uint8_t>{10, 0, 0, 1}));
  EXPECT_EQ(rrname_line(ten->name, ten->entries), "ten\t4:100,100:7");
  EXPECT_FALSE(ten->wildcard);
}

TEST(tgdb_merger, finishing_fills_last_seen_and_count_before_filtering) {
  const std::tuple<uint16_t, uint64_t, int64_t, strings> cases[] = {  // type, count and last-seen filters, result
      {0, 1, 100, {"\tn:64:1 4:64,1:2"}}, {1, 0, 0, {"\t4:64,1:2"}}, {0, 2, 0, {"\t4:64,1:2"}},
      {0, 0, 101, {"\t4:64,1:2"}},       {0, 3, 0, {}},
  };
  for (const auto& [type_filter, count_min, last_after, want] : cases) {
    search_context ctx;
    set_rrtype_filter(ctx, type_filter);
    set_count_filter(ctx, count_min, 0);
    if (last_after) set_time_last_after(ctx, last_after);
    search_result r;
    r.entries = {{2, 0, 100, 0}, {1, 2, 100, 101}};
    const bool kept = finish_result(ctx, r);
    EXPECT_EQ(kept ? strings{rrname_line("", r.entries)} : strings{}, want) << count_min << " " << last_after;
  }
}

TEST(tgdb_merger, time_filters_are_inclusive_per_record_and_strict_per_file) {
  enum : int { FB = 1, FA = 2, LB = 4, LA = 8 };
  struct {
    int set;
    int64_t bound, first, last;  // the one bound goes to every filter set
    bool record, file;
  } cases[] = {
      {0, 0, 10, 20, true, true},     {FB, 10, 10, 20, true, false},    {FB, 11, 10, 20, true, true},
      {FB, 9, 10, 20, false, false},  {LA, 20, 10, 20, true, false},    {LA, 19, 10, 20, true, true},
      {LA, 21, 10, 20, false, false}, {FA, 11, 10, 20, false, true},    {LB, 20, 10, 20, true, true},
      {LB, 19, 10, 20, false, true},  {FB | LA, 10, 10, 20, true, true}, {FB | LA, 10, 10, 10, true, false},
  };
  for (const auto& c : cases) {
    search_context ctx;
    if (c.set & FB) set_time_first_before(ctx, c.bound);
    if (c.set & FA) set_time_first_after(ctx, c.bound);
    if (c.set & LB) set_time_last_before(ctx, c.bound);
    if (c.set & LA) set_time_last_after(ctx, c.bound);
    EXPECT_EQ(time_filter(ctx, c.first, c.last), c.record) << c.set << " " << c.bound;
    EXPECT_EQ(file_time_filter(ctx, c.first, c.last), c.file) << c.set << " " << c.bound;
  }
}

TEST_F(tgdb_merger_files, file_and_complete_time_checks_end_or_narrow_the_search) {
  auto early = file({"a.test\t4:100,100:1"}), late = file({"b.test\t4:300,100:1"});
  auto untimed = file({"c.test\t4:1:1"}, {.time_range = false});
  struct {
    void (*set)(search_context&, int64_t);
    int64_t bound;
    dbs files;
    strings want;
    const char* log;
  } cases[] = {
      {set_time_first_before, 0x300, {early, late}, {"a.test\t4:100,100:1"}, "Skipping"},
      {set_time_first_after, 0x300, {early, late}, {"b.test\t4:300,100:1"}, "Adding"},
      {set_time_first_after, 0x401, {early, late}, {}, "time_first_after out of range, finishing query"},
      {set_time_first_after, 1, {untimed}, {}, "time_first_after out of range, finishing query"},
      {set_time_last_before, 0xff, {early, late}, {}, "time_last_before out of range, finishing query"},
  };
  for (const auto& c : cases) {
    ctx = search_context();
    c.set(ctx, c.bound);
    log_capture log;
    EXPECT_EQ(drain(*start(c.files, "test")), c.want) << c.log;
    EXPECT_TRUE(log.contains(c.log)) << log.text();
  }
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
    bytes += ctx.bytes_read, pages += ctx.pages_read, matches += ctx.pattern_matches, candidates += ctx.candidates;
    EXPECT_EQ(take_first_match_time(ctx, first), more);
  }
  const std::string_view table = a->string_table();
  EXPECT_NE(first.tv_sec, 0);
  // The first line is read while adding the file.
  EXPECT_EQ(std::tuple(candidates, matches, bytes, pages),
            std::tuple(1000u, 111u, table.size() - table.find('\n') - 1, table.size() / 4096));
}

}  // namespace
