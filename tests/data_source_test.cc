// The index-list and fileset data sources.
#include "fileset/data_source.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "libmy/my_time.h"
#include "tests/support/index_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tgdb/record_line.h"
#include "tgdb/tgdb_merger.h"
#include "trigram/matcher.h"

namespace {

int64_t fake_seconds = 1000;

class data_source_files : public ::testing::Test {
 protected:
  void SetUp() override {
    my_time_set_clock([] { return timespec{fake_seconds, 0}; });
    write_index(dir.file("a.idx"), {"a.test\t4:10:1"});
    write_index(dir.file("b.idx"), {"b.test\tn:20:2"});
    write_index(dir.file("r.idx"), {"10.0.0.1\t4/0a000001 4:10:1"}, {.rdata = true});
    dir.write("junk.idx", "not an index");
  }
  void TearDown() override { my_time_set_clock(nullptr); }

  // Results of one search over `source`, or "null" when it yields none.
  std::vector<std::string> search(data_source& source) {
    search_context ctx;
    EXPECT_TRUE(compile_search(ctx, ".", false, nullptr, nullptr));
    auto m = data_source_start(source, ctx);
    if (!m) return {"null"};
    std::vector<std::string> out;
    while (auto r = search_next(*m)) out.push_back(rrname_line(r->name, r->entries));
    return out;
  }

  temp_dir dir;
};

using strings = std::vector<std::string>;

TEST_F(data_source_files, index_list_keeps_one_kind) {
  log_capture log;
  auto list = index_list_create();
  EXPECT_TRUE(index_list_add(*list, dir.file("b.idx").c_str()));
  EXPECT_TRUE(index_list_add(*list, dir.file("a.idx").c_str()));
  EXPECT_FALSE(index_list_add(*list, dir.file("r.idx").c_str()));
  EXPECT_FALSE(index_list_add(*list, dir.file("junk.idx").c_str()));
  EXPECT_TRUE(log.contains("rdata file " + dir.file("r.idx") + " rejected from rrname file list\n"));
  EXPECT_EQ(search(*index_list_data_source(*list)), (strings{"a.test\t4:10:1", "b.test\tn:20:2"}));
}

TEST_F(data_source_files, fileset_loads_what_it_can_of_the_first_kind) {
  const std::tuple<std::string, strings, std::string> cases[] = {  // set file, results, log
      // Relative names are taken against the set file's directory; a name
      // listed twice is loaded twice.
      {"a.idx\nr.idx\n" + dir.file("b.idx") + "\na.idx\n", {"a.test\t4:10:2", "b.test\tn:20:2"},
       "rdata file " + dir.file("r.idx") + " rejected from rrname fileset " + dir.file("set")},
      {"r.idx\na.idx", {"10.0.0.1\t4:10:1"},
       "rrname file " + dir.file("a.idx") + " rejected from rdata fileset " + dir.file("set")},
      {"missing.idx\njunk.idx\n", {"null"}, "Fileset " + dir.file("set") + ": cannot read " + dir.file("missing.idx")},
  };
  for (const auto& [listing, want, message] : cases) {
    dir.write("set", listing);
    log_capture log;
    auto source = fileset_init(dir.file("set").c_str());
    EXPECT_EQ(search(*fileset_data_source(*source)), want) << listing;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
}

TEST_F(data_source_files, fileset_follows_its_set_file_every_few_seconds) {
  dir.write("set", "a.idx\n");
  auto source = fileset_init(dir.file("set").c_str());
  data_source& ds = *fileset_data_source(*source);
  dir.write("set.new", "b.idx\n");
  ASSERT_EQ(rename(dir.file("set.new").c_str(), dir.file("set").c_str()), 0);
  log_capture log;
  fake_seconds += 5;
  EXPECT_EQ(search(ds), (strings{"a.test\t4:10:1"})) << "not looked at within 5 seconds";
  fake_seconds += 1;
  EXPECT_EQ(search(ds), (strings{"b.test\tn:20:2"}));
  EXPECT_TRUE(log.contains("Fileset " + dir.file("set") + " unloading " + dir.file("a.idx")));
}

}  // namespace
