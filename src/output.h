// Writers of merged results to standard output: text (the default), raw
// record-line form (-r) and JSON objects (-j). None of them flushes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "tgdb/search_result.h"

// The buffer size the writers use for type texts.
inline constexpr size_t RRTYPE_TEXT_SIZE = 16;

// The DNS library's mnemonic of a type; when it knows none, "TYPE<number>"
// formatted into `buffer` (always terminated). A known mnemonic is copied
// into `buffer` as well, and the library's own string is returned.
const char* rrtype_to_text(uint16_t rrtype, std::span<char> buffer);

// Local time as "%Y-%m-%d %H:%M:%S", as text results show times; seconds the
// calendar cannot hold are written as the plain number.
std::string local_time_text(int64_t seconds);

// NAME, seven spaces, then the entries separated by tabs, each
// "TYPE/COUNT [FIRST / LAST]" in local time. A result with rdata shows its
// first entry only and a second line with the hexadecimal rdata (the first 32
// bytes of a longer one).
void write_text_result(FILE* stream, const search_result& result);

// NAME, a tab, then the result as an index record line value.
void write_raw_result(FILE* stream, const search_result& result);

// Objects no longer than this, terminator included, are printed.
inline constexpr size_t JSON_RESULT_BUFFER = 8192;

// Generates the JSON object of the first entry of `rrtype` into `out`,
// replacing its contents. True when `out` is to be printed: the object, or as much
// of it as was generated before the generator failed (that failure is
// logged). False, with a message on standard error, when the result has no
// entry of that type or too much rdata, or when the object would not fit in
// `size` bytes.
bool json_format_result(const search_result& result, uint16_t rrtype, bool details, std::string& out,
                        size_t size = JSON_RESULT_BUFFER);

// One object per line: for every entry when `rrtype` is 0, else for that type.
void write_json_result(FILE* stream, const search_result& result, uint16_t rrtype, bool details);
