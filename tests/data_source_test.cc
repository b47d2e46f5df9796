// The index-list and fileset data sources.
#include "fileset/data_source.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "libmy/my_time.h"
#include "tests/support/index_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"
#include "tgdb/linked_line.h"
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
    write_index(dir.file("n.idx"), {"a.test\t4:10:1\t10.0.0.1"}, {.kind = tgdb_kind::byname});
    write_index(dir.file("v.idx"), {"10.0.0.1\t4:10:1\ta.test"}, {.kind = tgdb_kind::byvalue});
    dir.write("junk.idx", "not an index");
  }
  void TearDown() override { my_time_set_clock(nullptr); }

  // Results of one search over `source`, or "null" when it yields none;
  // "incomplete" ends them when some file's part failed.
  std::vector<std::string> search(data_source& source) {
    search_context ctx;
    EXPECT_TRUE(compile_search(ctx.match, ".", false, nullptr, nullptr));
    auto m = data_source_start(source, ctx);
    if (!m) return {"null"};
    std::vector<std::string> out;
    while (auto r = search_next(*m))
      out.push_back(tgdb_kind_linked(r->kind) ? linked_line(r->kind, linked_record_of(*r)) : rrname_line(r->name, r->entries));
    if (m->incomplete()) out.push_back("incomplete");
    return out;
  }

  // Replaces the set file by a rename, as a careful writer does.
  void list(const std::string& listing) {
    dir.write("set.new", listing);
    ASSERT_EQ(rename(dir.file("set.new").c_str(), dir.file("set").c_str()), 0);
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

  list = index_list_create();
  for (const char* name : {"n.idx", "a.idx", "v.idx", "n.idx"})
    EXPECT_EQ(index_list_add(*list, dir.file(name).c_str()), name == std::string("n.idx")) << name;
  EXPECT_TRUE(log.contains("rrname file " + dir.file("a.idx") + " rejected from byname file list\n"));
  EXPECT_TRUE(log.contains("byvalue file " + dir.file("v.idx") + " rejected from byname file list\n"));
  EXPECT_EQ(search(*index_list_data_source(*list)), (strings{"a.test\t4:10:2\t10.0.0.1"}));
}

