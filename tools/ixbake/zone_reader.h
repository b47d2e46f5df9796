// Master-file (zone file) records, one at a time: directives ($ORIGIN, $TTL),
// comments, parentheses and omitted owners are handled here; each record's
// text goes to the DNS library. Memory does not grow with the file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "input.h"

struct ldns_struct_rr;

class zone_reader {
 public:
  explicit zone_reader(input_reader& in);
  ~zone_reader();
  zone_reader(const zone_reader&) = delete;
  zone_reader& operator=(const zone_reader&) = delete;

  // The origin before any $ORIGIN (the root unless set); relative names are
  // taken relative to the root. False with a reason when it does not parse.
  bool set_origin(const std::string& origin, std::string& err);

  // Called once, with the line, at the first record whose owner name is
  // relative while nothing gave an origin (neither set_origin nor
  // $ORIGIN): it lands under the root, which is seldom what was meant.
  void on_relative_name_at_root(std::function<void(uint64_t line)> f) { relative_at_root_ = std::move(f); }

  enum result { RECORD, BAD, END };
  // The next record (owned by the caller), or a bad one with its line
  // number and reason, or the end of the input.
  result next(ldns_struct_rr*& rr, uint64_t& line, std::string& err);

 private:
  // Reads the lines of one entry, joined, comments removed.
  bool read_entry(std::string& text, uint64_t& start, std::string& err, bool& bad);
  result directive(const std::string& text, std::string& err);
  void notice_relative_owner(const std::string& text, uint64_t line);

  struct impl;
  std::unique_ptr<impl> impl_;
  input_reader& in_;
  bool origin_given_ = false;
  std::function<void(uint64_t)> relative_at_root_;
};
