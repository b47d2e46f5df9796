#include "libmy/my_fileset.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "tests/support/temp_dir.h"

namespace {

using strings = std::vector<std::string>;

// Records every load and unload; a load's data is its sequence number.
struct recorder {
  strings events;
  int loads = 0;
  std::unique_ptr<my_fileset<int>> open(const std::string& setfile) {
    return std::make_unique<my_fileset<int>>(
        setfile, [this](const std::string& p) { events.push_back("load " + p); return ++loads; },
        [this](const std::string& p, int& d) { events.push_back("unload " + p + " #" + std::to_string(d)); });
  }
  strings take() { return std::exchange(events, {}); }
};

strings listing(const my_fileset<int>& fs) {
  strings out;
  for (size_t i = 0; const auto* e = fs.get(i); ++i) out.push_back(e->fname + " #" + std::to_string(e->data));
  return out;
}

TEST(my_fileset, reloads_when_the_set_file_is_replaced) {
  temp_dir dir;
  const std::string d = dir.path();
  recorder rec;
  EXPECT_DEATH(rec.open(dir.file("set")), "path_exists\\(setfile\\)");
  auto fs = rec.open(dir.write("set", "b\n/0/a\nc\r\n\nb"));
  fs->reload();  // loads in line order; lists in name order
  EXPECT_EQ(rec.take(), (strings{"load " + d + "/b", "load /0/a", "load " + d + "/c\r", "load " + d + "/",
                                 "load " + d + "/b"}));
  EXPECT_EQ(listing(*fs), (strings{"/0/a #2", d + "/ #4", d + "/b #1", d + "/b #5", d + "/c\r #3"}));
  fs->reload();
  EXPECT_TRUE(rec.take().empty());

  // Renamed over, maybe within the same second: a new inode. Kept names are
  // neither loaded nor unloaded; both b lines share the old entry the lookup finds.
  ASSERT_EQ(rename(dir.write("next", "z\nb\nb\n/0/a\n").c_str(), dir.file("set").c_str()), 0);
  fs->reload();
  EXPECT_EQ(rec.take(), (strings{"load " + d + "/z", "unload " + d + "/ #4", "unload " + d + "/b #5",
                                 "unload " + d + "/c\r #3"}));
  EXPECT_EQ(listing(*fs), (strings{"/0/a #2", d + "/b #1", d + "/b #1", d + "/z #6"}));

  ASSERT_EQ(unlink(dir.file("set").c_str()), 0);
  testing::internal::CaptureStderr();
  fs->reload();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "setfile_updated: stat('" + d + "/set') failed: No such file or directory\n");
  fs.reset();
  EXPECT_EQ(rec.take(), (strings{"unload /0/a #2", "unload " + d + "/b #1", "unload " + d + "/b #1",
                                 "unload " + d + "/z #6"}));
}

}  // namespace
