// The end of an ixbake run, through the built program: the two files and
// the set files change together or not at all, whatever interrupts the run,
// and what a killed run leaves behind is cleared by the next one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "tests/support/property.h"
#include "tests/support/run_binary.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

const std::string sample = VORN_SOURCE_DIR "/data/sample-pdns.jsonl";

// Starts the built ixbake, standard error to `err`, with the signals as a
// fresh program finds them (a test runner may ignore some). With `stop`,
// the run stops itself between its first and second rename.
pid_t start_ixbake(const std::vector<std::string>& args, const std::string& err, bool stop = false) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(127);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, SIG_DFL);
    if (stop) setenv("IXBAKE_TEST_STOP_BETWEEN_RENAMES", "1", 1);
    std::vector<char*> argv{const_cast<char*>(IXBAKE_BIN), const_cast<char*>("-q"), const_cast<char*>("--no-sync")};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(IXBAKE_BIN, argv.data());
    _exit(127);
  }
  return pid;
}

// The exit status, or 128 + the signal that ended it.
int wait_for(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void wait_until_stopped(pid_t pid) {
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, WUNTRACED), pid);
  ASSERT_TRUE(WIFSTOPPED(status)) << "the run ended without reaching its renames";
}

// Every file in a directory (recursively), with its bytes.
std::map<std::string, std::string> snapshot(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& e : fs::recursive_directory_iterator(dir))
    files[fs::relative(e.path(), dir)] = e.is_regular_file() ? read_file(e.path()) : "(not a file)";
  return files;
}

std::string first_lines(const std::string& text, size_t n) {
  size_t end = 0;
  for (size_t i = 0; i < n; ++i) end = text.find('\n', end) + 1;
  return text.substr(0, end);
}

// Two pairs of files from different records (the whole sample, and a part
// of it), baked once: what a directory should hold before and after.
struct pairs {
  temp_dir dir;
  std::string old_input = sample, new_input = dir.write("new.json", first_lines(read_file(sample), 150));
  std::map<std::string, std::string> old_pair, new_pair;
  pairs() {
    for (auto [input, files] : {std::pair{old_input, &old_pair}, {new_input, &new_pair}}) {
      const std::string err = dir.file("err");
      EXPECT_EQ(wait_for(start_ixbake({"-o", dir.file("p"), input}, err)), 0) << read_file(err);
      for (const char* kind : {"p.rrname.tgdb", "p.rdata.tgdb"}) (*files)[kind] = read_file(dir.file(kind));
    }
  }
  // Lays the old pair and `extra` files in `at`.
  void lay_old(const temp_dir& at, const std::map<std::string, std::string>& extra = {}) const {
    for (const auto& [name, bytes] : old_pair) at.write(name, bytes);
    for (const auto& [name, bytes] : extra) at.write(name, bytes);
  }
};

const pairs& reference() {
  static const pairs p;
  return p;
}

std::map<std::string, std::string> with(std::map<std::string, std::string> files,
                                        const std::map<std::string, std::string>& more) {
  for (const auto& [name, bytes] : more) files[name] = bytes;
  return files;
}

// The run is stopped in the middle of its renames, when one file is new
// and its partner still old, and interrupted there: the interrupt waits
// until both files and both set files are in place, says so and ends the
// run. Without that wait the stopped state below would be what is left.
TEST(IxbakeCommit, AnInterruptBetweenTheRenamesWaitsForTheirEnd) {
  const pairs& ref = reference();
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
    temp_dir dir;
    ref.lay_old(dir);
    const pid_t pid = start_ixbake({"--fileset", dir.file("s"), "-o", dir.file("p"), ref.new_input}, dir.file("err"), true);
    wait_until_stopped(pid);
    EXPECT_EQ(read_file(dir.file("p.rrname.tgdb")), ref.new_pair.at("p.rrname.tgdb"));
    EXPECT_EQ(read_file(dir.file("p.rdata.tgdb")), ref.old_pair.at("p.rdata.tgdb"));
    kill(pid, sig);
    kill(pid, SIGCONT);
    EXPECT_EQ(wait_for(pid), 128 + sig);
    EXPECT_EQ(read_file(dir.file("err")), "ixbake: interrupted; the new files were already in place\n");
    fs::remove(dir.file("err"));
    EXPECT_EQ(snapshot(dir.path()), with(ref.new_pair, {{"s", "p.rrname.tgdb\n"}, {"s.rdata", "p.rdata.tgdb\n"}}))
        << sig;
  }
}

