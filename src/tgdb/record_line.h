// Record lines of the index files' string tables: the record-type codes, the
// value parsers, the formatters the index builder writes with, and the two
// orderings both sides sort by.
//
// A line is KEY '\t' VALUE. Owner-name (rrname) values are items separated by
// single spaces, each TYPE[:FIRST[,DELTA][:COUNT]]; rdata values are
// [LENGTH/HEX ]TYPE:FIRST[,DELTA]:COUNT. Numbers are hexadecimal without a
// prefix, except LENGTH, which is decimal. Times and counts are 32-bit
// values: a line holding a wider one (or a last-seen FIRST + DELTA past
// 32 bits) is damaged and rejected. Sums of counts over several lines are
// wider (see search_result.h).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tgdb/search_result.h"

// --- record-type codes -------------------------------------------------------

// The one-character code of a record type, or '\0' when it has none (then the
// code is the decimal number).
char rrtype_code_char(uint16_t rrtype);
// The type of a one-character code, or 0 when the character is not a code.
uint16_t rrtype_from_code_char(char code);
// Appends the code of a type: its one-character code, else its decimal
// number. Type 4 is written "04", since "4" is the code of A.
void append_rrtype_code(std::string& out, uint16_t rrtype);
// Parses the type code at the start of `item`. A one-character code must be
// followed by ':' or the end of `item`; a decimal code (at most 7 digits, 1 to
// 65535) must be followed by ':'. Returns 0 when the code is invalid.
uint16_t parse_rrtype_code(std::string_view item);

// --- value parsers -------------------------------------------------------------

// The entries of an owner-name value (the text after the tab, read up to the
// first newline). An empty vector means the line is rejected.
std::vector<search_entry> parse_rrname_value(std::string_view text);

struct rdata_value {
  std::string_view wire_form;  // "LENGTH/HEX" within the parsed text; empty when it has none
  search_entry entry;
};

// Parses an rdata value (the text after the tab). Logs "Error: multi-space
// lines not supported." when the count is followed by a space.
std::optional<rdata_value> parse_rdata_value(std::string_view text);

// The record data of an rdata value's LENGTH/HEX prefix; empty on failure
// (LENGTH is never 0, so a decoded value is never empty).
std::vector<uint8_t> decode_rdata(std::string_view text);

// Whether a value starts with a LENGTH/HEX prefix, as every value of an rdata
// file does and no value of an owner-name file can: a slash comes before any
// colon.
bool value_has_wire_form(std::string_view value);

// Exactly one TYPE:FIRST[,DELTA]:COUNT item, all three parts present and
// nothing around it. False when `item` is anything else.
bool parse_record_item(std::string_view item, search_entry& out);

// --- formatters ----------------------------------------------------------------

// Appends TYPE:FIRST[,DELTA]:COUNT, DELTA being last-seen minus first-seen and
// left out when 0. It reads back as the same entry when 0 <= time_first <=
// time_last (a last-seen before first-seen wraps as an unsigned 64-bit delta).
void append_rrname_item(std::string& out, const search_entry& entry);
// Appends the items of `entries` separated by single spaces.
void append_rrname_value(std::string& out, std::span<const search_entry> entries);
// Appends LENGTH/HEX (lower-case hexadecimal) and a space, then the item.
void append_rdata_value(std::string& out, std::span<const uint8_t> wire, const search_entry& entry);

// Whole lines, as written to index files, without their newline. The key
// must hold neither a tab nor a newline; the wire form of rdata holds 1 to
// 65535 bytes. A count beyond the format's 32 bits is written as its
// largest value, so that the line reads back.
std::string rrname_line(std::string_view owner, std::span<const search_entry> entries);
std::string rdata_line(std::string_view text, std::span<const uint8_t> wire, const search_entry& entry);

// --- orderings -----------------------------------------------------------------

// Orders owner-name lines by key, as domain names from the rightmost label
// leftwards (a shorter label first, equal lengths bytewise, a name that runs
// out of labels first). Names that agree are ordered by the rest of the key
// after a space. 0 only for identical keys. A strict weak order on all input.
int compare_rrname_lines(std::string_view a, std::string_view b);

// Orders rdata lines by their wire-form bytes, as if the record type followed
// the data bytes; 0 when both bytes and type agree. Lines whose LENGTH/HEX is
// malformed order before all others (among themselves bytewise). A line
// without a tab means a corrupt file and ends the process with status 1.
int compare_rdata_lines(std::string_view a, std::string_view b);
