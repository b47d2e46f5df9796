// Files being written that must not outlive an interrupted run: while an
// `unfinished_file` is alive, SIGINT, SIGTERM or SIGHUP removes its path
// before the process ends as the signal says. Without the handlers
// installed, registering a file does nothing observable.
#pragma once

#include <string>

class unfinished_file {
 public:
  explicit unfinished_file(const std::string& path);
  ~unfinished_file();  // forgets the path; never removes it
  unfinished_file(const unfinished_file&) = delete;
  unfinished_file& operator=(const unfinished_file&) = delete;

 private:
  int slot_;  // -1: not tracked (no free slot, or the path is too long)
};

// Installs the handlers, which also write `message` (kept as given, so a
// literal) to standard error. Call once, early, from a program's main.
void remove_unfinished_files_on_signal(const char* message);
