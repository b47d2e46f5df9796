// One merged record: the key and its per-type entries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct search_entry {
  uint16_t rrtype = 0;
  uint64_t count = 0;
  int64_t time_first = 0;
  int64_t time_last = 0;
};

struct search_result {
  std::vector<search_entry> entries;
  std::vector<uint8_t> rdata;  // record data in rdata mode; empty otherwise
  bool wildcard = false;
  std::string name;            // the key: owner name, or rdata text

  bool has_rdata() const { return !rdata.empty(); }
};
