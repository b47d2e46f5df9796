// Writes small index files for tests with the writer core.
#pragma once

#include <string>
#include <vector>

struct index_options {
  bool rdata = false;
  // Whether the file carries a time range: that of the lines' entries
  // (entries with time 0 carry none).
  bool time_range = true;
};

// Writes `lines` (record lines without newlines, in any order) as the index
// file `path`, sorted by the ordering of the file's kind. Returns `path`; a
// failure fails the running test.
std::string write_index(const std::string& path, std::vector<std::string> lines, const index_options& opts = {});
