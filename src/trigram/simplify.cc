#include "trigram/simplify.h"

#include <algorithm>
#include <unordered_map>

#include "log/log.h"

// Throughout, a node without ids or members places no constraint (every line
// passes it), exactly like a null branch. The filter must stay a necessary
// condition for a match, so such a member is dropped from an intersection
// but turns a whole union into "no constraint": dropping it from the union
// would reject lines that only that member let through.

namespace {

bool is_empty(const trigram_query& q) { return q.count() == 0; }

// Any type other than union and set combines its members like an
// intersection, as the evaluator and the index do.
bool is_intersection(const trigram_query& q) { return q.type != TQ_UNION && q.type != TQ_SET; }

// A union holding exactly one set with ids: it means that set.
bool is_single_set_union(const trigram_query& q) {
  return q.type == TQ_UNION && q.members.size() <= 1 && trigram_query_first_set_size(&q) > 0;
}

void absorb_single_set_unions(trigram_query& n) {
  auto last_set = std::find_if(n.members.rbegin(), n.members.rend(),
                               [](const trigram_query_ptr& m) { return m->type == TQ_SET; });
  if (last_set == n.members.rend()) return;
  trigram_query& s = **last_set;
  for (auto& m : n.members) {
    if (!is_single_set_union(*m)) continue;
    const auto& ids = m->members[0]->ids;
    s.ids.insert(s.ids.end(), ids.begin(), ids.end());
    m->members.clear();  // left empty; removed with the other empty members below
  }
}

void flatten_nested_intersections(trigram_query& n) {
  size_t lifted = 0, nested = 0;
  for (const auto& m : n.members)
    if (m->type == TQ_INTERSECTION && !m->members.empty()) {
      lifted += m->members.size();
      ++nested;
    }
  if (nested == 0) return;
  std::vector<trigram_query_ptr> flat;
  flat.reserve(n.members.size() - nested + lifted);
  for (auto& m : n.members) {
    if (m->type == TQ_INTERSECTION && !m->members.empty())
      for (auto& inner : m->members) flat.push_back(std::move(inner));
    else
      flat.push_back(std::move(m));
  }
  n.members = std::move(flat);
  log_printf(LOG_DETAIL, "Collapsed a total of %zu nested results in %zu nodes [1].", lifted, nested);
}

void merge_sets(trigram_query& n) {
  trigram_query* first = nullptr;
  size_t sets = 0, total = 0;
  for (const auto& m : n.members)
    if (m->type == TQ_SET) {
      if (!first) first = m.get();
      ++sets;
      total += m->ids.size();
    }
  if (sets < 2) return;
  std::vector<int32_t> ids;
  ids.reserve(total);
  for (const auto& m : n.members)
    if (m->type == TQ_SET)
      for (int32_t id : m->ids)
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  first->ids = std::move(ids);
  std::erase_if(n.members, [first](const trigram_query_ptr& m) { return m->type == TQ_SET && m.get() != first; });
  log_printf(LOG_DETAIL, "Collapsed a total of %zu nested results in %zu nodes [2].", total, sets);
}

trigram_query_ptr collapse_union_of_unions(trigram_query_ptr n) {
  log_printf(LOG_DETAIL, "Collapsed parent union of %zu union elements into one.", n->members.size());
  auto u = std::make_unique<trigram_query>();
  u->type = TQ_UNION;
  for (auto& m : n->members)
    for (auto& inner : m->members) u->members.push_back(std::move(inner));
  return u;
}

// True when every id of `sub` occurs in `super`, both sorted and distinct.
bool covers(const std::vector<int32_t>& super, const std::vector<int32_t>& sub) {
  return std::includes(super.begin(), super.end(), sub.begin(), sub.end());
}

// Drops union members that require a superset of another member's trigrams:
// they add nothing to the OR. Of two equal members the later one goes.
void remove_redundant_terms(trigram_query& u) {
  auto& members = u.members;
  const size_t before = members.size();
  std::vector<std::vector<int32_t>> sorted(before);
  for (size_t i = 0; i < before; ++i) {
    sorted[i] = members[i]->ids;
    std::sort(sorted[i].begin(), sorted[i].end());
    sorted[i].erase(std::unique(sorted[i].begin(), sorted[i].end()), sorted[i].end());
  }
  // Only a member holding every id of i can be covered by i: look at the
  // holders of i's least held id (in member order) instead of every member,
  // so that large alternations stay fast. The outcome is the same.
  std::unordered_map<int32_t, std::vector<size_t>> holders;
  for (size_t j = 0; j < before; ++j)
    for (int32_t id : sorted[j]) holders[id].push_back(j);
  size_t removed = 0;
  for (size_t i = 0; i < before; ++i) {
    if (!members[i] || members[i]->ids.empty()) continue;
    const std::vector<size_t>* candidates = nullptr;
    for (int32_t id : sorted[i]) {
      const std::vector<size_t>& h = holders[id];
      if (!candidates || h.size() < candidates->size()) candidates = &h;
    }
    for (size_t j : *candidates) {
      if (j == i || !members[j] || members[j]->ids.empty()) continue;
      if (members[i]->ids.size() <= members[j]->ids.size() && covers(sorted[j], sorted[i])) {
        members[j].reset();
        ++removed;
      }
    }
  }
  if (removed == 0) return;
  std::erase(members, nullptr);
  log_printf(LOG_DETAIL, "Removed %zu of %zu items from redundant terms.", removed, before);
}

}  // namespace

