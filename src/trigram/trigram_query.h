// The Boolean filter over trigrams that the index evaluates before a line is
// confirmed: unions and intersections whose leaves are trigram sets.
//
// A null query, and any node without ids or members, places no constraint:
// every line passes it.
//
// Queries are built with the constructors below, which simplify as they go
// and only ever give trees in this normal form:
//   - null: no constraint;
//   - a set: ids sorted, distinct, at least one;
//   - a union: two or more members, each a set or an intersection;
//   - an intersection: at most one set, first, then unions; at least two
//     members (a lone union is that union).
// Every simplification is exact (the same lines pass) except where a
// constructor's size cap drops a requirement, which only lets more lines
// through. Built nodes may be shared by several parents, so a node is never
// changed once a constructor has returned it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

enum trigram_query_type : uint32_t {
  TQ_UNION = 0,         // any member matches
  TQ_SET = 1,           // every listed trigram occurs ("intersection[s]")
  TQ_INTERSECTION = 2,  // every member matches ("intersection[c]")
};

struct trigram_query;
using trigram_query_ptr = std::shared_ptr<trigram_query>;

struct trigram_query {
  uint32_t type = TQ_UNION;
  std::vector<trigram_query_ptr> members;  // TQ_UNION and TQ_INTERSECTION; may hold nulls
  std::vector<int32_t> ids;                // TQ_SET
  // Ids below this node, a shared member counted each time it occurs; kept
  // by the constructors (0 in trees built by hand).
  size_t leaves = 0;

  // Member count of a union or intersection, id count of a set.
  size_t count() const { return type == TQ_SET ? ids.size() : members.size(); }
};

// Caps that keep a built query small enough for the index to combine.
inline constexpr size_t QUERY_MAX_AND_IDS = 1024;      // ids required side by side
inline constexpr size_t QUERY_MAX_AND_UNIONS = 64;     // unions required side by side
inline constexpr size_t QUERY_MAX_UNION_LEAVES = 65536;  // ids below one union

// ---- Constructors (normal form in, normal form out) ----

// The set of `ids` (any order, repeats allowed); null when there are none.
trigram_query_ptr trigram_query_set(std::vector<int32_t> ids);

// Both a and b (either may be null). Ids are merged and unions kept once.
trigram_query_ptr trigram_query_and(const trigram_query_ptr& a, const trigram_query_ptr& b);

// Any one of `alternatives`; null when one of them is null (it lets every
// line through) or when the union would hold more than
// QUERY_MAX_UNION_LEAVES ids. What every alternative requires is pulled out
// in front, ((x AND a) OR (x AND b) is x AND (a OR b)), an alternative that
// requires a superset of another set's ids is dropped, and nested unions
// are flattened.
trigram_query_ptr trigram_query_or(std::vector<trigram_query_ptr> alternatives);

// `q` within `limit` ids: requirements beyond the limit are dropped, and a
// union that does not fit is given up (null).
trigram_query_ptr trigram_query_shrink(const trigram_query_ptr& q, size_t limit);

// Any tree (built by hand, with nulls or empty nodes) rebuilt through the
// constructors: it accepts the same lines, in normal form. Null means no
// trigram filter.
trigram_query_ptr trigram_query_reduce(const trigram_query_ptr& query);

// A bare node of `type` for building by hand: a union gets n member slots,
// each a new node of `member_type` sized `member_count` when that is
// non-zero (null otherwise); a set gets n zero ids; an intersection n null
// member slots.
trigram_query_ptr trigram_query_create(uint32_t type, size_t n, uint32_t member_type = TQ_UNION,
                                       size_t member_count = 0);

// ---- Output ----

// Writes the tree to the log stream, one prefixed line per node, indented by
// depth. `bound` (an index's trigram count, 0 for none) limits which ids are
// decoded. The caller decides whether the log level allows it.
void trigram_query_print(const trigram_query* q, int depth, int32_t bound = 0);

// Compact one-line form: "{O=type/count:ids or members}".
std::string trigram_query_to_text(const trigram_query* q);
