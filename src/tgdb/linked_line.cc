#include "tgdb/linked_line.h"

#include <algorithm>
#include <limits>

#include "libmy/my_alloc.h"
#include "tgdb/record_line.h"

namespace {

constexpr size_t npos = std::string_view::npos;

int sign(int v) { return (v > 0) - (v < 0); }

// A line cut at its first two tabs, as the ordering reads it: no check of
// the item beyond its type code.
struct linked_fields {
  std::string_view key, item, other;
  bool has_other = false;
};

linked_fields split_line(std::string_view line) {
  linked_fields f;
  const size_t tab = line.find('\t');
  f.key = line.substr(0, tab);
  if (tab == npos) return f;
  const std::string_view value = line.substr(tab + 1);
  const size_t tab2 = value.find('\t');
  f.item = value.substr(0, tab2);
  if (tab2 != npos) {
    f.other = value.substr(tab2 + 1);
    f.has_other = true;
  }
  return f;
}

// The key, item and other side of a well-formed line, the item parsed.
struct linked_parts {
  std::string_view key, other;
  search_entry entry;
};

std::optional<linked_parts> parse_parts(std::string_view line) {
  const linked_fields f = split_line(line);
  linked_parts p{f.key, f.other, {}};
  if (f.key.empty() || !f.has_other || f.other.empty() || !parse_record_item(f.item, p.entry)) return std::nullopt;
  return p;
}

// Owner names as the rrname kind orders them; a tab (which no name holds)
// cuts that comparison short, so the bytes decide what it leaves equal.
int compare_owner_names(std::string_view a, std::string_view b) {
  if (int c = compare_rrname_lines(a, b)) return c;
  return sign(a.compare(b));
}

int compare_text(std::string_view a, std::string_view b) { return sign(a.compare(b)); }

// Key first, then type number (0 for a bad code), then a missing other side
// before a present one, then the other side.
int compare_linked(std::string_view a, std::string_view b, int (*key_order)(std::string_view, std::string_view),
                   int (*other_order)(std::string_view, std::string_view)) {
  const linked_fields fa = split_line(a), fb = split_line(b);
  if (int c = key_order(fa.key, fb.key)) return c;
  const uint16_t ta = parse_rrtype_code(fa.item), tb = parse_rrtype_code(fb.item);
  if (ta != tb) return ta < tb ? -1 : 1;
  if (fa.has_other != fb.has_other) return fa.has_other ? 1 : -1;
  return other_order(fa.other, fb.other);
}

}  // namespace

std::optional<linked_record> parse_linked_line(tgdb_kind kind, std::string_view line) {
  const auto p = parse_parts(line);
  if (!p || !tgdb_kind_linked(kind)) return std::nullopt;
  if (kind == tgdb_kind::byname) return linked_record{p->key, p->other, p->entry};
  return linked_record{p->other, p->key, p->entry};
}

void append_linked_line(std::string& out, tgdb_kind kind, const linked_record& record) {
  my_assert(tgdb_kind_linked(kind), "a byname or byvalue line");
  const bool by_name = kind == tgdb_kind::byname;
  const std::string_view key = by_name ? record.owner : record.rdata;
  const std::string_view other = by_name ? record.rdata : record.owner;
  my_assert(!key.empty() && key.find_first_of("\t\n") == npos, "linked key without tab or newline");
  my_assert(!other.empty() && other.find('\n') == npos, "linked other side without newline");
  search_entry e = record.entry;
  e.count = std::min<uint64_t>(e.count, std::numeric_limits<uint32_t>::max());
  out.append(key);
  out += '\t';
  append_rrname_item(out, e);
  out += '\t';
  out.append(other);
}

std::string linked_line(tgdb_kind kind, const linked_record& record) {
  std::string line;
  append_linked_line(line, kind, record);
  return line;
}

int compare_byname_lines(std::string_view a, std::string_view b) {
  return compare_linked(a, b, compare_owner_names, compare_text);
}

int compare_byvalue_lines(std::string_view a, std::string_view b) {
  return compare_linked(a, b, compare_text, compare_owner_names);
}

void merge_linked(std::unique_ptr<search_result>& slot, std::string_view line) {
  const auto p = parse_parts(line);
  if (!p) return;
  if (!slot) {
    slot = std::make_unique<search_result>();
    slot->name = p->key;
    slot->other = p->other;
  }
  // Lines of one record are all that the ordering groups.
  if (slot->entries.empty()) {
    slot->entries.push_back(p->entry);
  } else {
    fold_entry(slot->entries.front(), p->entry);
  }
}

linked_record linked_record_of(const search_result& result) {
  const search_entry entry = result.entries.empty() ? search_entry{} : result.entries.front();
  if (result.kind == tgdb_kind::byvalue) return {result.other, result.name, entry};
  return {result.name, result.other, entry};
}