TEST_F(data_source_files, fileset_loads_what_it_can_of_the_first_kind) {
  const std::tuple<std::string, strings, std::string> cases[] = {
      // set file, results, log
      // Relative names are taken against the set file's directory; a name
      // listed twice is loaded twice.
      {"a.idx\nr.idx\n" + dir.file("b.idx") + "\na.idx\n",
       {"a.test\t4:10:2", "b.test\tn:20:2"},
       "rdata file " + dir.file("r.idx") + " rejected from rrname fileset " + dir.file("set")},
      {"r.idx\na.idx",
       {"10.0.0.1\t4:10:1"},
       "rrname file " + dir.file("a.idx") + " rejected from rdata fileset " + dir.file("set")},
      // Files of the new kinds: each kind keeps to its own sets.
      {"v.idx\nn.idx\nv.idx\n",
       {"10.0.0.1\t4:10:2\ta.test"},
       "byname file " + dir.file("n.idx") + " rejected from byvalue fileset " + dir.file("set")},
      {"a.idx\nn.idx\n",
       {"a.test\t4:10:1"},
       "byname file " + dir.file("n.idx") + " rejected from rrname fileset " + dir.file("set")},
      {"missing.idx\njunk.idx\n", {"null"}, "Fileset " + dir.file("set") + ": cannot read " + dir.file("missing.idx")},
      // A file that cannot be loaded leaves every search incomplete.
      {"a.idx\nmissing.idx\n",
       {"a.test\t4:10:1", "incomplete"},
       "Fileset " + dir.file("set") + ": " + dir.file("missing.idx") +
           " could not be loaded, so this search is incomplete"},
      {"a.idx\njunk.idx\n",
       {"a.test\t4:10:1", "incomplete"},
       "could not deserialize trigram index from file: " + dir.file("junk.idx")},
      // Names are shown with their invisible bytes made visible.
      {"a.idx\r\n",
       {"null"},
       "Fileset " + dir.file("set") + ": cannot read " + dir.file("a.idx") + "\\r: No such file"},
      // Only regular files are opened; a FIFO must not block the search.
      {"fifo\nb.idx\n", {"b.test\tn:20:2", "incomplete"}, "\"" + dir.file("fifo") + "\": is a FIFO"},
      {".\nb.idx\n", {"b.test\tn:20:2", "incomplete"}, "\"" + dir.file(".") + "\": is a directory"},
  };
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  for (const auto& [listing, want, message] : cases) {
    dir.write("set", listing);
    log_capture log;
    auto source = fileset_init(dir.file("set").c_str());
    EXPECT_EQ(search(*fileset_data_source(*source)), want) << listing;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
}

TEST_F(data_source_files, set_file_that_is_not_a_regular_file_is_refused) {
  ASSERT_EQ(mkfifo(dir.file("set").c_str(), 0600), 0);
  testing::internal::CaptureStderr();
  auto source = fileset_init(dir.file("set").c_str());
  EXPECT_EQ(search(*fileset_data_source(*source)), strings{"null"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "setfile_updated: cannot read '" + dir.file("set") + "': is a FIFO\n");
}

TEST_F(data_source_files, fileset_follows_its_set_file_every_few_seconds) {
  dir.write("set", "a.idx\n");
  auto source = fileset_init(dir.file("set").c_str());
  data_source& ds = *fileset_data_source(*source);
  // Each step: seconds passed, the new listing (if any), and what a search
  // then finds. The set file is looked at only when more than 5 whole
  // seconds have passed since it was last looked at.
  const std::tuple<int, const char*, strings> steps[] = {
      {5, "b.idx\n", {"a.test\t4:10:1"}},
      {1, nullptr, {"b.test\tn:20:2"}},
      {3, "a.idx\nb.idx\n", {"b.test\tn:20:2"}},
      {2, nullptr, {"b.test\tn:20:2"}},  // 5 seconds after the last look
      {1, nullptr, {"a.test\t4:10:1", "b.test\tn:20:2"}},
      // A FIFO appearing at a reload is refused without blocking.
      {6, "fifo\n", {"null"}},
  };
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  for (const auto& [seconds, listing, want] : steps) {
    if (listing) list(listing);
    fake_seconds += seconds;
    EXPECT_EQ(search(ds), want) << seconds << " " << (listing ? listing : "");
  }
}

TEST_F(data_source_files, a_file_that_shrinks_under_a_search_ends_only_its_part) {
  auto list = index_list_create();
  ASSERT_TRUE(index_list_add(*list, dir.file("a.idx").c_str()));
  ASSERT_TRUE(index_list_add(*list, dir.file("b.idx").c_str()));
  data_source& ds = *index_list_data_source(*list);
  EXPECT_EQ(search(ds), (strings{"a.test\t4:10:1", "b.test\tn:20:2"}));
  std::ofstream(dir.file("a.idx"), std::ios::trunc) << "small";  // cp of a smaller file over it
  log_capture log;
  EXPECT_EQ(search(ds), (strings{"b.test\tn:20:2", "incomplete"}));
  EXPECT_TRUE(
      log.contains("Error: index file " + dir.file("a.idx") + " shrank while in use; its part of this search ends"));
}

// Through the program: the search prints what the other files hold, names
// the file it lacks and fails, which ends a session on standard input.
TEST_F(data_source_files, an_incomplete_search_fails_the_run) {
  dir.write("set", "a.idx\nmissing.idx\n");
  const run_result r = run_vornsearch({"-f", dir.file("set"), "-r"}, "test\nexample\n");
  EXPECT_EQ(r.out, "a.test\t4:10:1\n");
  EXPECT_NE(r.err.find("Fileset " + dir.file("set") + ": " + dir.file("missing.idx") + " could not be loaded"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.err.find("search-2"), std::string::npos) << r.err;
  EXPECT_EQ(r.status, 1);
  // Only regular files are index files: a FIFO is refused, not waited on.
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  const run_result fifo = run_vornsearch({"-l", dir.file("fifo"), "-s", "x"});
  EXPECT_NE(fifo.err.find("Error opening database file \"" + dir.file("fifo") + "\": is a FIFO"), std::string::npos)
      << fifo.err;
  EXPECT_EQ(fifo.status, 1);
}

// With more files than the system lets a process map, some fail to load: the
// search says so instead of answering from the rest as if that were all.
TEST_F(data_source_files, a_file_that_cannot_be_mapped_makes_searches_incomplete) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator needs address space of its own";
#endif
  dir.write("set", "a.idx\n");
  auto source = fileset_init(dir.file("set").c_str());
  data_source& ds = *fileset_data_source(*source);
  list("a.idx\nb.idx\n");
  fake_seconds += 6;
  const auto search_with_little_address_space = [&] {
    // Room for small allocations, none for another index file.
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t limit = rlim_t(pages) * rlim_t(sysconf(_SC_PAGESIZE)) + (512 << 10);
    const rlimit r{limit, limit};
    setrlimit(RLIMIT_AS, &r);
    log_set_stream(stderr);
    log_set_level(LOG_ERROR);
    exit(search(ds) == strings{"a.test\t4:10:1", "incomplete"} ? 0 : 1);
  };
  EXPECT_EXIT(search_with_little_address_space(), testing::ExitedWithCode(0),
              "mmap: Cannot allocate memory(.|\n)*could not be loaded, so this search is incomplete");
}

}  // namespace