trigram_query_ptr trigram_query_simplify(trigram_query_ptr n) {
  if (!n) return nullptr;
  if (n->type == TQ_SET) return n->ids.empty() ? nullptr : std::move(n);
  if (n->members.empty()) {
    // An empty union is left for its parent to settle; the root one is
    // turned into "no filter" by trigram_query_reduce.
    if (n->type == TQ_UNION) return n;
    return nullptr;
  }

  size_t nulls = 0;
  for (auto& m : n->members) {
    m = trigram_query_simplify(std::move(m));
    if (!m) ++nulls;
  }
  const size_t before = n->members.size();
  if (n->type == TQ_UNION) {
    bool unconstrained = std::any_of(n->members.begin(), n->members.end(),
                                     [](const trigram_query_ptr& m) { return !m || is_empty(*m); });
    if (unconstrained) {
      log_printf(LOG_DETAIL, "Collapsed an entire branch of %zu nodes.", before);
      return nullptr;
    }
  } else if (nulls == before) {
    log_printf(LOG_DETAIL, "Collapsed an entire branch of %zu nodes.", before);
    return nullptr;
  } else if (nulls > 0) {
    std::erase(n->members, nullptr);
    log_printf(LOG_DETAIL, "Removed %zu of %zu nodes from collapsed branch.", nulls, before);
  }

  if (is_intersection(*n)) {
    absorb_single_set_unions(*n);
    flatten_nested_intersections(*n);
    merge_sets(*n);
    if (n->members.size() == 1 && n->members[0]->type == TQ_SET) {
      log_printf(LOG_DETAIL, "Collapsed redundantly nested intersection pair.");
      return std::move(n->members[0]);
    }
    // Unions never get here with empty members: those made them unconstrained.
    size_t dropped = std::erase_if(n->members, [](const trigram_query_ptr& m) { return is_empty(*m); });
    if (dropped) log_printf(LOG_DETAIL, "Reduced result set by an additional %zu child node(s).", dropped);
  }

  if (n->members.size() == 1) {
    trigram_query_ptr child = std::move(n->members[0]);
    n->type = child->type;
    n->members = std::move(child->members);
    n->ids = std::move(child->ids);
    log_printf(LOG_DETAIL, "Folded redundant child result up into parent.");
  }

  if (n->type == TQ_UNION && n->members.size() > 1) {
    const auto& ms = n->members;
    if (std::all_of(ms.begin(), ms.end(), [](const trigram_query_ptr& m) { return m->type == TQ_UNION; }))
      return collapse_union_of_unions(std::move(n));
    if (std::all_of(ms.begin(), ms.end(), [](const trigram_query_ptr& m) { return m->type == TQ_SET; }))
      return trigram_query_factor(std::move(n));
  }
  return n;
}

trigram_query_ptr trigram_query_reduce(trigram_query_ptr query) {
  trigram_query_ptr t = trigram_query_simplify(std::move(query));
  if (t && t->type == TQ_UNION && t->members.size() > 1 &&
      std::all_of(t->members.begin(), t->members.end(),
                  [](const trigram_query_ptr& m) { return m && m->type == TQ_SET; }))
    remove_redundant_terms(*t);
  t = trigram_query_simplify(std::move(t));
  // A root without ids or members places no constraint: say so with null,
  // the one form every consumer reads as "no trigram filter".
  if (t && is_empty(*t)) return nullptr;
  return t;
}
