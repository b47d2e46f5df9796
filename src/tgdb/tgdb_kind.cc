#include "tgdb/tgdb_kind.h"

#include "tgdb/tgdb_format.h"

namespace {
constexpr uint32_t kind_bits = TGDB_FLAG_RDATA | TGDB_FLAG_BYNAME | TGDB_FLAG_BYVALUE;
}  // namespace

const char* tgdb_kind_name(tgdb_kind kind) {
  switch (kind) {
    case tgdb_kind::rrname:
      return "rrname";
    case tgdb_kind::rdata:
      return "rdata";
    case tgdb_kind::byname:
      return "byname";
    case tgdb_kind::byvalue:
      return "byvalue";
  }
  return "unknown";
}

uint32_t tgdb_kind_flags(tgdb_kind kind) {
  switch (kind) {
    case tgdb_kind::rrname:
      return 0;
    case tgdb_kind::rdata:
      return TGDB_FLAG_RDATA;
    case tgdb_kind::byname:
      return TGDB_FLAG_RDATA | TGDB_FLAG_BYNAME;
    case tgdb_kind::byvalue:
      return TGDB_FLAG_RDATA | TGDB_FLAG_BYVALUE;
  }
  return 0;
}

std::optional<tgdb_kind> tgdb_kind_of_flags(uint32_t flags) {
  for (tgdb_kind kind : {tgdb_kind::rrname, tgdb_kind::rdata, tgdb_kind::byname, tgdb_kind::byvalue})
    if ((flags & kind_bits) == tgdb_kind_flags(kind)) return kind;
  return std::nullopt;
}
