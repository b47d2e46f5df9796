// Record lines of byname and byvalue files, which link owner names and
// values: one whole record a line.
//
//   byname   OWNER '\t' TYPE:FIRST[,DELTA]:COUNT '\t' RDATA
//   byvalue  RDATA '\t' TYPE:FIRST[,DELTA]:COUNT '\t' OWNER
//
// The item is that of the other kinds, all three parts required (times and
// counts 32-bit hexadecimal, DELTA left out when 0). The key, before the
// first tab, is what the trigrams index and the pattern sees; it holds no
// tab. The other side is all that follows the second tab, so any text but a
// line break reads back unchanged: spaces, quotes, tabs, long TXT strings.
// Neither side is empty. RDATA is the presentation text the rdata kind keys
// on, so one value has one spelling.
//
// Order: by key (byname: owner names as the rrname kind orders them;
// byvalue: bytewise), then type number, then the other side (byname:
// bytewise; byvalue: as owner names). Lines that agree in key, type and
// other side are one record whatever their counts and times, and merge;
// records of one key follow one another, so a search matches each key once.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tgdb/search_result.h"
#include "tgdb/tgdb_kind.h"

// One record of a linked line or result.
struct linked_record {
  std::string_view owner;
  std::string_view rdata;  // presentation text
  search_entry entry;
};

// The record a whole line of `kind` (byname or byvalue) holds; none when the
// line is not such a line.
std::optional<linked_record> parse_linked_line(tgdb_kind kind, std::string_view line);

// Appends the line of `record` in the form of `kind`, without a newline. A
// count beyond the format's 32 bits is written as its largest value, so the
// line reads back. Both sides must be non-empty, the key side without tab
// or newline, the other side without newline.
void append_linked_line(std::string& out, tgdb_kind kind, const linked_record& record);
std::string linked_line(tgdb_kind kind, const linked_record& record);

// The orders above. Lines that are not well formed order by key, then a bad
// type before every type, then a missing other side first: a strict weak
// order over any text, and never equal to a well-formed line's record.
int compare_byname_lines(std::string_view a, std::string_view b);
int compare_byvalue_lines(std::string_view a, std::string_view b);

// Folds one line of either kind into the result in `slot`, creating it when
// the slot is empty (key in name, other side in other): counts add,
// saturating, and times widen. A line that does not parse contributes
// nothing, and leaves a slot it would have filled empty.
void merge_linked(std::unique_ptr<search_result>& slot, std::string_view line);

// The record of a merged byname or byvalue result: which side its key is
// follows from its kind.
linked_record linked_record_of(const search_result& result);
