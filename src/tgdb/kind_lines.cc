#include "tgdb/kind_lines.h"

#include "tgdb/linked_line.h"
#include "tgdb/record_line.h"

line_order kind_line_order(tgdb_kind kind) {
  switch (kind) {
    case tgdb_kind::rrname:
      break;
    case tgdb_kind::rdata:
      return compare_rdata_lines;
    case tgdb_kind::byname:
      return compare_byname_lines;
    case tgdb_kind::byvalue:
      return compare_byvalue_lines;
  }
  return compare_rrname_lines;
}

std::vector<search_entry> kind_line_entries(tgdb_kind kind, std::string_view line) {
  if (tgdb_kind_linked(kind)) {
    const auto record = parse_linked_line(kind, line);
    if (!record) return {};
    return {record->entry};
  }
  const size_t tab = line.find('\t');
  if (tab == std::string_view::npos) return {};
  const std::string_view value = line.substr(tab + 1);
  if (kind == tgdb_kind::rrname) return parse_rrname_value(value);
  const auto v = parse_rdata_value(value);
  if (!v || v->wire_form.empty() || decode_rdata(value).empty()) return {};
  return {v->entry};
}