// The last rename fails (the rdata set file became a directory meanwhile):
// every file already replaced is put back, old files and set file alike.
TEST(IxbakeCommit, AFailedRenamePutsBackWhatWasReplaced) {
  const pairs& ref = reference();
  temp_dir dir;
  ref.lay_old(dir, {{"s", "other.tgdb\n"}});
  const auto before = snapshot(dir.path());
  const pid_t pid = start_ixbake({"--fileset", dir.file("s"), "-o", dir.file("p"), ref.new_input}, dir.file("err"), true);
  wait_until_stopped(pid);
  fs::create_directories(dir.file("s.rdata/x"));
  kill(pid, SIGCONT);
  EXPECT_EQ(wait_for(pid), 1);
  const std::string err = read_file(dir.file("err"));
  EXPECT_TRUE(err.starts_with("ixbake: cannot rename " + dir.file("s.rdata.partial.")) && err.ends_with(
      " to " + dir.file("s.rdata") + ": Is a directory\nixbake: nothing written\n")) << err;
  fs::remove(dir.file("err"));
  EXPECT_EQ(snapshot(dir.path()), with(before, {{"s.rdata", "(not a file)"}, {"s.rdata/x", "(not a file)"}}));
}

// Interrupts at random moments of whole runs: the pair is the old one or
// the new one, and the set files list the new pair exactly when it is there.
TEST(IxbakeCommit, InterruptsAtRandomMomentsLeaveOnePairAndAgreeingSetFiles) {
  const pairs& ref = reference();
  std::mt19937 rng(11);
  const int signals[] = {SIGINT, SIGTERM, SIGHUP};
  int interrupted = 0, finished = 0;
  for (size_t round = 0; round < property_count(30); ++round) {
    temp_dir dir;
    ref.lay_old(dir);
    const pid_t pid = start_ixbake({"--fileset", dir.file("s"), "-o", dir.file("p"), ref.new_input}, dir.file("err"));
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 150000));
    const int sig = signals[rng() % 3];
    kill(pid, sig);
    const int status = wait_for(pid);
    ASSERT_TRUE(status == 0 || status == 128 + sig) << status;
    (status == 0 ? finished : interrupted)++;
    std::map<std::string, std::string> files;
    for (const char* name : {"p.rrname.tgdb", "p.rdata.tgdb"}) files[name] = read_file(dir.file(name));
    const bool is_new = files == ref.new_pair;
    EXPECT_TRUE(is_new || files == ref.old_pair) << "a mixed pair, round " << round;
    EXPECT_EQ(read_file(dir.file("s")), is_new ? "p.rrname.tgdb\n" : "") << round;
    EXPECT_EQ(read_file(dir.file("s.rdata")), is_new ? "p.rdata.tgdb\n" : "") << round;
    // Anything left behind is named for the next run to clear.
    for (const auto& [name, bytes] : snapshot(dir.path()))
      EXPECT_TRUE(name == "err" || files.count(name) || (is_new && name.starts_with("s")) ||
                  name.find(".partial." + std::to_string(pid)) != std::string::npos) << name;
  }
  EXPECT_GT(interrupted, 0);
}

// A run killed outright (no chance to clean up) in the middle of its
// renames leaves temporaries, kept old files and new set lists; the next
// run over the same names removes them, and only them.
TEST(IxbakeCommit, WhatAKilledRunLeftIsRemovedByTheNext) {
  const pairs& ref = reference();
  temp_dir dir;
  ref.lay_old(dir);
  const pid_t pid = start_ixbake({"--fileset", dir.file("s"), "-o", dir.file("p"), ref.new_input}, dir.file("err"), true);
  wait_until_stopped(pid);
  kill(pid, SIGKILL);
  wait_for(pid);
  const std::string mine = ".partial." + std::to_string(pid), alive = ".partial." + std::to_string(getpid());
  std::vector<std::string> left;
  for (const auto& [name, bytes] : snapshot(dir.path()))
    if (name.find(mine) != std::string::npos) left.push_back(name);
  EXPECT_EQ(left.size(), 5u);  // the rdata file, both kept old files, both set files' new lists
  // Not ours to remove: a live process's, and a name that is not an output's.
  dir.write("p.rdata.tgdb" + alive + ".tmp.abcdef", "x");
  dir.write("q.rdata.tgdb" + mine, "x");
  const auto r = run_binary(IXBAKE_BIN, {"-q", "--no-sync", "--fileset", dir.file("s"), "-o", dir.file("p"), ref.old_input});
  EXPECT_EQ(r.status, 0) << r.err;
  for (const auto& name : left) {
    EXPECT_NE(r.err.find("ixbake: removed " + dir.file(name) + ", left unfinished by an earlier run\n"), std::string::npos)
        << name;
    EXPECT_FALSE(fs::exists(dir.file(name))) << name;
  }
  EXPECT_TRUE(fs::exists(dir.file("p.rdata.tgdb" + alive + ".tmp.abcdef")));
  EXPECT_TRUE(fs::exists(dir.file("q.rdata.tgdb" + mine)));
}

}  // namespace
