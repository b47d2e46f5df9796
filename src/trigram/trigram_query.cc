#include "trigram/trigram_query.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <unordered_map>

#include "libmy/ubuf.h"
#include "log/log.h"
#include "trigram/trigram.h"

namespace {

using query_list = std::vector<trigram_query_ptr>;

// A set of ids that are already sorted and distinct.
trigram_query_ptr make_set(std::vector<int32_t> ids) {
  auto q = std::make_shared<trigram_query>();
  q->type = TQ_SET;
  q->leaves = ids.size();
  q->ids = std::move(ids);
  return q;
}

// A normal-form node seen as "all of these ids and all of these unions".
const std::vector<int32_t>& required_ids(const trigram_query& q) {
  static const std::vector<int32_t> none;
  if (q.type == TQ_SET) return q.ids;
  if (q.type == TQ_INTERSECTION && q.members[0]->type == TQ_SET) return q.members[0]->ids;
  return none;
}

query_list required_unions(const trigram_query_ptr& q) {
  if (q->type == TQ_UNION) return {q};
  query_list out;
  if (q->type == TQ_INTERSECTION)
    for (const trigram_query_ptr& m : q->members)
      if (m->type == TQ_UNION) out.push_back(m);
  return out;
}

// The node requiring every id of `ids` (sorted, distinct) and every union.
trigram_query_ptr make_and(std::vector<int32_t> ids, query_list unions) {
  if (ids.size() > QUERY_MAX_AND_IDS) ids.resize(QUERY_MAX_AND_IDS);  // fewer required: weaker
  if (unions.size() > QUERY_MAX_AND_UNIONS) unions.resize(QUERY_MAX_AND_UNIONS);
  if (unions.empty()) return ids.empty() ? nullptr : make_set(std::move(ids));
  if (ids.empty() && unions.size() == 1) return unions[0];
  auto x = std::make_shared<trigram_query>();
  x->type = TQ_INTERSECTION;
  if (!ids.empty()) x->members.push_back(make_set(std::move(ids)));
  for (trigram_query_ptr& u : unions) x->members.push_back(std::move(u));
  for (const trigram_query_ptr& m : x->members) x->leaves += m->leaves;
  return x;
}

// Structural equality, so that a repeated piece is required once.
bool same_query(const trigram_query_ptr& a, const trigram_query_ptr& b) {
  if (a == b) return true;
  if (!a || !b || a->type != b->type || a->leaves != b->leaves || a->ids != b->ids ||
      a->members.size() != b->members.size())
    return false;
  for (size_t i = 0; i < a->members.size(); ++i)
    if (!same_query(a->members[i], b->members[i])) return false;
  return true;
}

bool holds(const query_list& v, const trigram_query_ptr& x) { return std::find(v.begin(), v.end(), x) != v.end(); }

// Alternatives without repeats, nested unions spliced in.
query_list flatten_alternatives(const query_list& alternatives) {
  query_list flat;
  std::set<const trigram_query*> seen;
  std::set<std::vector<int32_t>> seen_sets;
  const auto add = [&](const trigram_query_ptr& a) {
    if (!seen.insert(a.get()).second) return;
    if (a->type == TQ_SET && !seen_sets.insert(a->ids).second) return;
    flat.push_back(a);
  };
  for (const trigram_query_ptr& a : alternatives) {
    if (a->type == TQ_UNION)
      for (const trigram_query_ptr& inner : a->members) add(inner);
    else
      add(a);
  }
  return flat;
}

// Drops every alternative that requires all that another one requires (and
// more): it adds nothing to the OR. Of two equal ones the later goes. Only
// the holders of an alternative's least held id can require all its ids, so
// long alternations stay fast.
void drop_implied_alternatives(query_list& alts) {
  std::unordered_map<int32_t, std::vector<size_t>> holders;
  for (size_t j = 0; j < alts.size(); ++j)
    for (int32_t id : required_ids(*alts[j])) holders[id].push_back(j);
  std::vector<bool> dropped(alts.size(), false);
  for (size_t i = 0; i < alts.size(); ++i) {
    const std::vector<int32_t>& ids = required_ids(*alts[i]);
    if (dropped[i] || ids.empty()) continue;
    const std::vector<size_t>* candidates = nullptr;
    for (int32_t id : ids)
      if (!candidates || holders[id].size() < candidates->size()) candidates = &holders[id];
    const query_list unions = required_unions(alts[i]);
    for (size_t j : *candidates) {
      if (j == i || dropped[j]) continue;
      const std::vector<int32_t>& more = required_ids(*alts[j]);
      if (!std::includes(more.begin(), more.end(), ids.begin(), ids.end())) continue;
      const query_list more_unions = required_unions(alts[j]);
      if (std::all_of(unions.begin(), unions.end(), [&](const trigram_query_ptr& u) { return holds(more_unions, u); }))
        dropped[j] = true;
    }
  }
  size_t k = 0;
  for (size_t i = 0; i < alts.size(); ++i)
    if (!dropped[i]) alts[k++] = std::move(alts[i]);
  alts.resize(k);
}

// (x AND a) OR (x AND b) as x AND (a OR b); null when nothing is common.
trigram_query_ptr factor_common(const query_list& alts) {
  std::vector<int32_t> ids = required_ids(*alts[0]);
  query_list unions = required_unions(alts[0]);
  for (size_t i = 1; i < alts.size() && (!ids.empty() || !unions.empty()); ++i) {
    const std::vector<int32_t>& other = required_ids(*alts[i]);
    std::vector<int32_t> keep;
    std::set_intersection(ids.begin(), ids.end(), other.begin(), other.end(), std::back_inserter(keep));
    ids = std::move(keep);
    const query_list other_unions = required_unions(alts[i]);
    std::erase_if(unions, [&](const trigram_query_ptr& u) { return !holds(other_unions, u); });
  }
  if (ids.empty() && unions.empty()) return nullptr;

  query_list rest;
  for (const trigram_query_ptr& a : alts) {
    const std::vector<int32_t>& own = required_ids(*a);
    std::vector<int32_t> left;
    std::set_difference(own.begin(), own.end(), ids.begin(), ids.end(), std::back_inserter(left));
    query_list left_unions;
    for (const trigram_query_ptr& u : required_unions(a))
      if (!holds(unions, u)) left_unions.push_back(u);
    trigram_query_ptr r = make_and(std::move(left), std::move(left_unions));
    if (!r) return make_and(std::move(ids), std::move(unions));  // that alternative needs nothing more
    rest.push_back(std::move(r));
  }
  return trigram_query_and(make_and(std::move(ids), std::move(unions)), trigram_query_or(std::move(rest)));
}

void write_line(const std::string& line) {
  FILE* out = log_get_stream();
  fwrite(line.data(), 1, line.size(), out);
}

}  // namespace

