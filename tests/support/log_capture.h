// Captures the log at every level while it lives.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

class log_capture {
 public:
  log_capture();
  ~log_capture();
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  std::string text();
  bool contains(const std::string& needle) { return text().find(needle) != std::string::npos; }

 private:
  char* buf_ = nullptr;
  size_t len_ = 0;
  FILE* stream_;
  FILE* old_stream_;
  int old_level_;
};
