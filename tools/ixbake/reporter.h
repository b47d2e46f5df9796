// Standard error during a run: the progress line, bad records and warnings,
// from several threads, and the counts and the stop flag they all share.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

class reporter {
 public:
  // `progress`: show a progress line (on a terminal); `strict`: the first
  // bad record stops the run.
  reporter(bool progress, bool strict) : progress_(progress), strict_(strict) {}
  ~reporter() { end_progress(); }
  reporter(const reporter&) = delete;
  reporter& operator=(const reporter&) = delete;

  std::atomic<uint64_t> records{0};  // observations read, bad ones included
  std::atomic<uint64_t> skipped{0};
  // Set on a fatal error, or on a bad record under --strict: everyone stops.
  std::atomic<bool> stop{false};

  // `n` bad records at `input`:`line`; the first ones are shown.
  void bad(const std::string& input, uint64_t line, const std::string& reason, uint64_t n = 1);
  // An error that ends the run; only the first one is kept.
  void fatal(const std::string& text);
  const std::string& fatal_text() const { return fatal_; }
  // A line of its own ("ixbake: " and `text`).
  void say(const std::string& text);

  void phase(const char* name) { phase_ = name; }
  void start_progress();
  void end_progress();

 private:
  void tick(double secs);
  void clear_line();
  void put(const std::string& text);

  const bool progress_, strict_;
  std::mutex mu_;
  std::condition_variable tick_cv_;
  std::thread ticker_;
  std::chrono::steady_clock::time_point started_;
  std::atomic<const char*> phase_{"reading"};
  bool done_ = false, shown_ = false;
  uint64_t bad_shown_ = 0;
  std::string fatal_;
};
