#include "trigram/trigram_query.h"

#include <algorithm>
#include <cstdio>

#include "libmy/ubuf.h"
#include "log/log.h"
#include "trigram/trigram.h"

namespace {

trigram_query_ptr make_set(std::vector<int32_t> ids) {
  auto q = std::make_unique<trigram_query>();
  q->type = TQ_SET;
  q->ids = std::move(ids);
  return q;
}

std::vector<int32_t> bitmap_ids(std::span<const uint8_t> bits, size_t nbits) {
  nbits = std::min(nbits, bits.size() * 8);
  std::vector<int32_t> ids;
  for (size_t i = 0; i < nbits; ++i)
    if ((bits[i / 8] >> (i % 8)) & 1) ids.push_back(static_cast<int32_t>(i));
  return ids;
}

trigram_query_ptr union_of_singles(const std::vector<int32_t>& ids) {
  auto u = std::make_unique<trigram_query>();
  u->type = TQ_UNION;
  u->members.reserve(ids.size());
  for (int32_t id : ids) u->members.push_back(make_set({id}));
  return u;
}

void write_line(const std::string& line) {
  FILE* out = log_get_stream();
  fwrite(line.data(), 1, line.size(), out);
}

}  // namespace

trigram_query_ptr trigram_query_create(uint32_t type, size_t n, uint32_t member_type, size_t member_count) {
  auto q = std::make_unique<trigram_query>();
  q->type = type;
  switch (type) {
    case TQ_UNION:
      q->members.resize(n);
      if (member_count != 0)
        for (auto& m : q->members) m = trigram_query_create(member_type, member_count);
      break;
    case TQ_SET:
      q->ids.resize(n);
      break;
    case TQ_INTERSECTION:
      q->members.resize(n);
      break;
    default:
      break;
  }
  return q;
}

void trigram_query_grow(trigram_query* q, size_t k) {
  if (!q || k == 0) return;
  if (q->type == TQ_SET)
    q->ids.resize(q->ids.size() + k);
  else
    q->members.resize(q->members.size() + k);
}

trigram_query_ptr trigram_query_from_bitmap(std::span<const uint8_t> bits, size_t nbits) {
  return make_set(bitmap_ids(bits, nbits));
}

trigram_query_ptr trigram_query_from_bitmap(const trigram_bitmap& bits) { return make_set(bits.ids()); }

trigram_query_ptr trigram_query_union_from_bitmap(std::span<const uint8_t> bits, size_t nbits) {
  return union_of_singles(bitmap_ids(bits, nbits));
}

trigram_query_ptr trigram_query_union_from_bitmap(const trigram_bitmap& bits) {
  return union_of_singles(bits.ids());
}

trigram_query_ptr trigram_query_merge(const trigram_query* a, const trigram_query* b) {
  if (!a || !b || a->type != TQ_SET || b->type != TQ_SET) return nullptr;
  // Sorting the concatenation also copes with inputs that were not ascending.
  std::vector<int32_t> ids;
  ids.reserve(a->ids.size() + b->ids.size());
  ids.insert(ids.end(), a->ids.begin(), a->ids.end());
  ids.insert(ids.end(), b->ids.begin(), b->ids.end());
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return make_set(std::move(ids));
}

trigram_query_ptr trigram_query_factor(trigram_query_ptr u) {
  if (!u || u->type != TQ_UNION || u->members.empty()) return u;
  for (const auto& m : u->members)
    if (!m || m->type != TQ_SET) return u;

  auto& members = u->members;
  std::vector<int32_t> common;
  for (int32_t id : members[0]->ids) {
    bool everywhere = std::all_of(members.begin() + 1, members.end(), [id](const trigram_query_ptr& m) {
      return std::find(m->ids.begin(), m->ids.end(), id) != m->ids.end();
    });
    if (everywhere) common.push_back(id);
  }
  if (common.empty()) return u;
  std::sort(common.begin(), common.end());
  common.erase(std::unique(common.begin(), common.end()), common.end());

  size_t emptied = 0;
  for (auto& m : members) {
    std::erase_if(m->ids, [&](int32_t id) { return std::binary_search(common.begin(), common.end(), id); });
    if (m->ids.empty()) {
      log_printf(LOG_DEBUG, "Warning: intersection difference resulted in empty node!");
      ++emptied;
    }
  }
  // A member left without ids places no constraint, so the remaining union
  // accepts every line and F AND (that union) is F alone. Keeping the empty
  // member as a union branch would let a consumer drop it and lose lines.
  if (emptied) return make_set(std::move(common));

  auto x = std::make_unique<trigram_query>();
  x->type = TQ_INTERSECTION;
  x->members.push_back(make_set(std::move(common)));
  x->members.push_back(std::move(u));
  return x;
}

size_t trigram_query_first_set_size(const trigram_query* q) {
  if (!q || q->type == TQ_SET || q->members.empty()) return 0;
  const trigram_query* first = q->members[0].get();
  return first && first->type == TQ_SET ? first->ids.size() : 0;
}

void trigram_query_print(const trigram_query* q, int depth, int32_t bound) {
  if (!q) return;
  std::string line = log_get_prefix();
  line.append(static_cast<size_t>(std::max(depth, 0)), ' ');
  ubuf_add_fmt(line, "+ TGR: 0=(%d)", static_cast<int>(q->type));
  if (q->type == TQ_SET) {
    ubuf_add_fmt(line, ", # intersection[s] = %zu | ", q->ids.size());
    for (int32_t id : q->ids) {
      char name[4];
      if (trigram_name(id, name, bound) != 0) snprintf(name, sizeof name, "???");
      ubuf_add_fmt(line, "%d(%s) ", id, name);
    }
    line += '\n';
    write_line(line);
    return;
  }
  ubuf_add_fmt(line, ", # %s = %zu\n", q->type == TQ_INTERSECTION ? "intersection[c]" : "union",
               q->members.size());
  write_line(line);
  for (const auto& m : q->members) trigram_query_print(m.get(), depth + 1, bound);
  if (depth == 0) write_line("\n");
}

std::string trigram_query_to_text(const trigram_query* q) {
  if (!q) return "null";
  std::string out;
  ubuf_add_fmt(out, "{O=%d/%zu:", static_cast<int>(q->type), q->count());
  if (q->type == TQ_SET) {
    for (size_t i = 0; i < q->ids.size(); ++i) ubuf_add_fmt(out, i ? ",%d" : "%d", q->ids[i]);
  } else {
    for (size_t i = 0; i < q->members.size(); ++i) {
      if (i) out += ',';
      out += trigram_query_to_text(q->members[i].get());
    }
  }
  out += '}';
  return out;
}
