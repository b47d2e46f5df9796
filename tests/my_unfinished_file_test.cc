#include "libmy/my_unfinished_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/temp_dir.h"

namespace {

// An interrupted run removes the files it was still writing, keeps those it
// finished, says so, and still ends by the signal.
TEST(my_unfinished_file, interrupt_removes_unfinished_files_and_ends_by_the_signal) {
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
    temp_dir dir;
    const std::string writing = dir.write("writing", "x"), done = dir.write("done", "x"), err = dir.file("err");
    const pid_t pid = fork();
    if (pid == 0) {
      const int fd = open(err.c_str(), O_WRONLY | O_CREAT, 0600);
      if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(127);
      remove_unfinished_files_on_signal("interrupted\n");
      const unfinished_file unfinished(writing);
      { const unfinished_file finished(done); }
      raise(sig);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << sig;
    EXPECT_FALSE(std::filesystem::exists(writing)) << sig;
    EXPECT_TRUE(std::filesystem::exists(done)) << sig;
    EXPECT_EQ(read_file(err), "interrupted\n");
  }
}

}  // namespace
