// Captures the log while it lives, in a context of its own (empty prefix) that
// is popped again at the end.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "log/log.h"

class log_capture {
 public:
  explicit log_capture(int level = LOG_TRACE);
  ~log_capture();
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  std::string text();
  bool contains(const std::string& needle) { return text().find(needle) != std::string::npos; }

 private:
  char* buf_ = nullptr;
  size_t len_ = 0;
  FILE* stream_;
};

// What `fn` logs at `level`.
template <class F>
std::string logged(int level, F&& fn) {
  log_capture cap(level);
  fn();
  return cap.text();
}
