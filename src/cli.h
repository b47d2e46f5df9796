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

// The usage text; --help adds more after it on standard output.
void usage(const char* program_name, FILE* stream = stderr);

// The whole program; returns the exit status. Only this decides it: the
// parts report failures and return.
int vornsearch_main(int argc, char** argv);
