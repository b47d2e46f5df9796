// What the record lines of each kind of index file share: an order to sort
// and merge them by, and the record entries a line holds.
#pragma once

#include <string_view>
#include <vector>

#include "tgdb/search_result.h"
#include "tgdb/tgdb_kind.h"

// Negative, 0 or positive; a strict weak order over any text, 0 meaning the
// lines hold the same key (rrname), or the same record (the other kinds).
using line_order = int (*)(std::string_view, std::string_view);
line_order kind_line_order(tgdb_kind kind);

// The entries of a whole line of `kind`; empty when it is not a well-formed
// line of that kind (an rdata line needs its wire form).
std::vector<search_entry> kind_line_entries(tgdb_kind kind, std::string_view line);
