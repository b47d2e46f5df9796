#include "libmy/my_unfinished_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

#include "tests/support/temp_dir.h"

namespace {

void write_file(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// Runs `body` in a child whose standard error goes to `err`, after the
// handling is installed; returns how the child ended.
int in_child(const std::string& err, const std::function<void()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(err.c_str(), O_WRONLY | O_CREAT, 0600);
    if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(127);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, SIG_DFL);  // as a fresh program finds them
    remove_unfinished_files_on_signal("interrupted\n");
    body();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

// An interrupted run removes the files it was still writing, keeps those it
// finished, says so, and still ends by the signal.
TEST(my_unfinished_file, interrupt_removes_unfinished_files_and_ends_by_the_signal) {
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
    temp_dir dir;
    const std::string writing = dir.write("writing", "x"), done = dir.write("done", "x"), err = dir.file("err");
    const int status = in_child(err, [&] {
      const unfinished_file unfinished(writing);
      { const unfinished_file finished(done); }
      kill(getpid(), sig);
      for (;;) pause();  // the interrupt ends it
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << sig;
    EXPECT_FALSE(std::filesystem::exists(writing)) << sig;
    EXPECT_TRUE(std::filesystem::exists(done)) << sig;
    EXPECT_EQ(read_file(err), "interrupted\n");
  }
}

// A held step runs to its end, and the interrupt then acts, with the
// message the step left; nothing after the step runs.
TEST(my_unfinished_file, an_interrupt_waits_for_a_held_step) {
  temp_dir dir;
  const std::string err = dir.file("err"), step = dir.file("step"), after = dir.file("after");
  const int status = in_child(err, [&] {
    {
      const interrupts_held held;
      kill(getpid(), SIGTERM);
      usleep(100 * 1000);  // time enough for a wrongly free interrupt to act
      write_file(step, "done");
      set_interrupt_message("interrupted after the step\n");
    }
    write_file(after, "ran on");
  });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(read_file(step), "done");
  EXPECT_FALSE(std::filesystem::exists(after));
  EXPECT_EQ(read_file(err), "interrupted after the step\n");
}

// Only our own naming beside the path, only for processes that are gone.
TEST(my_unfinished_file, stale_files_of_dead_processes_are_removed) {
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  const std::string gone = std::to_string(dead), alive = std::to_string(getppid());
  const std::pair<std::string, bool> cases[] = {  // name beside x.tgdb, removed
      {"x.tgdb.partial." + gone, true},
      {"x.tgdb.partial." + gone + ".tmp.a1B2c3", true},
      {"x.tgdb.partial." + gone + ".old", true},
      {"x.tgdb.partial." + alive, false},
      {"x.tgdb.partial." + std::to_string(getpid()) + ".tmp.a1B2c3", false},  // our own
      {"x.tgdb.partial." + gone + "x", false},
      {"x.tgdb.partial.", false},
      {"x.tgdb.partial.-1", false},
      {"x.tgdb.partial.99999999999999999999", false},
      {"y.tgdb.partial." + gone, false},
      {"x.tgdb", false},
      {"x.tgdb.tmp." + gone, false},
  };
  temp_dir dir;
  std::vector<std::string> want;
  for (const auto& [name, removed] : cases) {
    dir.write(name, "x");
    if (removed) want.push_back(dir.file(name));
  }
  std::vector<std::string> got = remove_stale_unfinished_files(dir.file("x.tgdb"));
  std::sort(got.begin(), got.end());
  std::sort(want.begin(), want.end());
  EXPECT_EQ(got, want);
  for (const auto& [name, removed] : cases) EXPECT_EQ(std::filesystem::exists(dir.file(name)), !removed) << name;
}

}  // namespace
