// Files being written that must not outlive an interrupted run.
//
// remove_unfinished_files_on_signal() blocks SIGINT, SIGTERM and SIGHUP in
// the calling thread, so in every thread started after it, and starts one
// thread that waits for them. That one place removes the paths of the live
// `unfinished_file`s, writes the message and ends the process by the signal.
// While an `interrupts_held` is alive it waits, so a step that must not be
// cut in two (renames that go together) ends first. Without the handling
// installed, registering a file or holding interrupts does nothing
// observable.
//
// Files written under unfinished_name(path) can be found again: what a run
// killed outright (SIGKILL, a power cut) left behind is removed by a later
// run with remove_stale_unfinished_files().
#pragma once

#include <string>
#include <vector>

class unfinished_file {
 public:
  explicit unfinished_file(const std::string& path);
  ~unfinished_file();  // forgets the path; never removes it
  unfinished_file(const unfinished_file&) = delete;
  unfinished_file& operator=(const unfinished_file&) = delete;

 private:
  int slot_;  // -1: not tracked (no free slot, or the path is too long)
};

// Installs the handling; `message` (kept as given, so a literal) goes to
// standard error when a signal ends the process. Call once, from main,
// before any other thread starts.
void remove_unfinished_files_on_signal(const char* message);

// Replaces the message, for when what an interrupt leaves behind changes.
void set_interrupt_message(const char* message);

// Interrupts wait while one of these is alive; one at a time.
class interrupts_held {
 public:
  interrupts_held();
  ~interrupts_held();
  interrupts_held(const interrupts_held&) = delete;
  interrupts_held& operator=(const interrupts_held&) = delete;
};

// The name a file is written under before it takes the place of `path`:
// "path.partial.PID". Names made from it by adding a suffix that starts
// with a dot (a writer's own temporary, a kept old file) count as well.
std::string unfinished_name(const std::string& path);

// Removes the files beside `path` that unfinished_name() gave to processes
// no longer running. Returns the paths removed.
std::vector<std::string> remove_stale_unfinished_files(const std::string& path);
