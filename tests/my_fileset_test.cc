#include "libmy/my_fileset.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "tests/support/temp_dir.h"

namespace {

// Records every load and unload; a load's data is its sequence number.
struct recorder {
  std::vector<std::string> events;
  int loads = 0;
  std::unique_ptr<my_fileset<int>> open(const std::string& setfile) {
    return std::make_unique<my_fileset<int>>(
        setfile, [this](const std::string& p) { events.push_back("load " + p); return ++loads; },
        [this](const std::string& p, int& d) { events.push_back("unload " + p + " #" + std::to_string(d)); });
  }
  std::vector<std::string> take() { return std::exchange(events, {}); }
};

std::vector<std::string> listing(const my_fileset<int>& fs) {
  std::vector<std::string> out;
  for (size_t i = 0; const auto* e = fs.get(i); ++i) out.push_back(e->fname + " #" + std::to_string(e->data));
  return out;
}

// Replaces the set file by renaming a new one over it, as tools do.
void replace(const temp_dir& dir, const std::string& contents) {
  ASSERT_EQ(rename(dir.write("next", contents).c_str(), dir.file("set").c_str()), 0);
}

TEST(my_fileset, reloads_when_the_set_file_is_replaced) {
  temp_dir dir;
  const std::string d = dir.path();
  recorder rec;
  auto fs = rec.open(dir.write("set", "b\n/0/a\nc\r\n\nb"));
  fs->reload();
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"load " + d + "/b", "load /0/a", "load " + d + "/c\r",
                                                  "load " + d + "/", "load " + d + "/b"}));
  EXPECT_EQ(listing(*fs), (std::vector<std::string>{"/0/a #2", d + "/ #4", d + "/b #1", d + "/b #5",
                                                    d + "/c\r #3"}));
  fs->reload();  // unchanged: nothing happens
  EXPECT_TRUE(rec.take().empty());

  replace(dir, "z\nb\nb\n/0/a\n");
  fs->reload();
  // Kept names are neither loaded nor unloaded; both b entries share the old
  // entry the lookup found.
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"load " + d + "/z", "unload " + d + "/ #4",
                                                  "unload " + d + "/b #5", "unload " + d + "/c\r #3"}));
  EXPECT_EQ(listing(*fs), (std::vector<std::string>{"/0/a #2", d + "/b #1", d + "/b #1", d + "/z #6"}));

  ASSERT_EQ(unlink(dir.file("set").c_str()), 0);
  testing::internal::CaptureStderr();
  fs->reload();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "setfile_updated: stat('" + dir.file("set") + "') failed: No such file or directory\n");
  EXPECT_EQ(listing(*fs).size(), 4u);

  fs.reset();
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"unload /0/a #2", "unload " + d + "/b #1",
                                                  "unload " + d + "/b #1", "unload " + d + "/z #6"}));
}

TEST(my_fileset, takes_relative_names_against_a_bare_set_file_name) {
  temp_dir dir;
  dir.write("set", "x\n");
  char* cwd = getcwd(nullptr, 0);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  recorder rec;
  auto fs = rec.open("set");
  fs->reload();
  EXPECT_EQ(listing(*fs), std::vector<std::string>{"./x #1"});
  EXPECT_EQ(chdir(cwd), 0);
  free(cwd);
  EXPECT_DEATH(rec.open(dir.file("missing")), "path_exists\\(setfile\\)");
}

}  // namespace
