// The command line: options of one run, time arguments, the standard-input
// loop and the usage text.
#pragma once

#include <cstdint>
#include <cstdio>

#include "libmy/my_time.h"

struct data_source;

struct search_options {
  data_source* source = nullptr;
  uint64_t limit = 10000;
  bool glob = false;
  bool raw = false;
  bool json = false;
  double timeout = 0;  // seconds since the last result; 0: none
  bool after_set = false;
  bool before_set = false;
  int64_t after = 0;
  int64_t before = 0;
  bool complete = false;
};

inline constexpr uint64_t DEFAULT_LIMIT = 10000;

// Runs one search per non-empty line of `in`; false as soon as one fails.
bool read_stdin_searches(const search_options& options, FILE* in = stdin);

void usage(const char* program_name);

// The whole program; returns the exit status.
int vornsearch_main(int argc, char** argv);
