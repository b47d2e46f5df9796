// One passive-DNS observation as a JSON object:
//   {"rrname": "www.example.com.", "rrtype": "A", "rdata": ["192.0.2.1"],
//    "time_first": 1700000000, "time_last": 1700003600, "count": 3}
// "rrtype" is a mnemonic, "TYPEnnn" or a number; "rdata" is one presentation
// text or an array of them (one observation each). Times are seconds since
// the epoch or ISO 8601 texts; "zone_time_first" and "zone_time_last" stand
// in for absent "time_first" and "time_last". Without "count" the
// observation counts once. Other members are ignored.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct json_record {
  std::string_view rrname;            // as written (views into the parser)
  uint16_t rrtype = 0;
  std::vector<std::string_view> rdata;
  uint32_t time_first = 0;
  uint32_t time_last = 0;
  uint64_t count = 0;
};

class json_line_parser {
 public:
  json_line_parser();
  ~json_line_parser();
  json_line_parser(const json_line_parser&) = delete;
  json_line_parser& operator=(const json_line_parser&) = delete;

  // Parses the line at `line`; `capacity` is how many bytes from `line` may
  // be read (at least the line plus the parser's padding). The views in
  // `out` stay valid until the next call. False with a reason in `err`.
  bool parse(const char* line, size_t length, size_t capacity, json_record& out, std::string& err);

  // Bytes a buffer must hold after the last line.
  static size_t padding();

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};
