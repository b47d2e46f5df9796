// Merging candidate lines of several index files into filtered results.
#include "tgdb/tgdb_merger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>

#include "tests/support/index_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "trigram/matcher.h"

namespace {

struct run_opts {
  bool rdata = false;
  bool literal_query = false;  // also filter by the pattern's trigrams
};

class tgdb_merger_files : public ::testing::Test {
 protected:
  std::shared_ptr<const tgdb> file(std::vector<std::string> lines, const index_options& opts = {}) {
    return tgdb_open(write_index(dir.file(std::to_string(++files) + ".tgdb"), std::move(lines), opts).c_str());
  }

  std::unique_ptr<tgdb_merger> start(const std::vector<std::shared_ptr<const tgdb>>& dbs, const char* pattern,
                                     run_opts o = {}) {
    std::string err;
    EXPECT_TRUE(compile_search(ctx, pattern, false, nullptr, &err)) << err;
    if (o.literal_query) ctx.query = literal_trigrams(pattern, false, false);
    auto m = search_create(ctx, o.rdata);
    for (const auto& db : dbs) search_add_index(*m, db);
    return m;
  }

  // Results as owner-name lines, entries sorted by type (their order
  // depends on which file's line came first).
  std::vector<std::string> drain(tgdb_merger& m) {
    std::vector<std::string> out;
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

using strings = std::vector<std::string>;

TEST_F(tgdb_merger_files, merges_types_counts_and_times_across_files) {
  auto a = file({"www.example.com\t4:100,10:2", "a.example.com\tn:50:1", "x.other.org\t4:1:1"});
  auto b = file({"www.example.com\tn:200:3 4:90,5:1", "b.example.com\tm"});
  auto m = start({a, b}, "example");
  EXPECT_EQ(drain(*m), (strings{"a.example.com\tn:50:1", "b.example.com\tm:0:1",
                                "www.example.com\t4:90,80:3 n:200:3"}));
}

TEST_F(tgdb_merger_files, rdata_keys_are_matched_once_on_their_first_line) {
  // Equal wire form and type make one key whatever the text before the tab;
  // the writer keeps such lines in the order given.
  auto a = file({"ten\t4/0a000001 4:100:1", "10.0.0.1\t4/0a000001 4:100:2", "10.0.0.2\t4/0a000002 4:100:1",
                 "ns.soa\t3/010203 s:5:1"},
                {.rdata = true});
  auto b = file({"ten\t4/0a000001 4:200:4"}, {.rdata = true});
  auto owner = file({"10.0.0.1\t4:1:1"});
  auto m = start({a, b, owner}, "^10\\.", {.rdata = true});
  EXPECT_EQ(drain(*m), (strings{"10.0.0.2\t4:100:1"}));

  m = start({a, b}, "^ten$|soa", {.rdata = true});
  auto soa = search_next(*m);
  ASSERT_TRUE(soa);
  EXPECT_TRUE(soa->wildcard);
  auto ten = search_next(*m);
  ASSERT_TRUE(ten);
  EXPECT_EQ(ctx.candidates, 1u);
  EXPECT_EQ(ten->rdata, (std::vector<uint8_t>{10, 0, 0, 1}));
  EXPECT_EQ(rrname_line(ten->name, ten->entries), "ten\t4:100,100:7");
  EXPECT_FALSE(ten->wildcard);
  EXPECT_FALSE(search_next(*m));
}

TEST(tgdb_merger, finishing_fills_times_and_counts_then_filters) {
  struct {
    uint16_t type_filter;
    uint64_t count_min;
    int64_t last_after;
    strings want;
  } cases[] = {
      {0, 0, 0, {"n:64:1", "4:64,1:2"}},
      {1, 0, 0, {"4:64,1:2"}},
      {0, 2, 0, {"4:64,1:2"}},
      {0, 1, 0x64, {"n:64:1", "4:64,1:2"}},  // last-seen 0 counts as first-seen
      {0, 0, 0x65, {"4:64,1:2"}},
      {0, 3, 0, {}},
  };
  for (const auto& c : cases) {
    search_context ctx;
    set_rrtype_filter(ctx, c.type_filter);
    set_count_filter(ctx, c.count_min, 0);
    if (c.last_after) set_time_last_after(ctx, c.last_after);
    search_result r;
    r.entries = {{2, 0, 100, 0}, {1, 2, 100, 101}};
    EXPECT_EQ(finish_result(ctx, r), !c.want.empty());
    strings got;
    for (const auto& e : r.entries) got.push_back(rrname_line("", {&e, 1}).substr(1));
    if (!c.want.empty()) {
      EXPECT_EQ(got, c.want) << c.type_filter << " " << c.count_min << " " << c.last_after;
    }
  }
}

TEST(tgdb_merger, time_filters_are_inclusive_per_record_and_strict_per_file) {
  enum : int { FB = 1, FA = 2, LB = 4, LA = 8 };
  struct {
    int set;
    int64_t bound;  // every set bound takes this value
    int64_t first, last;
    bool record, file;
  } cases[] = {
      {0, 0, 10, 20, true, true},      {FB, 10, 10, 20, true, false},  {FB, 11, 10, 20, true, true},
      {FB, 9, 10, 20, false, false},   {LA, 20, 10, 20, true, false},  {LA, 19, 10, 20, true, true},
      {LA, 21, 10, 20, false, false},  {FA, 10, 10, 20, true, true},   {FA, 11, 10, 20, false, true},
      {LB, 20, 10, 20, true, true},    {LB, 19, 10, 20, false, true},  {FB | LA, 15, 10, 20, true, true},
      {FB | LA, 20, 10, 20, true, true}, {FB | LA, 10, 10, 20, true, true}, {FB | LA, 10, 10, 10, true, false},
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
  auto early = file({"a.test\t4:100,100:1"});
  auto late = file({"b.test\t4:300,100:1"});
  auto untimed = file({"c.test\t4:1:1"}, {.time_range = false});
  struct {
    void (*set)(search_context&, int64_t);
    int64_t bound;
    std::vector<std::shared_ptr<const tgdb>> dbs;
    strings want;
    const char* log;
  } cases[] = {
      {set_time_first_before, 0x300, {early, late}, {"a.test\t4:100,100:1"}, "Skipping"},
      {set_time_first_after, 0x401, {early, late}, {}, "time_first_after out of range, finishing query"},
      {set_time_first_after, 1, {untimed}, {}, "time_first_after out of range, finishing query"},
      {set_time_first_after, 0x300, {early, late}, {"b.test\t4:300,100:1"}, "Adding"},
      {set_time_last_before, 0xff, {early, late}, {}, "time_last_before out of range, finishing query"},
      {set_time_last_before, 0x3ff, {late, early}, {"a.test\t4:100,100:1"}, "Adding"},
  };
  for (const auto& c : cases) {
    ctx = search_context();
    c.set(ctx, c.bound);
    log_capture log;
    auto m = start(c.dbs, "test");
    EXPECT_EQ(drain(*m), c.want) << c.log;
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
  EXPECT_EQ(drain(*m).size(), 15u) << "two steps per key";
}

TEST_F(tgdb_merger_files, counters_describe_the_latest_call) {
  strings lines;
  for (int i = 0; i < 1000; ++i) lines.push_back("host" + std::to_string(i) + ".example\t4:1:1");
  auto a = file(lines);
  auto m = start({a}, "host1");
  const std::string_view table = a->string_table();
  uint64_t bytes = 0, pages = 0, matches = 0, candidates = 0;
  timespec first{};
  for (;;) {
    auto r = search_next(*m);
    bytes += ctx.bytes_read, pages += ctx.pages_read, matches += ctx.pattern_matches;
    candidates += ctx.candidates;
    EXPECT_EQ(take_first_match_time(ctx, first), bool(r)) << "one match per result";
    if (!r) break;
  }
  EXPECT_NE(first.tv_sec, 0);
  EXPECT_EQ(candidates, 1000u);
  EXPECT_EQ(matches, 111u);
  EXPECT_EQ(bytes, table.size() - table.find('\n') - 1) << "the first line is read while adding";
  EXPECT_EQ(pages, table.size() / 4096);
}

// Random records over several files against a plain model of the merge.
TEST_F(tgdb_merger_files, matches_a_model_on_random_files) {
  const char* getenv_count = getenv("VORN_PROPERTY_COUNT");
  const int rounds = getenv_count ? atoi(getenv_count) : 40;
  const char* names[] = {"example", "www.example", "mail.example", "a.test", "www.b.test", "test", "mx.mail.org"};
  const char* patterns[] = {"example", "www", "test", "mail"};
  const uint16_t types[] = {1, 2, 15, 16};
  std::mt19937 rng(17);
  auto pick = [&](int n) { return int(rng() % unsigned(n)); };
  for (int round = 0; round < rounds; ++round) {
    ctx = search_context();
    if (pick(3) == 0) set_time_first_before(ctx, 1 + pick(20));
    if (pick(3) == 0) set_time_last_after(ctx, 1 + pick(25));
    if (pick(3) == 0) set_rrtype_filter(ctx, types[pick(4)]);
    const char* pattern = patterns[pick(4)];
    std::map<std::string, std::map<uint16_t, search_entry>, decltype([](auto& a, auto& b) {
               return compare_rrname_lines(a, b) < 0;
             })> model;
    std::vector<std::shared_ptr<const tgdb>> dbs;
    for (int f = 1 + pick(4); f-- > 0;) {
      strings lines;
      std::map<std::string, std::vector<search_entry>> records;
      int64_t first = 1000, last = 0;
      for (const char* name : names) {
        if (pick(2)) continue;
        for (uint16_t t : types)
          if (pick(2)) {
            search_entry e{t, uint64_t(pick(3)), 1 + pick(20), 0};
            e.time_last = e.time_first + pick(5);
            first = std::min(first, e.time_first), last = std::max(last, e.time_last);
            records[name].push_back(e);
          }
        if (records.count(name)) lines.push_back(rrname_line(name, records[name]));
      }
      if (lines.empty()) continue;
      dbs.push_back(file(lines));
      if (!file_time_filter(ctx, first, last)) continue;
      for (auto& [name, entries] : records) {
        if (std::string(name).find(pattern) == std::string::npos) continue;
        for (const auto& e : entries) {
          auto [it, fresh] = model[name].try_emplace(e.rrtype, e);
          search_entry& m = it->second;
          if (fresh) continue;
          m.count += e.count;
          m.time_first = std::min(m.time_first, e.time_first);
          m.time_last = std::max(m.time_last, e.time_last);
        }
      }
    }
    strings want;
    for (auto& [name, by_type] : model) {
      search_result r;
      for (auto& [t, e] : by_type) r.entries.push_back(e);
      if (finish_result(ctx, r)) want.push_back(rrname_line(name, r.entries));
    }
    auto m = start(dbs, pattern, {.literal_query = bool(round % 2)});
    ASSERT_EQ(drain(*m), want) << "round " << round;
  }
}

}  // namespace
