// Runs a program with arguments, environment additions and standard input,
// and captures its standard output, standard error and exit status. `argv0`
// is the name the program is given (empty: its path).
#pragma once

#include <string>
#include <utility>
#include <vector>

struct run_result {
  std::string out;
  std::string err;
  int status = -1;  // exit status, or 128 + signal
};

run_result run_binary(const std::string& program, const std::vector<std::string>& args,
                      const std::string& input = "",
                      const std::vector<std::pair<std::string, std::string>>& env = {},
                      const std::string& argv0 = "");

// The log prefix vornsearch writes: its invocation name, cut like every prefix.
std::string vornsearch_log_prefix();

// The built vornsearch program.
run_result run_vornsearch(const std::vector<std::string>& args, const std::string& input = "",
                          const std::vector<std::pair<std::string, std::string>>& env = {},
                          const std::string& argv0 = "");
