// DNS data in the forms the index files hold: owner names and record data in
// one canonical presentation text each, and record data in wire form.
//
// Names are lower case, without the trailing dot (the root stays "."), with
// bytes that are not printable, spaces and the special characters . ; ( )
// and backslash inside labels written as presentation escapes. Record data text is the DNS
// library's rendering of each field, with names written as above, fields
// trimmed and joined by single spaces, and every control byte left over
// (ldns writes tabs inside character strings as they are) escaped as \DDD,
// so that a key never holds a tab or a line break.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct ldns_struct_rr;

// The DNS library reads at most this many bytes of record data text and
// silently drops the rest; longer texts are refused instead.
inline constexpr size_t MAX_RDATA_TEXT = 65534;

// The record type named by `text`: a mnemonic ("A", "https"), "TYPEnnn", or a
// decimal number. 0 when it names no type (0 itself is not a type).
uint16_t parse_rrtype_name(std::string_view text);

// The mnemonic the DNS library knows for `rrtype`, else "TYPEnnn".
std::string rrtype_name(uint16_t rrtype);

// Whether `text` holds a control byte (below 0x20, or 0x7f).
bool holds_control_byte(std::string_view text);
// Escapes control bytes as \DDD.
void escape_control_bytes(std::string& text);
// `s` in double quotes for a message, cut at 60 bytes, control bytes escaped.
std::string quoted(std::string_view s);

// Parses names and record data through the DNS library. One per thread: it
// keeps scratch buffers and the last record parsed.
class dns_parser {
 public:
  dns_parser();
  ~dns_parser();
  dns_parser(const dns_parser&) = delete;
  dns_parser& operator=(const dns_parser&) = delete;

  // The canonical form of an owner name written in presentation format
  // (relative names are taken as absolute). False with a reason in `err`.
  bool owner_name(std::string_view text, std::string& out, std::string& err);

  // Parses `text` as the record data of `rrtype` and gives its wire form,
  // names lower-cased. Names in it are absolute whether or not they end in
  // a dot. False with the library's reason in `err`.
  bool parse_rdata(uint16_t rrtype, std::string_view text, std::vector<uint8_t>& wire, std::string& err);

  // Takes over a record the library parsed: its canonical owner name and
  // the wire form of its data. Returns its type.
  uint16_t take_rr(ldns_struct_rr* rr, std::string& owner, std::vector<uint8_t>& wire);

  // The canonical text of the last record's data (parse_rdata or take_rr).
  // Rendering costs more than parsing, so it is made only when needed.
  std::string rdata_text();

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};
