// Writes small index files for tests with the writer core.
#pragma once

#include <string>
#include <vector>

#include "tgdb/tgdb_kind.h"

struct index_options {
  tgdb_kind kind = tgdb_kind::rrname;
  bool rdata = false;  // shorthand for kind = tgdb_kind::rdata
  // Whether the file carries a time range: that of the lines' entries
  // (entries with time 0 carry none).
  bool time_range = true;
};

// Writes `lines` (record lines without newlines, in any order) as the index
// file `path`, sorted by the ordering of the file's kind. Returns `path`; a
// failure fails the running test.
std::string write_index(const std::string& path, std::vector<std::string> lines, const index_options& opts = {});