trigram_query_ptr trigram_query_set(std::vector<int32_t> ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids.empty() ? nullptr : make_set(std::move(ids));
}

trigram_query_ptr trigram_query_and(const trigram_query_ptr& a, const trigram_query_ptr& b) {
  if (!a) return b;
  if (!b || a == b) return a;
  const std::vector<int32_t>&ia = required_ids(*a), &ib = required_ids(*b);
  std::vector<int32_t> ids;
  ids.reserve(ia.size() + ib.size());
  std::set_union(ia.begin(), ia.end(), ib.begin(), ib.end(), std::back_inserter(ids));
  query_list unions = required_unions(a);
  for (const trigram_query_ptr& u : required_unions(b)) {
    if (unions.size() >= QUERY_MAX_AND_UNIONS) break;
    if (std::none_of(unions.begin(), unions.end(), [&](const trigram_query_ptr& have) { return same_query(have, u); }))
      unions.push_back(u);
  }
  return make_and(std::move(ids), std::move(unions));
}

trigram_query_ptr trigram_query_or(std::vector<trigram_query_ptr> alternatives) {
  for (const trigram_query_ptr& a : alternatives)
    if (!a) return nullptr;  // one unconstrained alternative frees the whole OR
  query_list flat = flatten_alternatives(alternatives);
  drop_implied_alternatives(flat);
  if (flat.empty()) return nullptr;
  if (flat.size() == 1) return flat[0];
  if (trigram_query_ptr factored = factor_common(flat)) return factored;

  size_t leaves = 0;
  for (const trigram_query_ptr& a : flat) leaves += a->leaves;
  if (leaves > QUERY_MAX_UNION_LEAVES) return nullptr;
  auto u = std::make_shared<trigram_query>();
  u->type = TQ_UNION;
  u->members = std::move(flat);
  u->leaves = leaves;
  return u;
}

trigram_query_ptr trigram_query_shrink(const trigram_query_ptr& q, size_t limit) {
  if (!q || q->leaves <= limit) return q;
  if (q->type == TQ_UNION) return nullptr;
  std::vector<int32_t> ids = required_ids(*q);
  if (ids.size() > limit) ids.resize(limit);
  size_t used = ids.size();
  query_list unions;
  for (const trigram_query_ptr& u : required_unions(q))
    if (used + u->leaves <= limit) {
      unions.push_back(u);
      used += u->leaves;
    }
  return make_and(std::move(ids), std::move(unions));
}

trigram_query_ptr trigram_query_reduce(const trigram_query_ptr& q) {
  if (!q) return nullptr;
  if (q->type == TQ_SET) return trigram_query_set(q->ids);
  if (q->type == TQ_UNION) {
    if (q->members.empty()) return nullptr;
    query_list alternatives;
    for (const trigram_query_ptr& m : q->members) {
      trigram_query_ptr r = trigram_query_reduce(m);
      if (!r) return nullptr;  // a member without constraint frees the union
      alternatives.push_back(std::move(r));
    }
    return trigram_query_or(std::move(alternatives));
  }
  // Any other type combines its members like an intersection, as the
  // evaluator and the index do.
  trigram_query_ptr all;
  for (const trigram_query_ptr& m : q->members) all = trigram_query_and(all, trigram_query_reduce(m));
  return all;
}

trigram_query_ptr trigram_query_create(uint32_t type, size_t n, uint32_t member_type, size_t member_count) {
  auto q = std::make_shared<trigram_query>();
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
