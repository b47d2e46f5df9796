// The four kinds of index file, and the header flags that name them.
//
//   rrname   one line per owner name, one item per record type
//   rdata    one line per record data and type, with its wire form
//   byname   one line per (owner name, type, rdata), keyed by the name
//   byvalue  the same records, keyed by the rdata text
//
// rdata sets TGDB_FLAG_RDATA; byname and byvalue set it too, each with a bit
// of its own. A reader that knows only the first two kinds takes them for
// rdata files and refuses them at their first line, which holds no wire
// form, instead of answering from lines it would misread.
#pragma once

#include <cstdint>
#include <optional>

enum class tgdb_kind : uint8_t { rrname, rdata, byname, byvalue };

// "rrname", "rdata", "byname" or "byvalue": the names messages and ixbake's
// --kind use.
const char* tgdb_kind_name(tgdb_kind kind);

// The kind bits of a header's flags, and back. None for a combination that
// no writer makes.
uint32_t tgdb_kind_flags(tgdb_kind kind);
std::optional<tgdb_kind> tgdb_kind_of_flags(uint32_t flags);

// Kinds whose lines each hold one whole record: key, type and the other side.
constexpr bool tgdb_kind_linked(tgdb_kind kind) { return kind == tgdb_kind::byname || kind == tgdb_kind::byvalue; }
